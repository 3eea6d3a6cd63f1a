// The options whose effect a run does not show: "-o" and the Eclipse directory, and the exact
// spelling of the switches.
#include "installer/cmdline.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "installer/state.h"

namespace {

void parse(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    EXPECT_EQ(parseCommandLine(static_cast<int>(args.size()), argv.data()), 0u);
}

TEST(CommandLine, OptionsTheStepsUse) {
    resetInstallState();
    parse({"cvinst", "-s", "-cleanup", "-o", "irix-6-5", "+Backup-Dir", "/save/", "-eclipse-dir", "/opt/eclipse"});
    EXPECT_TRUE(gState.skipVerification == 1 && gState.cleanupAfterInstall == 1);
    EXPECT_TRUE(!strcmp(gState.osTypeOverride, "irix-6-5") && !strcmp(gState.answers.backupDir, "/save/") &&
                !strcmp(gState.answers.eclipseDir, "/opt/eclipse"));
    // The switches start afresh and are exact; a path option leaves an option-like word alone.
    parse({"cvinst", "-S", "-CLEANUP", "-cleanup2", "-s ", "-backup-dir", "+post-install", "-eclipse-dir"});
    EXPECT_TRUE(gState.skipVerification == 0 && gState.cleanupAfterInstall == 0 && gState.answers.postInstall == 1);
    EXPECT_TRUE(!strcmp(gState.osTypeOverride, "") && !strcmp(gState.answers.backupDir, "/save/") &&
                !strcmp(gState.answers.eclipseDir, "/opt/eclipse"));
}

}  // namespace

// The options whose effect a run cannot show yet (the steps that use them are still to come):
// "-s", "-cleanup", "-o" and the backup and Eclipse directories.
#include "installer/cmdline.h"

#include <gtest/gtest.h>

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

TEST(CommandLineTest, OptionsTheStepsToComeWillUse) {
    resetInstallState();
    parse({"cvinst", "-s", "-cleanup", "-o", "irix-6-5", "+Backup-Dir", "/save/", "-eclipse-dir", "/opt/eclipse"});
    EXPECT_EQ(gState.skipVerification, 1);
    EXPECT_EQ(gState.cleanupAfterInstall, 1);
    EXPECT_STREQ(gState.osTypeOverride, "irix-6-5");
    EXPECT_STREQ(gState.answers.backupDir, "/save/");
    EXPECT_STREQ(gState.answers.eclipseDir, "/opt/eclipse");

    // The switches start afresh and are exact; a path option leaves an option-like word alone.
    parse({"cvinst", "-S", "-CLEANUP", "-cleanup2", "-s ", "-backup-dir", "+post-install", "-eclipse-dir"});
    EXPECT_EQ(gState.skipVerification, 0);
    EXPECT_EQ(gState.cleanupAfterInstall, 0);
    EXPECT_STREQ(gState.osTypeOverride, "");
    EXPECT_STREQ(gState.answers.backupDir, "/save/");
    EXPECT_STREQ(gState.answers.eclipseDir, "/opt/eclipse");
    EXPECT_EQ(gState.answers.postInstall, 1);
}

}  // namespace

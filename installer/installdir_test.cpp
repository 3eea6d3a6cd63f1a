// The plug-in side of the installation-directory step, driven directly: the default beside the
// Eclipse location (which a run cannot set while the Eclipse step is still to come) and the
// directories that the later steps write into.
#include "installer/installdir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "installer/console.h"
#include "installer/state.h"

namespace {

class PluginDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        gState.pluginMode = 1;
        char pattern[] = "/tmp/cvinst-installdir.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
    }
    void TearDown() override {
        if (gConsoleIn != nullptr) fclose(gConsoleIn);
        gConsoleIn = nullptr;
        EXPECT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
    }
    // Runs the step on the given answers; its output goes to out.
    int32_t query(const std::string& answers, std::string* out) {
        if (gConsoleIn != nullptr) fclose(gConsoleIn);
        gConsoleIn = tmpfile();
        fputs(answers.c_str(), gConsoleIn);
        rewind(gConsoleIn);
        testing::internal::CaptureStdout();
        int32_t result = queryInstallDirectory();
        *out = testing::internal::GetCapturedStdout();
        return result;
    }
    std::string dir;
};

TEST_F(PluginDirTest, DefaultLiesBesideEclipse) {
    std::string out;
    for (const auto& row : {std::make_pair("/opt/eclipse/", "/opt/corvplugin/"),
                            std::make_pair("/usr/lib/eclipse202/eclipse", "/usr/lib/eclipse202/corvplugin/")}) {
        strcpy(gState.eclipseLocation, row.first);
        EXPECT_EQ(query("", &out), 1);
        EXPECT_EQ(out, "\nInstall directory [" + std::string(row.second) +
                           "]: Corvane Install: Cannot query install directory.\n");
    }
}

TEST_F(PluginDirTest, AnswerBecomesTheVersionedCorePluginDirectory) {
    const std::string root = dir + "/corvplugin";
    std::string out;
    ASSERT_EQ(query(root + "\n\n", &out), 0) << out;
    const std::string core = root + "/eclipse/plugins/com.corvane.core_10.0.0/";
    EXPECT_EQ(std::string(gState.installDir), core);
    EXPECT_EQ(std::string(gState.binDir), core + "bin/");
    EXPECT_EQ(std::string(gState.macrosDir), core + "macros/");
    EXPECT_EQ(std::string(gState.bitmapsDir), core + "bitmaps/");
    EXPECT_EQ(std::string(gState.eclipsePluginTarget), root + "/eclipse/");
    struct stat info;
    EXPECT_EQ(stat(core.c_str(), &info), 0);
}

}  // namespace

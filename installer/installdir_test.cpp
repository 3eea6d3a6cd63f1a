// The installation-directory step driven directly: the plug-in default that comes from the
// Eclipse location, the plug-in layout, and answers that must not create anything.
#include "installer/installdir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "installer/console.h"
#include "installer/state.h"

namespace {

std::string capture(const std::function<void()>& body) {
    testing::internal::CaptureStdout();
    body();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

bool isDir(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

int countOf(const std::string& haystack, const std::string& needle) {
    int count = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos; at = haystack.find(needle, at + needle.size())) count++;
    return count;
}

bool exists(const std::string& path) {
    struct stat info;
    return lstat(path.c_str(), &info) == 0;
}

class InstallDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        char pattern[] = "/tmp/cvinst-installdir.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        char cwd[4096];
        ASSERT_NE(getcwd(cwd, sizeof(cwd)), nullptr);
        savedCwd = cwd;
    }
    void TearDown() override {
        if (gConsoleIn != nullptr) fclose(gConsoleIn);
        gConsoleIn = nullptr;
        EXPECT_EQ(chdir(savedCwd.c_str()), 0);
        std::string command = "rm -rf '" + dir + "'";
        EXPECT_EQ(system(command.c_str()), 0);
    }
    void input(const std::string& text) {
        gConsoleIn = tmpfile();
        ASSERT_NE(gConsoleIn, nullptr);
        fputs(text.c_str(), gConsoleIn);
        rewind(gConsoleIn);
    }
    int32_t query(std::string* out) {
        int32_t result = -1;
        *out = capture([&] { result = queryInstallDirectory(); });
        return result;
    }

    std::string dir;
    std::string savedCwd;
};

TEST_F(InstallDirTest, PluginDefaultLiesBesideEclipse) {
    gState.pluginMode = 1;
    strcpy(gState.eclipseLocation, "/opt/eclipse/");
    input("");
    std::string out;
    EXPECT_EQ(query(&out), 1);
    EXPECT_EQ(out, "\nInstall directory [/opt/corvplugin/]: Corvane Install: Cannot query install directory.\n");

    strcpy(gState.eclipseLocation, "/usr/lib/eclipse202/eclipse");
    fclose(gConsoleIn);
    input("");
    EXPECT_EQ(query(&out), 1);
    EXPECT_NE(out.find("Install directory [/usr/lib/eclipse202/corvplugin/]: "), std::string::npos) << out;
}

TEST_F(InstallDirTest, PluginAnswerBecomesTheVersionedCorePluginDirectory) {
    gState.pluginMode = 1;
    const std::string root = dir + "/corvplugin";
    input(root + "\n\n");
    std::string out;
    ASSERT_EQ(query(&out), 0) << out;
    const std::string core = root + "/eclipse/plugins/com.corvane.core_10.0.0/";
    EXPECT_EQ(std::string(gState.installDir), core);
    EXPECT_EQ(std::string(gState.binDir), core + "bin/");
    EXPECT_EQ(std::string(gState.macrosDir), core + "macros/");
    EXPECT_EQ(std::string(gState.bitmapsDir), core + "bitmaps/");
    EXPECT_EQ(std::string(gState.eclipsePluginTarget), root + "/eclipse/");
    EXPECT_TRUE(isDir(core));
    EXPECT_NE(out.find("\nDirectory " + root + " does not exist. Create [Y]? "), std::string::npos) << out;
}

TEST_F(InstallDirTest, PluginNoToContinueAsksForTheDirectoryAgain) {
    gState.pluginMode = 1;
    const std::string first = dir + "/first";
    const std::string second = dir + "/second";
    ASSERT_EQ(mkdir(first.c_str(), 0755), 0);
    input(first + "\nn\n" + second + "\ny\n");
    std::string out;
    ASSERT_EQ(query(&out), 0) << out;
    EXPECT_NE(out.find(first + " already exists. Continue [Y]? "), std::string::npos) << out;
    EXPECT_EQ(countOf(out, "Install directory ["), 2) << out;
    EXPECT_FALSE(exists(first + "/eclipse"));
    EXPECT_TRUE(isDir(second + "/eclipse/plugins/com.corvane.core_10.0.0"));
}

TEST_F(InstallDirTest, PluginCreationFailureAsksAgain) {
    gState.pluginMode = 1;
    const std::string blocked = dir + "/blocked";
    ASSERT_EQ(mkdir(blocked.c_str(), 0755), 0);
    // A file where the layout directory has to go makes the creation fail.
    FILE* file = fopen((blocked + "/eclipse").c_str(), "w");
    ASSERT_NE(file, nullptr);
    fclose(file);
    const std::string good = dir + "/good";
    input(blocked + "\ny\n" + good + "\n\n");
    std::string out;
    ASSERT_EQ(query(&out), 0) << out;
    EXPECT_NE(out.find("Corvane Install: Cannot create directory " + blocked + "/eclipse/plugins."), std::string::npos)
        << out;
    EXPECT_EQ(std::string(gState.eclipsePluginTarget), good + "/eclipse/");
}

TEST_F(InstallDirTest, PresetThatFillsTheWholeBufferIsRefused) {
    // 511 characters: no room for the "/" that a directory needs.
    std::string preset = dir + "/";
    preset += std::string(511 - preset.size(), 'x');
    strcpy(gState.answers.destinationDir, preset.c_str());
    input("");
    std::string out;
    EXPECT_EQ(query(&out), 1);
    EXPECT_NE(out.find("is too long."), std::string::npos) << out;
}

}  // namespace

// End-to-end: the choice of the distribution package at start-up. Which package won shows in
// the banner: the plug-in packages switch the installer into plug-in mode.
#include <unistd.h>

#include <utility>

#include "tests/harness.h"

namespace {

const char kPluginBanner[] = "\n*       Corvane PLUG-IN INSTALLATION PROGRAM        \n";
const char kNormalBanner[] = "\n*           Corvane INSTALLATION PROGRAM            \n";

class PackageChoiceTest : public InstallerTest {
protected:
    // A distribution with the first package built by cvmkdist and the others as copies of it.
    std::string distributionWith(const std::vector<std::string>& packages, const std::string& name) {
        DistOptions options;
        options.package = packages.front();
        std::string dir = makeDistribution(options, name);
        std::string content = readFile(dir + "/" + packages.front());
        for (size_t i = 1; i < packages.size(); i++) writeFile(dir + "/" + packages[i], content);
        return dir;
    }
    // Starts the installer of that distribution and ends it at the pause after the banner.
    RunResult start(const std::string& dir) {
        RunOptions options;
        options.argv0 = dir + "/cvinst";
        options.cwd = dir;
        return run(options);
    }
};

TEST_F(PackageChoiceTest, EachPackageWinsOverTheNextOneInProbeOrder) {
    // Neighbours in the probe order always differ in mode, so the banner tells which one won.
    const struct {
        const char* first;
        const char* second;
        bool plugin;
    } pairs[] = {{"cvpackd", "cvpackepd", false},
                 {"cvpackepd", "cvpacku", true},
                 {"cvpacku", "cvpackep", false},
                 {"cvpackep", "cvpack", true}};
    for (const auto& pair : pairs) {
        SCOPED_TRACE(std::string(pair.first) + " + " + pair.second);
        // Built in either order, so that the file made first does not decide.
        for (int reversed = 0; reversed < 2; reversed++) {
            std::vector<std::string> packages = {pair.first, pair.second};
            if (reversed) std::swap(packages[0], packages[1]);
            std::string dir = distributionWith(packages, std::string("d-") + pair.first + "-" + pair.second +
                                                             (reversed ? "-r" : ""));
            RunResult r = start(dir);
            EXPECT_FALSE(r.timedOut);
            EXPECT_EQ(r.exitStatus, 1) << "end of input at the pause";
            EXPECT_NE(r.out.find(pair.plugin ? kPluginBanner : kNormalBanner), std::string::npos) << r.out;
            EXPECT_EQ(r.out.find(pair.plugin ? kNormalBanner : kPluginBanner), std::string::npos) << r.out;
        }
    }
}

TEST_F(PackageChoiceTest, DebugPackageBeatsEveryPluginPackage) {
    std::string dir = distributionWith({"cvpackep", "cvpackepd", "cvpack", "cvpackd"}, "all");
    RunResult r = start(dir);
    EXPECT_NE(r.out.find(kNormalBanner), std::string::npos) << r.out;
}

TEST_F(PackageChoiceTest, PluginPackageShowsThePluginBanner) {
    std::string dir = distributionWith({"cvpackep"}, "plugin");
    RunResult r = start(dir);
    EXPECT_TRUE(appearsInOrder(r.out, {"\n\n*************************************************************\n"
                                       "*************************************************************",
                                       kPluginBanner, "*                       Version 10.0                    \n",
                                       "<ENTER> to continue..."}))
        << r.out;
}

TEST_F(PackageChoiceTest, NoPackageEndsTheRunWithThreeLines) {
    DistOptions options;
    options.package = "";
    std::string dir = makeDistribution(options, "none");
    RunResult r = start(dir);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_EQ(r.out, "Corvane Install: Missing distribution file.\n"
                     "Corvane Install: Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in " +
                         dir + "/.\nCorvane Install: Make sure the files are in lowercase.\n");
}

TEST_F(PackageChoiceTest, UpperCasePackageNameIsNotFound) {
    std::string dir = distributionWith({"cvpack"}, "upper");
    std::string content = readFile(dir + "/cvpack");
    ASSERT_EQ(unlink((dir + "/cvpack").c_str()), 0);
    writeFile(dir + "/CVPACK", content);
    writeFile(dir + "/CvPackEp", content);
    RunResult r = start(dir);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {"Corvane Install: Missing distribution file.\n",
                                       "Corvane Install: Make sure the files are in lowercase.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("INSTALLATION PROGRAM"), std::string::npos);
}

}  // namespace

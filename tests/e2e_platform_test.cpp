// End-to-end: the choice of the distribution package at start-up. Which package won shows in
// the banner: the plug-in packages switch the installer into plug-in mode.
#include <unistd.h>

#include <algorithm>

#include "tests/harness.h"

namespace {

const char kPluginBanner[] = "\n*       Corvane PLUG-IN INSTALLATION PROGRAM        \n";
const char kNormalBanner[] = "\n*           Corvane INSTALLATION PROGRAM            \n";

class PackageChoiceTest : public InstallerTest {
protected:
    // A distribution with the first package built by cvmkdist and the others as copies of it.
    std::string distributionOf(const std::vector<std::string>& packages, const std::string& name) {
        std::string dir = distributionWith(packages.front(), name);
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
        std::vector<std::string> packages;
        bool plugin;
    } rows[] = {{{"cvpackd", "cvpackepd"}, false}, {{"cvpackepd", "cvpacku"}, true},
                {{"cvpacku", "cvpackep"}, false},  {{"cvpackep", "cvpack"}, true},
                {{"cvpackep", "cvpackepd", "cvpack", "cvpackd"}, false}};
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.packages[0] + " + " + row.packages[1]);
        // Built in either order, so that the file made first does not decide.
        for (int reversed = 0; reversed < 2; reversed++) {
            std::vector<std::string> packages = row.packages;
            if (reversed) std::reverse(packages.begin(), packages.end());
            RunResult r = start(distributionOf(packages, "d" + std::to_string(n++)));
            EXPECT_FALSE(r.timedOut);
            EXPECT_EQ(r.exitStatus, 1) << "end of input at the pause";
            EXPECT_NE(r.out.find(row.plugin ? kPluginBanner : kNormalBanner), std::string::npos) << r.out;
            EXPECT_EQ(r.out.find(row.plugin ? kNormalBanner : kPluginBanner), std::string::npos) << r.out;
        }
    }
}

TEST_F(PackageChoiceTest, NoPackageEndsTheRunWithThreeLines) {
    DistOptions options;
    options.package = "";
    std::string none = makeDistribution(options, "none");
    std::string upper = distributionOf({"cvpack"}, "upper");
    writeFile(upper + "/CVPACK", readFile(upper + "/cvpack"));
    writeFile(upper + "/CvPackEp", readFile(upper + "/cvpack"));
    ASSERT_EQ(unlink((upper + "/cvpack").c_str()), 0);
    for (const std::string& dir : {none, upper}) {
        RunResult r = start(dir);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_EQ(r.out, "Corvane Install: Missing distribution file.\n"
                         "Corvane Install: Please verify that 'cvpack' or 'cvpacku' or 'cvpackd' is in " +
                             dir + "/.\nCorvane Install: Make sure the files are in lowercase.\n");
    }
}

}  // namespace

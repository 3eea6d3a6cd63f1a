// End-to-end: Eclipse plug-in installations from both plug-in packages into a stand-in Eclipse
// installation, and the links directory as seen by an unprivileged user.
#include "tests/harness.h"

namespace {

const std::string kStars(61, '*');
const std::string kLinkFile = "/links/com.corvane.eclipse.plugin.link";

class PluginTest : public InstallerTest {
protected:
    void SetUp() override {
        InstallerTest::SetUp();
        writeFile("ide/eclipse/.eclipseproduct", "id=org.eclipse.platform\n");
        eclipse = path("ide/eclipse/");
    }
    std::string pluginDist(const std::string& package) {
        return makeDistribution({package, true, true, demoPluginPayload()}, package);
    }
    RunResult install(const std::string& dir, const std::string& answers, std::vector<std::string> args = {},
                      bool unprivileged = false) {
        RunOptions options;
        options.argv0 = dir + "/cvinst";
        options.args = args;
        options.args.push_back("-d");
        options.input = kOpening + answers;
        options.unprivileged = unprivileged;
        return run(options);
    }
    static std::string box(const std::string& text) { return "\n***\n" + text + "\n***\n"; }

    std::string eclipse;   // the Eclipse location, with "/"
};

TEST_F(PluginTest, BothPackagesInstallAsVersionedPluginsLinkedIntoEclipse) {
    const std::string root = path("ide/corvplugin"), core = root + "/eclipse/plugins/com.corvane.core_10.0.0";
    // An empty answer, a wrong location, then the one above the Eclipse directory; the default
    // plug-in root beside it is taken and created.
    RunResult r = install(pluginDist("cvpackep"), "\n\n" + path("nowhere") + "\ny\n" + path("ide") + "\n\n\n",
                          {"+post-install"});
    ASSERT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {
        "*       Corvane PLUG-IN INSTALLATION PROGRAM        \n", kAgreeQuestion,
        "\n" + kStars + "\n* Please specify the location of your Eclipse or \n* Websphere Studio installation.\n*\n"
            "* Example: /usr/lib/eclipse202/eclipse\n" + kStars + "\n\nWebSphere or Eclipse location []: ",
        box("No Eclipse location was given.\nGive the directory that holds the Eclipse or WebSphere Studio installation."),
        "Try again [Y]? \nWebSphere or Eclipse location []: ",
        box("The Eclipse location is not valid: '" + path("nowhere") + "/eclipse/.eclipseproduct' does not exist.\n"
            "Give the directory that holds the Eclipse or WebSphere Studio installation."),
        "Try again [Y]? \nWebSphere or Eclipse location []: \nInstall directory [" + root + "/]: \nDirectory " + root +
            " does not exist. Create [Y]? ",
        "\n\n" + kStars + "\n* The Corvane Plug-In requires that the following\n* paths be in your LD_LIBRARY_PATH "
            "search path:\n*\n* " + core + "/bin/\n* " + eclipse + "\n*\n" + kStars + "\n"})) << r.out;
    EXPECT_EQ(r.out.find("X server"), std::string::npos);
    EXPECT_EQ(r.out.find("Some old global configuration files"), std::string::npos);
    EXPECT_TRUE(endsWith(r.out,
        "\n" + kStars + "\n*           INSTALLATION SUCCESSFULLY COMPLETED              \n" + kStars + "\n\n"
        "Installation of Corvane Plug-In for WebSphere and Eclipse was successful!\n\nNOTES:\n"
        "1. Because of the LD_LIBRARY_PATH settings, we recommend starting\n   Eclipse using '" + eclipse +
        "eclipse-cv'.\n")) << r.out;

    EXPECT_EQ(listDir(root + "/eclipse/features"), std::vector<std::string>{"com.corvane.plugin_10.0.0"});
    EXPECT_EQ(listDir(root + "/eclipse/plugins"),
              (std::vector<std::string>{"com.corvane.core_10.0.0", "com.corvane.eclipse.plugin_10.0.0"}));
    EXPECT_TRUE(isRegularFile(root + "/eclipse/features/com.corvane.plugin_10.0.0/feature.xml"));
    EXPECT_TRUE(isRegularFile(root + "/eclipse/plugins/com.corvane.eclipse.plugin_10.0.0/plugin.xml"));
    EXPECT_TRUE(isRegularFile(core + "/plugin.xml"));
    EXPECT_FALSE(exists(core + "/eclipse"));
    EXPECT_TRUE(isSymlink(core + "/bin/cvt"));
    EXPECT_TRUE(isRegularFile(core + "/bin/corv.ini"));
    EXPECT_TRUE(isRegularFile(core + "/macros/main.ex"));
    EXPECT_EQ(readFile(eclipse + kLinkFile), "path=" + root);
    EXPECT_EQ(readFile(eclipse + "eclipse-cv"), "#!/bin/sh\n\nLD_LIBRARY_PATH=" + core + "/bin:" + eclipse +
                                                    ":$LD_LIBRARY_PATH " + eclipse + "eclipse $*\n");
    EXPECT_EQ(modeOf(eclipse + "eclipse-cv"), 0755u);

    // The other package, the Eclipse directory named directly, a root whose name needs quoting
    // (the layout copy ends in a wildcard), and the launch script kept on Enter.
    const std::string odd = path("my \"plug\" $HOME 'in'"), oddCore = odd + "/eclipse/plugins/com.corvane.core_10.0.0";
    writeFile(eclipse + "eclipse-cv", "#!/bin/sh\n# the user's own\n", 0700);
    r = install(pluginDist("cvpackepd"), eclipse + "\n" + odd + "\n\n\n", {"+post-install"});
    ASSERT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("\n" + eclipse + "eclipse-cv already exists. Overwrite [N]? "), std::string::npos) << r.out;
    EXPECT_EQ(readFile(eclipse + "eclipse-cv"), "#!/bin/sh\n# the user's own\n");
    EXPECT_EQ(readFile(eclipse + kLinkFile), "path=" + odd);
    EXPECT_TRUE(isRegularFile(odd + "/eclipse/features/com.corvane.plugin_10.0.0/feature.xml"));
    EXPECT_TRUE(isRegularFile(oddCore + "/plugin.xml"));
    EXPECT_TRUE(isRegularFile(oddCore + "/bin/cv"));
    EXPECT_FALSE(exists(oddCore + "/eclipse"));
}

TEST_F(PluginTest, LinksDirectoryThatCannotBeUsedStopsTheInstallation) {
    makeDirs("mine");
    giveToNobody("mine");
    std::string dir = pluginDist("cvpackep");
    giveToNobody("cvpackep");
    writeFile("locked/eclipse/.eclipseproduct", "id=org.eclipse.platform\n");
    const struct {
        bool linksExist;
        std::string shown;
    } rows[] = {
        {false, box("The Eclipse links directory '" + path("locked/eclipse/links") +
                    "' could not be created.\nCheck that you may write to the Eclipse location.") +
                    "Try again [Y]? \n***\nThe Eclipse links directory '"},
        {true, "Corvane Install: Insufficient access to create link file. Read/Write access is required for " +
                   path("locked/eclipse/links") + ".\nTry again [Y]? Corvane Install: Insufficient access"},
    };
    int n = 0;
    for (const auto& row : rows) {
        if (row.linksExist) makeDirs("locked/eclipse/links", 0755);
        std::string root = path("mine/root" + std::to_string(n++));
        RunResult r = install(dir, path("locked") + "\n" + root + "\n\ny\nn\n", {}, true);
        EXPECT_EQ(r.exitStatus, 1) << r.out;
        EXPECT_NE(r.out.find(row.shown), std::string::npos) << r.out;
        EXPECT_EQ(r.out.find("INSTALLATION SUCCESSFULLY COMPLETED"), std::string::npos);
        EXPECT_FALSE(exists(path("locked/eclipse") + kLinkFile));
    }
}

}  // namespace

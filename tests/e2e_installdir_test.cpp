// End-to-end: the installation-directory step of a real run. Answers, presets from the
// answers file and the command line, the creation question, plug-in paths, awkward answers,
// and the access messages seen by an unprivileged user.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/harness.h"

namespace {

const char kOpening[] = "\nyes\n";   // Enter at the pause, "yes" to the agreement
const char kPrompt[] = "Install directory [/opt/corvane/]: ";

class InstallDirTest : public InstallerTest {
protected:
    void TearDown() override {
        for (const std::string& point : mounts) umount2(point.c_str(), MNT_DETACH);
        InstallerTest::TearDown();
    }

    // A run without the X question and without the disk-space check.
    RunResult answer(const std::string& answers, const std::vector<std::string>& extra = {},
                     const std::string& cwd = "", bool unprivileged = false) {
        RunOptions options;
        options.args = {"-d", "-post-install"};
        options.args.insert(options.args.end(), extra.begin(), extra.end());
        options.input = kOpening + answers;
        options.cwd = cwd;
        options.unprivileged = unprivileged;
        return run(options);
    }
    static std::string accessMessage(const std::string& dir) {
        return "Corvane Install: Insufficient access to " + dir + ". Read/Write access is required.\n";
    }
    static std::string createMessage(const std::string& dir, const std::string& parent) {
        return "Corvane Install: Insufficient access to create " + dir + ". Read/Write access is required for " +
               parent + ".\n";
    }

    std::vector<std::string> mounts;
};

TEST_F(InstallDirTest, DefaultIsOptCorvane) {
    // As uid 65534, so that accepting the default cannot write to /opt.
    const bool existed = exists("/opt/corvane");
    RunResult r = answer("\n\n", {}, "", true);
    EXPECT_EQ(r.exitStatus, 1) << r.out << r.err;
    EXPECT_NE(r.out.find(kPrompt), std::string::npos) << r.out;
    if (!existed) {
        EXPECT_NE(r.out.find(createMessage("/opt/corvane/", "/opt")), std::string::npos) << r.out;
        EXPECT_FALSE(exists("/opt/corvane"));
    } else {
        EXPECT_NE(r.out.find(accessMessage("/opt/corvane/")), std::string::npos) << r.out;
    }
}

TEST_F(InstallDirTest, AnsweredDirectoryIsCreatedAfterTheQuestion) {
    RunResult r = answer(path("inst") + "\n\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {kPrompt, "\nDirectory " + path("inst") + "/ does not exist. Create [Y]? ",
                                       "Skipping disk space check."}))
        << r.out;
    EXPECT_TRUE(isDirectory("inst"));
}

TEST_F(InstallDirTest, ExistingDirectoryIsTakenWithoutQuestion) {
    makeDirs("there");
    RunResult r = answer(path("there") + "\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find("does not exist"), std::string::npos) << r.out;
}

TEST_F(InstallDirTest, RelativeAnswerIsResolvedAgainstTheWorkingDirectory) {
    makeDirs("work");
    RunResult r = answer("mydir\ny\n", {}, "work");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("Directory " + path("work") + "/mydir/ does not exist."), std::string::npos) << r.out;
    EXPECT_TRUE(isDirectory("work/mydir"));
}

TEST_F(InstallDirTest, DotsInARelativeAnswerStayAsTyped) {
    makeDirs("work/a");
    RunResult r = answer("./a/../b\ny\n", {}, "work");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("Directory " + path("work") + "/./a/../b/ does not exist."), std::string::npos) << r.out;
    EXPECT_TRUE(isDirectory("work/b"));
    EXPECT_FALSE(exists("work/a/b"));
}

TEST_F(InstallDirTest, PresetFromTheAnswersFileIsCreatedWithoutQuestions) {
    makeDirs("work");
    writeFile("work/setup.ini", "[unattended]\nDestinationDir=" + path("preset") + "\n");
    RunResult r = answer("", {}, "work");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find("Install directory ["), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("does not exist"), std::string::npos) << r.out;
    EXPECT_TRUE(isDirectory("preset"));
}

TEST_F(InstallDirTest, PresetOnTheCommandLineWinsOverTheAnswersFile) {
    makeDirs("work");
    writeFile("work/setup.ini", "[unattended]\nDestinationDir=" + path("fromfile") + "\n");
    RunResult r = answer("", {"-destination-dir", "fromoption"}, "work");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_EQ(r.out.find("Install directory ["), std::string::npos) << r.out;
    EXPECT_TRUE(isDirectory("work/fromoption"));
    EXPECT_FALSE(exists("fromfile"));
}

TEST_F(InstallDirTest, DecliningTheCreationAsksAgain) {
    RunResult r = answer(path("first") + "\nmaybe\nn\n" + path("second") + "\nyes\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {kPrompt, "does not exist. Create [Y]? Please enter 'Y' or 'N'.\n",
                                       "does not exist. Create [Y]? ", kPrompt,
                                       "Directory " + path("second") + "/ does not exist. Create [Y]? "}))
        << r.out;
    EXPECT_FALSE(exists("first"));
    EXPECT_TRUE(isDirectory("second"));
}

TEST_F(InstallDirTest, MissingGrandparentNamesTheParent) {
    RunResult r = answer(path("a/b/c/") + "\ny\n");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(createMessage(path("a/b/c/"), path("a/b"))), std::string::npos) << r.out;
    EXPECT_FALSE(exists("a"));
}

TEST_F(InstallDirTest, PluginModeInstallsIntoTheVersionedCorePlugin) {
    DistOptions options;
    options.package = "cvpackep";
    std::string plugin = makeDistribution(options, "plugin");
    writeFile("eclipse/.eclipseproduct", "name=Eclipse\n");
    RunOptions run1;
    run1.argv0 = plugin + "/cvinst";
    run1.cwd = plugin;
    run1.args = {"-d", "-destination-dir", path("corvplugin")};
    // The Eclipse location comes first; "y" answers the creation question.
    run1.input = std::string(kOpening) + path("eclipse") + "\ny\ny\n";
    RunResult r = run(run1);
    EXPECT_FALSE(r.timedOut);
    EXPECT_NE(r.out.find("\nDirectory " + path("corvplugin") + " does not exist. Create [Y]? "), std::string::npos)
        << r.out;
    EXPECT_TRUE(isDirectory("corvplugin/eclipse/plugins/com.corvane.core_10.0.0"));
}

TEST_F(InstallDirTest, PluginModeEndOfInputStopsTheRun) {
    DistOptions options;
    options.package = "cvpackepd";
    std::string plugin = makeDistribution(options, "plugin");
    RunOptions run1;
    run1.argv0 = plugin + "/cvinst";
    run1.cwd = plugin;
    run1.args = {"-d", "-destination-dir", path("corvplugin")};
    run1.input = kOpening;
    RunResult r = run(run1);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    EXPECT_FALSE(exists("corvplugin"));
}

TEST_F(InstallDirTest, RegularFileIsNotADirectory) {
    writeFile("plain", "x\n");
    RunResult r = answer(path("plain") + "\n" + path("inst") + "\ny\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"Corvane Install: " + path("plain") + " is not a directory.\n", kPrompt,
                                       "Directory " + path("inst") + "/ does not exist."}))
        << r.out;
    EXPECT_EQ(readFile("plain"), "x\n");
    EXPECT_TRUE(isDirectory("inst"));

    RunResult preset = answer("", {"-destination-dir", path("plain")});
    EXPECT_EQ(preset.exitStatus, 1);
    EXPECT_NE(preset.out.find(path("plain") + " is not a directory."), std::string::npos) << preset.out;
}

TEST_F(InstallDirTest, DirectoryBelowARegularFileCannotBeCreated) {
    writeFile("plain", "x\n");
    RunResult r = answer(path("plain/sub") + "\ny\n");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(createMessage(path("plain/sub/"), path("plain"))), std::string::npos) << r.out;
    EXPECT_TRUE(isRegularFile("plain"));
}

TEST_F(InstallDirTest, OverlongAnswerIsRefusedAndNothingIsCreated) {
    std::string longAnswer = path("") + "/";
    while (longAnswer.size() < 700) longAnswer += "0123456789";
    std::vector<std::string> before = listDir("");
    RunResult r = answer(longAnswer + "\ny\ny\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find(" is too long.\n"), std::string::npos) << r.out;
    EXPECT_EQ(listDir(""), before);
}

TEST_F(InstallDirTest, RelativeAnswerThatBecomesTooLongIsRefused) {
    makeDirs("work");
    std::string relative(505, 'r');
    RunResult r = answer(relative + "\ny\n", {}, "work");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("Corvane Install: Install directory " + path("work") + "/" + relative + "/ is too long.\n"),
              std::string::npos)
        << r.out;
    EXPECT_TRUE(listDir("work").empty());
}

TEST_F(InstallDirTest, ShellCharactersAreJustPartOfTheName) {
    const std::string odd = "odd dir \"q\" 'x' $HOME `id`; touch pwned";
    RunResult r = answer(path(odd) + "\ny\n");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(isDirectory(odd));
    EXPECT_FALSE(exists("pwned"));
    EXPECT_FALSE(exists(dist + "/pwned"));
    EXPECT_NE(r.out.find("Directory " + path(odd) + "/ does not exist."), std::string::npos) << r.out;
}

TEST_F(InstallDirTest, BlanksAloneMakeARelativeName) {
    makeDirs("work");
    RunResult r = answer("  \ny\n", {}, "work");
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(isDirectory("work/  "));
}

TEST_F(InstallDirTest, EndOfInputAtTheDirectoryQuestion) {
    RunResult r = answer("");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {kPrompt, "Corvane Install: Cannot query install directory.\n"})) << r.out;
}

TEST_F(InstallDirTest, EndOfInputAtTheCreationQuestion) {
    RunResult r = answer(path("inst") + "\n");
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.out.find("does not exist. Create [Y]? "), std::string::npos) << r.out;
    EXPECT_FALSE(exists("inst"));
}

TEST_F(InstallDirTest, FailedCreationIsCaughtByTheFinalCheck) {
    // A tmpfs without a free inode: the parent is writable, mkdir still fails.
    std::string point = path("full");
    makeDirs(point);
    if (mount("tmpfs", point.c_str(), "tmpfs", 0, "size=1m,nr_inodes=1,mode=0755") != 0)
        GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << strerror(errno);
    mounts.push_back(point);
    RunResult r = answer(point + "/inst\ny\n");
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {"Corvane Install: Cannot create directory " + point + "/inst.\n",
                                       accessMessage(point + "/inst/")}))
        << r.out;
}

// As uid 65534 against directories that belong to root.
TEST_F(InstallDirTest, UnprivilegedUserCannotUseARootDirectory) {
    makeDirs("locked", 0755);
    RunResult r = answer(path("locked") + "\n", {}, "", true);
    EXPECT_EQ(r.exitStatus, 1) << r.err;
    EXPECT_NE(r.out.find(accessMessage(path("locked") + "/")), std::string::npos) << r.out;
}

TEST_F(InstallDirTest, UnprivilegedUserCannotCreateInARootDirectory) {
    makeDirs("locked", 0755);
    RunResult r = answer(path("locked/new") + "\ny\n", {}, "", true);
    EXPECT_EQ(r.exitStatus, 1) << r.err;
    EXPECT_NE(r.out.find(createMessage(path("locked/new") + "/", path("locked"))), std::string::npos) << r.out;
    EXPECT_FALSE(exists("locked/new"));
}

TEST_F(InstallDirTest, UnprivilegedUserNeedsEveryExistingSubdirectory) {
    for (const char* sub : {"bin", "macros", "bitmaps"}) {
        SCOPED_TRACE(sub);
        std::string inst = std::string("inst-") + sub;
        makeDirs(inst);
        giveToNobody(inst);
        makeDirs(inst + "/" + sub, 0755);   // root's, not writable by 65534
        RunResult r = answer(path(inst) + "\n", {}, "", true);
        EXPECT_EQ(r.exitStatus, 1) << r.err;
        EXPECT_NE(r.out.find(accessMessage(path(inst) + "/" + sub + "/")), std::string::npos) << r.out;
    }
}

TEST_F(InstallDirTest, UnprivilegedUserInstallsIntoItsOwnDirectory) {
    makeDirs("mine");
    giveToNobody("mine");
    RunResult r = answer(path("mine/inst") + "\ny\n", {}, "", true);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("Insufficient access"), std::string::npos) << r.out;
    EXPECT_TRUE(isDirectory("mine/inst"));
}

}  // namespace

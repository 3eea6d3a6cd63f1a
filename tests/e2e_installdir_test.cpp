// End-to-end: the installation-directory step of a real run. Answers, presets, the creation
// question, plug-in paths, awkward answers, and the access messages seen by an unprivileged user.
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tests/harness.h"

namespace {

const char kPrompt[] = "Install directory [/opt/corvane/]: ";

class InstallDirTest : public InstallerTest {
protected:
    void TearDown() override {
        for (const std::string& point : mounts) umount2(point.c_str(), MNT_DETACH);
        InstallerTest::TearDown();
    }
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
    EXPECT_NE(r.out.find(existed ? accessMessage("/opt/corvane/") : createMessage("/opt/corvane/", "/opt")),
              std::string::npos) << r.out;
    EXPECT_EQ(exists("/opt/corvane"), existed);
}

TEST_F(InstallDirTest, AnswersAndWhatBecomesOfThem) {
    makeDirs("work/a");
    makeDirs("there");
    writeFile("plain", "x\n");
    const std::string odd = "odd dir \"q\" 'x' $HOME `id`; touch pwned";
    const struct {
        std::string cwd;
        std::vector<std::string> args;
        std::string answers;                 // behind the pause and the agreement
        int exitStatus;
        bool asksToCreate;
        std::vector<std::string> shown;      // in this order
        std::vector<std::string> made;       // directories there afterwards
        std::vector<std::string> absent;     // paths not there afterwards
    } rows[] = {
        {"", {}, path("inst") + "\n\n", 0, true,
         {kPrompt, "\nDirectory " + path("inst") + "/ does not exist. Create [Y]? ", "Skipping disk space check."},
         {"inst"}, {}},
        {"", {}, path("there") + "\n", 0, false, {kPrompt, "Skipping disk space check."}, {"there"}, {}},
        {"work", {}, "mydir\ny\n", 0, true, {"Directory " + path("work") + "/mydir/ does not exist."}, {"work/mydir"}, {}},
        {"work", {}, "./a/../b\ny\n", 0, true, {"Directory " + path("work") + "/./a/../b/ does not exist."}, {"work/b"},
         {"work/a/b"}},
        {"work", {}, "  \ny\n", 0, true, {}, {"work/  "}, {}},
        {"", {}, path(odd) + "\ny\n", 0, true, {"Directory " + path(odd) + "/ does not exist."}, {odd},
         {"pwned", dist + "/pwned"}},
        {"", {}, path("first") + "\nmaybe\nn\n" + path("second") + "\nyes\n", 0, true,
         {kPrompt, "does not exist. Create [Y]? Please enter 'Y' or 'N'.\n", "does not exist. Create [Y]? ", kPrompt,
          "Directory " + path("second") + "/ does not exist. Create [Y]? "},
         {"second"}, {"first"}},
        {"", {}, path("plain") + "\n" + path("inst2") + "\ny\n", 0, true,
         {"Corvane Install: " + path("plain") + " is not a directory.\n", kPrompt,
          "Directory " + path("inst2") + "/ does not exist."},
         {"inst2"}, {}},
        {"", {"-destination-dir", path("plain")}, "", 1, false,
         {"Corvane Install: " + path("plain") + " is not a directory.\n"}, {}, {}},
        {"", {}, path("a/b/c/") + "\ny\n", 1, false, {createMessage(path("a/b/c/"), path("a/b"))}, {}, {"a"}},
        {"", {}, path("plain/sub") + "\ny\n", 1, false, {createMessage(path("plain/sub/"), path("plain"))}, {}, {}},
        {"", {}, "", 1, false, {kPrompt, "Corvane Install: Cannot query install directory.\n"}, {}, {}},
        {"", {}, path("inst3") + "\n", 1, true,
         {"does not exist. Create [Y]? ", "Corvane Install: Cannot query install directory.\n"}, {}, {"inst3"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answers.substr(0, 80));
        RunResult r = answer(row.answers, row.args, row.cwd);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.exitStatus, row.exitStatus) << r.out;
        EXPECT_TRUE(appearsInOrder(r.out, row.shown)) << r.out;
        EXPECT_EQ(r.out.find("does not exist. Create [Y]? ") != std::string::npos, row.asksToCreate);
        for (const std::string& dir : row.made) EXPECT_TRUE(isDirectory(dir)) << dir;
        for (const std::string& p : row.absent) EXPECT_FALSE(exists(p)) << p;
    }
    EXPECT_EQ(readFile("plain"), "x\n");
}

TEST_F(InstallDirTest, OverlongAnswersAndPresetsAreRefusedAndNothingIsCreated) {
    makeDirs("work");
    std::string longAnswer = path("") + "/";
    while (longAnswer.size() < 700) longAnswer += "0123456789";
    const std::string fillsTheBuffer = path("") + "/" + std::string(511 - sandbox.size() - 1, 'f');
    const std::string relative(505, 'r');
    const struct {
        std::string cwd, answers, ini;
        std::vector<std::string> args;
        std::string shown;
    } rows[] = {
        {"", longAnswer + "\ny\ny\n", "", {}, " is too long.\n"},
        {"work", relative + "\ny\n", "", {},
         "Corvane Install: Install directory " + path("work") + "/" + relative + "/ is too long.\n"},
        {"", "", "", {"-destination-dir", longAnswer}, " is too long.\n"},
        {"", "", "", {"-destination-dir", fillsTheBuffer}, " is too long.\n"},
        {"work", "", "[unattended]\nDestinationDir=" + path(std::string(3000, 'd')) + "\n", {}, " is too long.\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.cwd + " " + row.answers.substr(0, 40) + " " + (row.args.empty() ? "" : "option"));
        writeFile("work/setup.ini", row.ini);
        std::vector<std::string> before = listDir(""), work = listDir("work");
        RunResult r = answer(row.answers, row.args, row.cwd);
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.signal, 0);
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_NE(r.out.find(row.shown), std::string::npos) << r.out;
        EXPECT_EQ(listDir(""), before);
        EXPECT_EQ(listDir("work"), work);
    }
}

TEST_F(InstallDirTest, PluginModeAsksForThePluginRootAndMakesTheVersionedCorePlugin) {
    std::string plugin = distributionWith("cvpackep", "plugin");
    makeDirs("first");
    writeFile("blocked/eclipse", "a file where a directory has to go\n");
    writeFile("ide/.eclipseproduct", "id=org.eclipse.platform\n");
    const std::string opening = kOpening + path("ide") + "\n";
    // No, then a root whose layout cannot be made, then a new root.
    RunResult r = runQuick(opening + path("first") + "\nn\n" + path("blocked") + "\ny\n" + path("good") + "\n\n",
                           {}, plugin);
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {path("first") + " already exists. Continue [Y]? ", kDirQuestion,
                                       path("blocked") + " already exists. Continue [Y]? ",
                                       "Corvane Install: Cannot create directory " + path("blocked") +
                                           "/eclipse/plugins.\n",
                                       kDirQuestion, "\nDirectory " + path("good") + " does not exist. Create [Y]? "}))
        << r.out;
    EXPECT_EQ(countOf(r.out, kDirQuestion), 3);
    EXPECT_FALSE(exists("first/eclipse"));
    EXPECT_TRUE(isDirectory("good/eclipse/plugins/com.corvane.core_10.0.0"));

    // A preset root still asks before creating it; end of input there stops the run.
    r = runQuick(opening, {"-destination-dir", path("corvplugin")}, plugin);
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"\nDirectory " + path("corvplugin") + " does not exist. Create [Y]? ",
                                       "Corvane Install: Cannot query install directory.\n"}))
        << r.out;
    EXPECT_FALSE(exists("corvplugin"));
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

// As uid 65534 against directories that belong to root, and in one of its own.
TEST_F(InstallDirTest, UnprivilegedUserGetsEveryAccessMessage) {
    makeDirs("locked", 0755);
    makeDirs("mine");
    giveToNobody("mine");
    const struct {
        std::string answer, message;
    } rows[] = {
        {path("locked"), accessMessage(path("locked") + "/")},
        {path("locked/new") + "\ny", createMessage(path("locked/new") + "/", path("locked"))},
        {path("inst-bin"), accessMessage(path("inst-bin") + "/bin/")},
        {path("inst-macros"), accessMessage(path("inst-macros") + "/macros/")},
        {path("inst-bitmaps"), accessMessage(path("inst-bitmaps") + "/bitmaps/")},
        {path("mine/inst") + "\ny", ""},
    };
    for (const char* sub : {"bin", "macros", "bitmaps"}) {
        std::string inst = std::string("inst-") + sub;
        makeDirs(inst);
        giveToNobody(inst);
        makeDirs(inst + "/" + sub, 0755);   // root's, not writable by 65534
    }
    for (const auto& row : rows) {
        SCOPED_TRACE(row.answer);
        RunResult r = answer(row.answer + "\n", {}, "", true);
        EXPECT_EQ(r.exitStatus, row.message.empty() ? 0 : 1) << r.out << r.err;
        if (row.message.empty()) EXPECT_EQ(r.out.find("Insufficient access"), std::string::npos) << r.out;
        else EXPECT_NE(r.out.find(row.message), std::string::npos) << r.out;
    }
    EXPECT_FALSE(exists("locked/new"));
    EXPECT_TRUE(isDirectory("mine/inst"));
}

}  // namespace

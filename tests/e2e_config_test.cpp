// End-to-end: what a run leaves behind after unpacking. The backup of old configuration files,
// the generated files, macro compilation with the demo translator, and the completion notes.
#include "tests/harness.h"

namespace {

const std::string kStars(61, '*');
const std::string kBackupQuestion =
    "Some old global configuration files have been found.\nDo you want a backup of these files [Y]? ";
const std::string kReplaceQuestion = "Backup directory already exists.\nReplace files [Y]?";

class ConfigTest : public InstallerTest {
protected:
    // An unattended-style run: the directory preset, Enter and "yes" for the opening screens.
    RunResult install(const std::string& inst, const std::string& answers = "", std::vector<std::string> extra = {},
                      const std::string& dir = "") {
        extra.insert(extra.begin(), {"-destination-dir", inst});
        return runQuick(kOpening + answers, extra, dir);
    }
    static std::string notes(const std::string& inst) {
        return "\n" + kStars + "\n*           INSTALLATION SUCCESSFULLY COMPLETED              \n" + kStars +
               "\n\nNOTES:\n1. Type \"" + inst + "/bin/cv\" to run Corvane.\n2. You may want to add \"" + inst +
               "/bin/\" to your users' PATH.\n";
    }
};

TEST_F(ConfigTest, UnattendedInstallWritesTheGeneratedFilesAndEndsWithTheNotes) {
    const std::string inst = path("inst");
    writeFile(dist + "/setup.ini", "[unattended]\nDestinationDir=" + inst + "\nPostInstall=no\n");
    RunOptions options;
    options.args = {"-d", "-v"};
    options.input = kOpening;
    RunResult r = run(options);
    ASSERT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_TRUE(endsWith(r.out, notes(inst))) << r.out;
    EXPECT_EQ(r.out.find(kBackupQuestion), std::string::npos);
    EXPECT_EQ(r.out.find("Starting Corvane"), std::string::npos);
    EXPECT_TRUE(appearsInOrder(r.out, {">>> Looking for files to be backed up:\n", "\ndone\n",
                                       "Updating misc files. Please wait...\n", ">>> Updating alias.crv:\n",
                                       ">>> Creating uproject.crv: file=" + inst + "/uproject.crv\n",
                                       ">>> Creating corv.ini: file=" + inst + "/bin/corv.ini\n",
                                       ">>> Copying " + inst + "/corv.stu to " + inst + "/rescue.stu\n",
                                       "   Timestamping ", ">>> Checking macro list: macroListFile=" + inst + "/cmacros.lst\n",
                                       "Compiling macros. Please wait...\n"})) << r.out;
    EXPECT_EQ(readFile("inst/bin/corv.ini"),
              "; This INI file is intended to contain Corvane environment\n; variables.\n;\n[Environment]\n"
              "CORVPATH=%CVROOT%bin/:%CVROOT%:%CVROOT%macros/:%CVROOT%bitmaps/\nCORVMACROS=%CVROOT%macros/\n"
              "CORVINCLUDE=%CVROOT%macros/\nCORVMISC=%CVROOT%\nCORVBIN=%CVROOT%bin/\nCORVBITMAPS=%CVROOT%bitmaps/\n"
              "; Set CORVXNOBLINK to 1 to stop blinking cursor and reduce network traffic.\n;CORVXNOBLINK=1\n");
    EXPECT_EQ(modeOf("inst/bin/corv.ini"), 0644u);
    EXPECT_EQ(readFile("inst/uproject.crv"), "");
    EXPECT_EQ(modeOf("inst/uproject.crv"), 0666u);
    EXPECT_EQ(readFile("inst/rescue.stu"), readFile(demoPayload() + "/corv.stu"));
    EXPECT_EQ(readFile("inst/alias.crv"), readFile(demoPayload() + "/$alias.crv"));
    EXPECT_FALSE(exists("inst/$alias.crv"));
    EXPECT_FALSE(exists("inst/old"));
    EXPECT_FALSE(exists("inst/tagfiles"));
}

TEST_F(ConfigTest, AnEarlierInstallationIsBackedUpAndMerged) {
    const std::string shipped = readFile(demoPayload() + "/$alias.crv");
    const struct {
        std::string answers;       // to the backup questions
        std::vector<std::string> extra;
        std::string backupDir;     // empty: "old" in the installation directory
        std::string userAlias;
        bool appended;
    } rows[] = {
        {"\n\n", {}, "", "bind C-S save\n", true},
        {"", {"-backup-dir", path("preset")}, path("preset"), "x\nfunction foo\n", false},
        {"y\n" + path("bk2") + "\n", {}, path("bk2"), "functioncomment /* */\n", false},
        {"y\n" + path("bk3") + "/\n", {}, path("bk3"), "see functioncomment here\n", true},
        {"\nEXISTING\nn\n\n", {}, "", "", true},   // an existing directory: No, then the default
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(n));
        const std::string inst = path("inst" + std::to_string(n++));
        writeFile(inst + "/bin/corv.ini", "old settings\n");
        writeFile(inst + "/unixc.api", "old api\n");
        writeFile(inst + "/uproject.crv", "the user's project\n");
        writeFile(inst + "/alias.crv", row.userAlias);
        makeDirs(inst + "/existing");
        std::string answers = row.answers;
        if (answers.find("EXISTING") != std::string::npos) answers.replace(answers.find("EXISTING"), 8, inst + "/existing");
        const std::string backup = row.backupDir.empty() ? inst + "/old" : row.backupDir;
        RunResult r = install(inst, answers, row.extra);
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        // Asked unless preset.
        EXPECT_EQ(appearsInOrder(r.out, {kBackupQuestion, "Directory for old configuration files [" + inst + "/old]: "}),
                  row.extra.empty()) << r.out;
        EXPECT_EQ(readFile(backup + "/corv.ini"), "old settings\n");
        EXPECT_EQ(readFile(backup + "/unixc.api"), "old api\n");
        EXPECT_EQ(listDir(backup).size(), 2u);
        EXPECT_EQ(readFile(inst + "/uproject.crv"), "the user's project\n");
        EXPECT_NE(readFile(inst + "/bin/corv.ini"), "old settings\n");
        EXPECT_EQ(readFile(inst + "/alias.crv"), row.userAlias + (row.appended ? shipped : ""));
        EXPECT_FALSE(exists(inst + "/$alias.crv"));
        // The question starts over from the default, not from the refused answer.
        EXPECT_EQ(r.out.find(kReplaceQuestion + "Directory for old configuration files [" + inst + "/old]: ") !=
                      std::string::npos, answers != row.answers) << r.out;
    }
}

TEST_F(ConfigTest, MacrosAreCompiledInOneBatchOrOneByOne) {
    const struct {
        std::string list;          // cmacros.lst; "-" for none
        std::vector<std::string> extraMacros;   // further sources; "bad.e" does not parse
        std::string inst;
        std::vector<std::string> translatorRuns;   // what cvtw.log records
        std::vector<std::string> compiled, notCompiled;
    } rows[] = {
        {"main.e\nkeys.e\n", {}, "batch", {"[{bin}/cvtw][{macros}/main.e][-L][keys.e]"}, {"main.e", "keys.e"},
         {"tags.e", "search.e"}},
        {"main.e\nkeys.e", {}, "nofinal", {"[{bin}/cvtw][{macros}/main.e][-L][keys.e]"}, {"main.e", "keys.e"}, {}},
        {"main.e\nbad.e\n", {"bad.e"}, "failing", {"[{bin}/cvtw][{macros}/main.e][-L][bad.e]", "[{bin}/cvtw][{macros}/"},
         {"main.e", "keys.e", "tags.e", "search.e"}, {"bad.e"}},
        {"-", {"x.E", "x.e.bak"}, "nolist", {"[{bin}/cvtw][{macros}/"}, {"main.e", "keys.e", "tags.e", "search.e"},
         {"x.E", "x.e.bak"}},
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.inst);
        std::string tree = copyPayload("payload" + std::to_string(n++));
        if (row.list == "-") shell("rm " + shellQuoted(tree + "/cmacros.lst"));
        else writeFile(tree + "/cmacros.lst", row.list);
        for (const std::string& name : row.extraMacros)
            writeFile(tree + "/macros/" + name, name == "bad.e" ? "broken(\n" : "fine()\n");
        std::string dir = makeDistribution({"cvpack", true, true, tree}, "dist" + std::to_string(n));
        const std::string inst = path(row.inst), macros = inst + "/macros";
        RunResult r = install(inst, "", {"-v"}, dir);
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_EQ(r.out.find("Compiling macros. Please wait...\n") != std::string::npos, row.list != "-");
        const bool oneByOne = row.translatorRuns.size() > 1 || row.list == "-";
        EXPECT_EQ(r.out.find("Compiling all macros. Please wait...\n") != std::string::npos, oneByOne);
        std::string log = readFile(inst + "/bin/cvtw.log");
        std::vector<std::string> runs;
        for (std::string line : row.translatorRuns) {
            line.replace(line.find("{bin}"), 5, inst + "/bin");
            line.replace(line.find("{macros}"), 8, macros);
            runs.push_back(line);
        }
        EXPECT_TRUE(appearsInOrder(log, runs)) << log;
        for (const std::string& name : row.compiled) {
            EXPECT_GE(mtimeOf(macros + "/" + name + "x"), mtimeOf(macros + "/" + name)) << name;
            const bool single = log.find("[" + inst + "/bin/cvtw][" + macros + "/" + name + "]\n") != std::string::npos;
            EXPECT_EQ(single, oneByOne) << name;
        }
        for (const std::string& name : row.notCompiled) EXPECT_FALSE(exists(macros + "/" + name + "x")) << name;
        const bool batchTraced = r.out.find(">>> Compiling macros: command=" + inst + "/bin/cvtw " + macros +
                                            "/main.e -L keys.e\n") != std::string::npos;
        EXPECT_EQ(batchTraced, row.list == "main.e\nkeys.e\n" || row.list == "main.e\nkeys.e") << r.out;
    }
}

TEST_F(ConfigTest, OneByOneCommandsQuoteTheirPathsAndAnUnreadableMacrosDirectoryFails) {
    std::string tree = copyPayload("payload");
    shell("rm " + shellQuoted(tree + "/cmacros.lst"));
    std::string dir = makeDistribution({"cvpack", true, true, tree}, "nolist");
    const std::string inst = path("my inst");
    RunResult r = install(inst, "", {"-v"}, dir);
    EXPECT_EQ(r.exitStatus, 0);
    EXPECT_NE(r.out.find(">>> Compiling one macro: command=\"" + inst + "/bin/cvtw\" \"" + inst +
                         "/macros/main.e\" >/dev/null 2>/dev/null\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(">>> Touching compiled macro: dir=" + inst + "/macros/, file=main.ex\n"), std::string::npos);

    // Searchable but not readable for uid 65534: the sources can be compiled by name, the
    // directory cannot be listed.
    shell("chmod 0311 " + shellQuoted(tree + "/macros"));
    dir = makeDistribution({"cvpack", true, true, tree}, "unreadable");
    makeDirs("mine");
    giveToNobody("mine");
    RunOptions options;
    options.argv0 = dir + "/cvinst";
    options.args = {"-d", "-post-install", "-destination-dir", path("mine/inst")};
    options.input = kOpening;
    options.unprivileged = true;
    r = run(options);
    EXPECT_EQ(r.exitStatus, 1) << r.out;
    EXPECT_TRUE(appearsInOrder(r.out, {"Corvane Install: Cannot open convert files in directory " + path("mine/inst") +
                                           "/macros/.\n",
                                       "Compiling all macros. Please wait...\n",
                                       "Corvane Install: Cannot open macros directory " + path("mine/inst") + "/macros/.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("INSTALLATION SUCCESSFULLY COMPLETED"), std::string::npos);
}

}  // namespace

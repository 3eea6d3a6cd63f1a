// End-to-end: presets from the answers file "setup.ini" in the directory the installer is
// started from.
#include "tests/harness.h"

#include <cstring>

namespace {

const char kDirQuestion[] = "Install directory [";

class AnswersFileTest : public InstallerTest {
protected:
    // Runs ./cvinst in the distribution directory, with setup.ini there holding content.
    RunResult runWithIni(const std::string& content, const std::string& input,
                         std::vector<std::string> args = {"-d", "-post-install"}) {
        writeFile(dist + "/setup.ini", content);
        RunOptions options;
        options.argv0 = "./cvinst";
        options.args = args;
        options.input = input;
        return run(options);
    }
    // With the install directory preset only the pause and the agreement are answered.
    static std::string presetAnswers() { return "\nyes\n"; }
    // Asked for the install directory, the run gets "asked" (and creates it).
    std::string askedAnswers() { return interactiveAnswers(path("asked")); }

    void expectPreset(const RunResult& r, const std::string& dir) {
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_EQ(r.out.find(kDirQuestion), std::string::npos) << r.out;
        EXPECT_TRUE(isDirectory(dir)) << dir << "\n" << r.out;
    }
    void expectAsked(const RunResult& r) {
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_NE(r.out.find(kDirQuestion), std::string::npos) << r.out;
        EXPECT_TRUE(isDirectory("asked"));
    }
};

TEST_F(AnswersFileTest, DestinationDirPresetsTheInstallDirectory) {
    RunResult r = runWithIni("[unattended]\n; answers for the console installer\n"
                             "DestinationDir=" + path("preset") + "\n",
                             presetAnswers());
    expectPreset(r, path("preset"));
    // A preset directory that did not exist is created without the creation question.
    EXPECT_EQ(r.out.find("Create [Y]?"), std::string::npos);
}

TEST_F(AnswersFileTest, SectionAndKeyIgnoreCase) {
    RunResult r = runWithIni("[UNATTENDED]\ndestinationDIR=" + path("preset") + "\n", presetAnswers());
    expectPreset(r, path("preset"));
}

TEST_F(AnswersFileTest, LeadingBlanksBeforeKeyAndSectionAreSkipped) {
    RunResult r = runWithIni("  \t[unattended]\n \t DestinationDir=" + path("preset") + "\n",
                             presetAnswers());
    expectPreset(r, path("preset"));
}

TEST_F(AnswersFileTest, BlanksAroundTheEqualsSignSpoilTheKey) {
    RunResult r = runWithIni("[unattended]\nDestinationDir = " + path("preset") + "\n", askedAnswers());
    expectAsked(r);
    EXPECT_FALSE(exists("preset"));
}

TEST_F(AnswersFileTest, TrailingBlankStaysInTheValue) {
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path("preset") + " \n", presetAnswers());
    expectPreset(r, path("preset "));
    EXPECT_FALSE(exists("preset"));
}

TEST_F(AnswersFileTest, EntriesOutsideTheSectionAreIgnored) {
    const std::string preset = "DestinationDir=" + path("preset") + "\n";
    const std::string files[] = {
        preset + "[unattended]\nPostInstall=no\n",             // in front of the section
        "[other]\n" + preset,                                  // in another section
        "[unattended]\nPostInstall=no\n[other]\n" + preset,    // behind the section's end
        "[unattended]\n; " + preset,                           // a comment
        "[unattendedx]\n" + preset,                            // a different name
    };
    for (const std::string& content : files) {
        RunResult r = runWithIni(content, askedAnswers());
        expectAsked(r);
        EXPECT_FALSE(exists("preset")) << content;
    }
}

TEST_F(AnswersFileTest, OnlyTheFirstUnattendedSectionIsRead) {
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path("first") +
                             "\n[unattended]\nDestinationDir=" + path("second") + "\n",
                             presetAnswers());
    expectPreset(r, path("first"));
    EXPECT_FALSE(exists("second"));
}

TEST_F(AnswersFileTest, KeyGivenTwiceTakesTheLastValue) {
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path("first") +
                             "\nDestinationDir=" + path("second") + "\n",
                             presetAnswers());
    expectPreset(r, path("second"));
    EXPECT_FALSE(exists("first"));
}

TEST_F(AnswersFileTest, CarriageReturnLineEndsAreLineEnds) {
    for (const char* end : {"\r", "\r\n", "\r\r\n\n"}) {
        std::string dir = path(std::string("preset") + (end[1] ? "crlf" : "cr") +
                               std::to_string(strlen(end)));
        RunResult r = runWithIni(std::string("[unattended]") + end + "DestinationDir=" + dir + end,
                                 presetAnswers());
        expectPreset(r, dir);
    }
}

TEST_F(AnswersFileTest, FinalCtrlZIsDropped) {
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path("preset") + "\x1a", presetAnswers());
    expectPreset(r, path("preset"));
    EXPECT_FALSE(exists(path("preset\x1a")));
}

TEST_F(AnswersFileTest, CommandLineOverridesTheAnswersFile) {
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path("fromini") + "\n", presetAnswers(),
                             {"-d", "-post-install", "-destination-dir", path("fromargs")});
    expectPreset(r, path("fromargs"));
    EXPECT_FALSE(exists("fromini"));
}

TEST_F(AnswersFileTest, PostInstallNoSkipsTheXServerCheck) {
    RunResult r = runWithIni("[unattended]\nPostInstall=disabled\n", askedAnswers(), {"-d"});
    expectAsked(r);
    EXPECT_EQ(r.out.find("X server is not accessible"), std::string::npos) << r.out;
}

TEST_F(AnswersFileTest, UnrecognisedPostInstallValueStillChecksTheXServer) {
    RunResult r = runWithIni("[unattended]\nPostInstall=maybe\n", "\nn\n", {"-d"});
    EXPECT_NE(r.out.find("Corvane Install: X server is not accessible."), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("Continue installation (Y/N)? [N]: "), std::string::npos);
    EXPECT_EQ(r.exitStatus, 1);
}

TEST_F(AnswersFileTest, ReadFromTheStartingDirectoryOnly) {
    // Started by absolute path from elsewhere: the file beside the installer is not read.
    writeFile(dist + "/setup.ini", "[unattended]\nDestinationDir=" + path("fromdist") + "\n");
    makeDirs("work");
    RunOptions options;
    options.cwd = "work";
    options.args = {"-d", "-post-install"};
    options.input = askedAnswers();
    RunResult r = run(options);
    expectAsked(r);
    EXPECT_FALSE(exists("fromdist"));
}

TEST_F(AnswersFileTest, ReadBeforeChangingToTheDistribution) {
    // "dist/cvinst" started from the sandbox changes into dist, but the answers come from
    // the directory it was started in.
    writeFile(dist + "/setup.ini", "[unattended]\nDestinationDir=" + path("fromdist") + "\n");
    writeFile("setup.ini", "[unattended]\nDestinationDir=" + path("fromstart") + "\n");
    RunOptions options;
    options.argv0 = "dist/cvinst";
    options.cwd = sandbox;
    options.args = {"-d", "-post-install"};
    options.input = presetAnswers();
    RunResult r = run(options);
    expectPreset(r, path("fromstart"));
    EXPECT_FALSE(exists("fromdist"));
}

TEST_F(AnswersFileTest, MissingOrEmptyFileChangesNothing) {
    RunOptions options;
    options.argv0 = "./cvinst";
    options.args = {"-d", "-post-install"};
    options.input = askedAnswers();
    expectAsked(run(options));

    RunResult r = runWithIni("", interactiveAnswers(path("asked2")));
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find(kDirQuestion), std::string::npos);
}

// Arbitrary bytes: the reader must neither crash nor find presets that are not there.
std::string noise(size_t size, unsigned seed, const std::string& banned) {
    std::string text;
    text.reserve(size);
    while (text.size() < size) {
        seed = seed * 1103515245u + 12345u;
        char c = (char)(seed >> 16);
        if (banned.find(c) == std::string::npos) text += c;
    }
    return text;
}

TEST_F(AnswersFileTest, ArbitraryBytesDoNotCrash) {
    const std::string contents[] = {
        std::string("\0\0\0", 3),
        noise(3 * 1024 * 1024, 1, "["),                               // no section, NULs, megabytes
        "[unattended]\n" + noise(2 * 1024 * 1024, 2, "=["),           // entries without values
        "[unattended]" + std::string(2 * 1024 * 1024, 'k'),           // one huge line, no newline
        "[" + std::string(1024 * 1024, 'u') + "]\nDestinationDir=" + path("no") + "\n",
        "[unattended]\n" + std::string(100000, 'K') + "=" + std::string(100000, 'v'),
        "[unattended]\nPostInstall=no\nBackupDir=" + std::string(5000, 'b') + "\n" +
            std::string("\0[unattended\0\n=\r\x1a", 17),
        "[unattended",
        "[",
        "=",
        "\x1a",
    };
    for (const std::string& content : contents) {
        RunResult r = runWithIni(content, askedAnswers());
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.signal, 0) << r.err;
        expectAsked(r);
        EXPECT_FALSE(exists("no"));
    }
}

TEST_F(AnswersFileTest, OverlongDestinationIsCutNotOverrun) {
    // A value far beyond a path buffer: cut, and the run goes on without a crash.
    RunResult r = runWithIni("[unattended]\nDestinationDir=" + path(std::string(3000, 'd')) + "\n",
                             presetAnswers());
    EXPECT_FALSE(r.timedOut);
    EXPECT_EQ(r.signal, 0) << r.err;
    EXPECT_TRUE(r.exitStatus == 0 || r.exitStatus == 1);
    EXPECT_EQ(r.out.find(kDirQuestion), std::string::npos);
}

}  // namespace

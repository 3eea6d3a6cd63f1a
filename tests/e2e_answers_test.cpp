// End-to-end: presets from the answers file "setup.ini" in the directory the installer is
// started from.
#include "tests/harness.h"

namespace {

class AnswersFileTest : public InstallerTest {
protected:
    // Runs ./cvinst in the distribution directory, with setup.ini there holding content.
    RunResult runWithIni(const std::string& content, const std::string& input,
                         const std::vector<std::string>& args = {"-d", "-post-install"}) {
        writeFile(dist + "/setup.ini", content);
        RunOptions options;
        options.argv0 = "./cvinst";
        options.args = args;
        options.input = input;
        return run(options);
    }
    // The run was asked for the install directory and made asked, or took dir unasked.
    void expectDirectory(const RunResult& r, const std::string& dir, const std::string& asked) {
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.signal, 0) << r.err;
        EXPECT_EQ(r.exitStatus, 0) << r.out;
        EXPECT_EQ(r.out.find(kDirQuestion) == std::string::npos, !dir.empty()) << r.out;
        EXPECT_EQ(r.out.find("Create [Y]?") == std::string::npos, !dir.empty());
        EXPECT_TRUE(isDirectory(dir.empty() ? asked : dir)) << r.out;
    }
};

TEST_F(AnswersFileTest, DestinationDirFollowsTheSectionAndKeyRules) {
    auto entry = [this](const std::string& name) { return "DestinationDir=" + path(name); };
    const struct {
        std::string content;
        std::string preset;   // empty: the question is asked
        std::vector<std::string> args;
    } rows[] = {
        {"[unattended]\n; answers for the console installer\n" + entry("p1") + "\n", "p1", {}},
        {"[UNATTENDED]\ndestinationDIR=" + path("p2") + "\n", "p2", {}},
        {"  \t[unattended]\n \t " + entry("p3") + "\n", "p3", {}},
        {"[unattended]\n" + entry("p4") + " \n", "p4 ", {}},                // trailing blank kept
        {"[unattended]\r" + entry("p5") + "\r", "p5", {}},                  // CR-only line ends
        {"[unattended]\r\n" + entry("p6") + "\r\n", "p6", {}},
        {"[unattended]\r\r\n\n" + entry("p7") + "\r\r\n\n", "p7", {}},
        {"[unattended]\n" + entry("p8") + "\x1a", "p8", {}},                // final Ctrl-Z dropped
        {"[unattended]\n" + entry("p9") + "\n[unattended]\n" + entry("x") + "\n", "p9", {}},
        {"[unattended]\n" + entry("x") + "\n" + entry("p10") + "\n", "p10", {}},
        {"[unattended]\n" + entry("x") + "\n", dist + "/fromargs", {"-destination-dir", "fromargs"}},
        {"[unattended]\nDestinationDir = " + path("x") + "\n", "", {}},     // blanks spoil the key
        {entry("x") + "\n[unattended]\nPostInstall=no\n", "", {}},
        {"[other]\n" + entry("x") + "\n", "", {}},
        {"[unattended]\nPostInstall=no\n[other]\n" + entry("x") + "\n", "", {}},
        {"[unattended]\n; " + entry("x") + "\n", "", {}},
        {"[unattendedx]\n" + entry("x") + "\n", "", {}},
        {"", "", {}},
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(n));
        std::string asked = path("asked" + std::to_string(n++));
        std::vector<std::string> args = {"-d", "-post-install"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        RunResult r = runWithIni(row.content, row.preset.empty() ? interactiveAnswers(asked) : kOpening, args);
        expectDirectory(r, row.preset.empty() ? "" : path(row.preset), asked);
        EXPECT_FALSE(exists("x"));
    }
    EXPECT_FALSE(exists("p4"));
}

TEST_F(AnswersFileTest, ReadFromTheStartingDirectoryOnly) {
    writeFile(dist + "/setup.ini", "[unattended]\nDestinationDir=" + path("fromdist") + "\n");
    writeFile("setup.ini", "[unattended]\nDestinationDir=" + path("fromstart") + "\n");
    makeDirs("work");
    // Started by absolute path from elsewhere: the file beside the installer is not read.
    RunOptions elsewhere;
    elsewhere.cwd = "work";
    elsewhere.args = {"-d", "-post-install"};
    elsewhere.input = interactiveAnswers(path("asked"));
    expectDirectory(run(elsewhere), "", path("asked"));
    // "dist/cvinst" changes into dist, but the answers come from where it was started.
    RunOptions relative = elsewhere;
    relative.argv0 = "dist/cvinst";
    relative.cwd = sandbox;
    relative.input = kOpening;
    expectDirectory(run(relative), path("fromstart"), "");
    EXPECT_FALSE(exists("fromdist"));
}

TEST_F(AnswersFileTest, PostInstallValueDecidesOnTheXServerCheck) {
    const struct {
        const char* line;
        bool checked;
    } rows[] = {
        {"PostInstall=no", false},   {"postinstall=OFF", false}, {"PostInstall=Disabled", false},
        {"PostInstall=0", false},    {"PostInstall=yes", true},  {"PostInstall=maybe", true},
        {"PostInstall= no", true},   {"PostInstall=no ", true},  {"PostInstall = no", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.line);
        RunResult r = runWithIni(std::string("[unattended]\n") + row.line + "\n", "\nn\n", {"-d"});
        EXPECT_EQ(r.exitStatus, 1);
        EXPECT_EQ(r.out.find("Corvane Install: X server is not accessible.") != std::string::npos, row.checked)
            << r.out;
    }
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
        "[" + std::string(1024 * 1024, 'u') + "]\nDestinationDir=" + path("x") + "\n",
        "[unattended]\n" + std::string(100000, 'K') + "=" + std::string(100000, 'v'),
        "[unattended]\nPostInstall=no\nBackupDir=" + std::string(5000, 'b') + "\n" +
            std::string("\0[unattended\0\n=\r\x1a", 17),
        "[unattended", "[", "=", "\x1a",
    };
    int n = 0;
    for (const std::string& content : contents) {
        SCOPED_TRACE("content " + std::to_string(n));
        std::string asked = path("asked" + std::to_string(n++));
        expectDirectory(runWithIni(content, interactiveAnswers(asked)), "", asked);
        EXPECT_FALSE(exists("x"));
    }
}

}  // namespace

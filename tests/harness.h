// End-to-end harness: builds a distribution in a fresh sandbox and runs the real cvinst.
#pragma once
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <sys/types.h>
#include <string>
#include <vector>

struct RunOptions {
    std::vector<std::string> args;   // arguments behind argv[0]
    std::string argv0;               // as given to the program; empty: absolute path of dist/cvinst
    std::string program;             // file to execute; empty: resolved from argv0 / cwd / PATH,
                                     // and <dist>/cvinst when argv0 cannot be found that way
    std::string cwd;                 // empty: the distribution directory; relative: in the sandbox
    // Environment changes on top of the harness default (PATH=/usr/local/bin:/usr/bin:/bin,
    // HOME=sandbox, DISPLAY unset, LANG=C); nullopt unsets the variable.
    std::map<std::string, std::optional<std::string>> env;
    std::string input;               // written to standard input
    bool closeInput = true;          // close standard input after the input (end of input)
    bool unprivileged = false;       // run as uid/gid 65534
    int timeoutSeconds = 30;         // the child is killed and the run marked timedOut after this
};

struct RunResult {
    int exitStatus = -1;     // exit code, or -1 when killed by a signal
    int signal = 0;          // terminating signal, 0 if none
    bool timedOut = false;
    std::string out;         // standard output
    std::string err;         // standard error
};

struct DistOptions {
    std::string package = "cvpack";   // "cvpack", "cvpacku", "cvpackd", "cvpackep", "cvpackepd" or "" for none
    bool withLicense = true;
    bool withMessageFile = true;
    std::string payload;              // payload tree; empty: the demo payload of the repository
};

class InstallerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Builds a distribution directory <sandbox>/<name> with cvmkdist; returns its path (no "/").
    std::string makeDistribution(const DistOptions& options = DistOptions(), const std::string& name = "dist");
    RunResult run(const RunOptions& options);
    // A distribution <sandbox>/<name> holding the given package.
    std::string distributionWith(const std::string& package, const std::string& name);
    // Runs <dir>/cvinst from dir (default: the distribution of SetUp) with "-d -post-install"
    // (no disk-space check, no X question) and the given arguments behind them.
    RunResult runQuick(const std::string& input, const std::vector<std::string>& args = {},
                       const std::string& dir = "");

    // File helpers (paths absolute or relative to the sandbox).
    std::string path(const std::string& relative) const;
    bool exists(const std::string& p) const;
    bool isDirectory(const std::string& p) const;
    bool isRegularFile(const std::string& p) const;
    std::string readFile(const std::string& p) const;
    void writeFile(const std::string& p, const std::string& content, unsigned mode = 0644) const;
    void makeDirs(const std::string& p, unsigned mode = 0755) const;
    unsigned modeOf(const std::string& p) const;
    // Hands a tree to uid/gid 65534 (for runs with unprivileged = true).
    void giveToNobody(const std::string& p) const;
    bool isSymlink(const std::string& p) const;
    // Target text of a symbolic link; empty when p is none.
    std::string linkTarget(const std::string& p) const;
    // Names in a directory, sorted, without "." and "..".
    std::vector<std::string> listDir(const std::string& p) const;

    // A copy of a payload tree (default: the demo payload) at <sandbox>/<name>, every entry
    // dated 2020-01-01 so that whatever a run touches stands out.
    std::string copyPayload(const std::string& name, const std::string& from = "");
    // A distribution <sandbox>/<name> whose package is the tree packed as it stands by the
    // system's tar and gzip: its own "distribfilelist" goes in, none is made.
    std::string distributionFromTree(const std::string& tree, const std::string& name,
                                     const std::string& package = "cvpack");
    // Runs a shell command line and expects it to succeed.
    void shell(const std::string& command) const;
    long mtimeOf(const std::string& p) const;
    uid_t ownerOf(const std::string& p) const;

    std::string sandbox;   // fresh directory, world-searchable, removed after the test
    std::string dist;      // the default distribution made in SetUp (<sandbox>/dist)
};

// Counts the non-overlapping occurrences of needle in haystack.
int countOf(const std::string& haystack, const std::string& needle);

bool endsWith(const std::string& text, const std::string& tail);

// True when every part occurs in text, each one behind the end of the one before.
bool appearsInOrder(const std::string& text, const std::vector<std::string>& parts);

// Texts of the questions most runs pass through.
inline const std::string kPause = "<ENTER> to continue...";
inline const std::string kAgreeQuestion = "Do you agree to the above license terms? [yes or no]\n";
inline const std::string kDirQuestion = "Install directory [";
// Enter at the pause and "yes" to the agreement.
inline const std::string kOpening = "\nyes\n";

// Input for a whole interactive run: Enter at the pause, "yes" to the agreement, the given
// install directory, and Y to its creation.
std::string interactiveAnswers(const std::string& installDir);

// Turns the build-time switch that honours an agreement accepted in advance on in a copy of
// the installer: patches the marker "EnableBypasEula#0" to "EnableBypasEula#1" in the file.
// Returns the number of markers patched (1 for a proper build).
int enableEulaBypass(const std::string& program);

// Absolute paths from the build: the built cvinst, cvmkdist, cdinst.cvb, the demo payload.
std::string builtInstaller();
std::string builtMkdist();
std::string builtMessageFile();
std::string demoPayload();
std::string demoPluginPayload();
// The text as one single-quoted shell word.
std::string shellQuoted(const std::string& text);

// End-to-end: unpacking, verification against the file list, the bin/cvt link, timestamps,
// ownership and clean-up, on packages made by cvmkdist or by the system's tar and gzip.
#include <regex>

#include <time.h>

#include "tests/harness.h"

namespace {

class UnpackTest : public InstallerTest {
protected:
    // The file list that cvmkdist writes for a tree.
    std::string listOf(const std::string& tree) {
        RunOptions mk;
        mk.program = mk.argv0 = builtMkdist();
        mk.args = {"--payload", tree, "--list-only"};
        RunResult r = run(mk);
        EXPECT_EQ(r.exitStatus, 0) << r.err;
        return r.out;
    }
    RunResult install(const std::string& dir, const std::string& inst, std::vector<std::string> extra = {}) {
        extra.insert(extra.begin(), {"-destination-dir", inst});
        return runQuick(kOpening, extra, dir);
    }
    // The names in inst that start with "distribfilelist".
    std::vector<std::string> lists(const std::string& inst) {
        std::vector<std::string> found;
        for (const std::string& name : listDir(inst))
            if (name.rfind("distribfilelist", 0) == 0) found.push_back(name);
        return found;
    }
};

std::string localStamp(time_t t) {
    char text[32];
    struct tm local;
    localtime_r(&t, &local);
    strftime(text, sizeof(text), "%Y%m%d%H%M%S", &local);
    return text;
}

TEST_F(UnpackTest, CleanInstallIsVerifiedLinkedTouchedAndOwnedByRoot) {
    std::string dir = makeDistribution({"cvpack", true, true, copyPayload("payload")}, "dist1");
    const std::string inst = path("inst");
    writeFile("inst/bin/cvt", "an old file in the link's place\n");
    writeFile("inst/notes.txt", "the user's own file\n");
    giveToNobody("inst/notes.txt");
    const time_t before = time(nullptr);
    RunResult r = install(dir, inst, {"-v"});
    const time_t after = time(nullptr);
    ASSERT_EQ(r.exitStatus, 0) << r.out << r.err;

    EXPECT_TRUE(appearsInOrder(r.out, {
        ">>> Unpacking: gDistribDir=" + dir + "/ distribName=" + dir + "/cvpack\n",
        ">>> Unpack command: tar xf -  >/dev/null 2>/dev/null\n", "\nUnpacking files: \ndone\n",
        "Checking distribution files. Please wait...\n", "   100%", std::string(72, ' ') + "\r",
        "Updating user and group file ownership. Please wait...\n",
        ">>> Updating macros user ownership: command=chown -R 0 \"" + inst + "/\"\n",
        ">>> Updating macros group ownership: command=chgrp -R 0 \"" + inst + "/\"\n",
        ">>> Linking bin/cvt to cvtw\n"})) << r.out;
    EXPECT_EQ(r.out.find("Cleaning up"), std::string::npos);

    // Every listed file arrived whole, and the list went to a name holding the time of the check.
    std::vector<std::string> kept = lists(inst);
    ASSERT_EQ(kept.size(), 1u);
    std::string stamp = kept[0].substr(kept[0].find('.') + 1);
    EXPECT_TRUE(std::regex_match(stamp, std::regex("[0-9]{14}"))) << kept[0];
    EXPECT_TRUE(localStamp(before) <= stamp && stamp <= localStamp(after)) << stamp;
    EXPECT_EQ(readFile(inst + "/" + kept[0]), listOf(demoPayload()));
    EXPECT_EQ(readFile(inst + "/docs/release notes.txt"), readFile(demoPayload() + "/docs/release notes.txt"));
    EXPECT_EQ(modeOf(inst + "/bin/cvtw"), 0755u);

    EXPECT_TRUE(isSymlink("inst/bin/cvt"));
    EXPECT_EQ(linkTarget("inst/bin/cvt"), "cvtw");
    EXPECT_EQ(ownerOf("inst/notes.txt"), 0u);

    // Macro sources, the state file and compiled resources are touched; the rest keeps its date.
    for (const char* file : {"macros/main.e", "macros/tags.e", "corv.stu", "corvdefs.cvb", "bin/corvkeys.cvb"})
        EXPECT_GE(mtimeOf("inst/" + std::string(file)), before) << file;
    for (const char* file : {"license.txt", "bitmaps/open.bmp", "docs/release notes.txt", "bin/cv", "cmacros.lst"})
        EXPECT_LT(mtimeOf("inst/" + std::string(file)), before) << file;
}

TEST_F(UnpackTest, EveryListProblemStopsTheInstallationWithItsMessage) {
    const std::string longName = std::string(600, 'n');
    const struct {
        std::string listLine;   // added to a correct list
        std::string message;    // empty: the installation succeeds
    } rows[] = {
        {"docs/release notes.txt 5 0\n", "Error detected in INST/docs/release notes.txt. Mismatched size: expected=5 actual=170"},
        {"license.txt 862 1\n", "Error detected in INST/license.txt. Mismatched checksum: expected=1 actual="},
        {"license.txt 862 4294967295\n", "Mismatched checksum: expected=2147483647 actual="},
        {"missing.txt 10 0\n", "Insufficient access to INST/missing.txt. Read/Write access is required."},
        {"missing.txt 0 0\n", ""},
        {"noblanks\n", ""},
        {"license.txt\n", ""},
        {"license.txt 5\n", "Mismatched size: expected=0 actual=862"},
        {"license.txt -862 0\n", "Mismatched size: expected=-862 actual=862"},
        {"license.txt many lots\n", ""},
        {"license.txt 862x 0\n", ""},
        {"../dist/cvinst 10 0\n", "Error detected in INST/../dist/cvinst. The name leaves the installation directory."},
        {"/etc/passwd 10 0\n", "Insufficient access to INST//etc/passwd. Read/Write access is required."},
        // Read in pieces of 511 characters: the last piece is taken as a record of its own.
        {longName + " 1 1\n", "Insufficient access to INST/" + longName.substr(0, 89) + ". Read/Write"},
    };
    int n = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.listLine.substr(0, 60));
        std::string tree = copyPayload("tree" + std::to_string(n));
        writeFile(tree + "/distribfilelist", listOf(tree) + row.listLine);
        std::string dir = distributionFromTree(tree, "dist" + std::to_string(n));
        std::string inst = path("inst" + std::to_string(n++));
        RunResult r = install(dir, inst);
        EXPECT_EQ(r.signal, 0);
        EXPECT_EQ(r.exitStatus, row.message.empty() ? 0 : 1) << r.out;
        std::string message = row.message;
        if (message.find("INST") != std::string::npos) message.replace(message.find("INST"), 4, inst);
        EXPECT_EQ(r.out.find("Cannot get stat information"), std::string::npos);
        if (!row.message.empty()) {
            EXPECT_TRUE(appearsInOrder(r.out, {message, "\nCorvane Install: Error detected in distribution.\n"}))
                << r.out;
            EXPECT_EQ(r.out.find("INSTALLATION SUCCESSFULLY COMPLETED"), std::string::npos);
        }
        // Checked or not, the list is kept under its dated name.
        EXPECT_EQ(lists(inst).size(), 1u);
        EXPECT_FALSE(exists(inst + "/distribfilelist"));
    }
}

TEST_F(UnpackTest, BrokenPackagesAreCaughtByVerification) {
    std::string good = makeDistribution(DistOptions(), "good");
    long size = (long)readFile(good + "/cvpack").size();
    const struct {
        std::string name;
        std::string command;   // makes the bad package $P from the good one
        std::string message;
    } rows[] = {
        {"truncated", "head -c " + std::to_string(size / 2) + " good/cvpack >\"$P\"", ". Mismatched size: expected="},
        {"corrupt", "cp good/cvpack \"$P\" && printf 'garbage!' | dd of=\"$P\" bs=1 seek=" + std::to_string(size / 3) +
                        " conv=notrunc 2>/dev/null", "Unable to open distribution file"},
        {"not-gzip", "printf 'this is no package at all\\n' >\"$P\"", "Unable to open distribution file"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        DistOptions options;
        options.package = "";
        std::string dir = makeDistribution(options, row.name);
        shell("cd " + shellQuoted(sandbox) + " && P=" + shellQuoted(dir + "/cvpack") + " && " + row.command);
        RunResult r = install(dir, path("inst-" + row.name));
        EXPECT_EQ(r.exitStatus, 1) << r.out;
        EXPECT_TRUE(appearsInOrder(r.out, {"Unpacking files: ", "\ndone\n", row.message,
                                           "Corvane Install: Error detected in distribution.\n"}))
            << r.out;
    }
    // Without verification the broken package is noticed only when its files are missing.
    RunResult r = install(path("not-gzip"), path("inst-skip"), {"-s"});
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {"\ndone\n", "Skipping distribution check.\n",
                                       "Corvane Install: Cannot create symbolic link bin/cvt to cvtw.\n"}))
        << r.out;
    EXPECT_EQ(r.out.find("Checking distribution files"), std::string::npos);
}

TEST_F(UnpackTest, WithoutVerificationADotPerMegabyteAndTarKeepsMembersInside) {
    // A package of more than 5 MB, with members "../escaped.txt" and "<sandbox>/abs/abs.txt", a
    // link to a directory outside and a member "link/x" behind it appended.
    std::string tree = copyPayload("big");
    shell("head -c 5242880 /dev/urandom >" + shellQuoted(tree + "/docs/big.bin"));
    std::string dir = makeDistribution({"cvpack", true, true, tree}, "bigdist");
    makeDirs("outside");
    for (const char* file : {"escaped.txt", "abs/abs.txt", "extra/x"}) writeFile(file, "packed\n");
    shell("cd " + shellQuoted(sandbox) + " && gzip -dc bigdist/cvpack >evil.tar && (cd abs && tar -rPf ../evil.tar " +
          "../escaped.txt " + shellQuoted(path("abs/abs.txt")) + ") && ln -s " + shellQuoted(path("outside")) +
          " link && tar -rf evil.tar link && tar -rf evil.tar --transform 's,^extra,link,' extra/x && " +
          "gzip -c evil.tar >bigdist/cvpack && rm escaped.txt && echo original >abs/abs.txt");
    // The installer reads 10240-byte blocks and prints a dot once more than 1000000 bytes went by.
    long since = 0;
    int dots = 0;
    for (long left = (long)readFile("evil.tar").size(); left > 0; left -= 10240) {
        since += std::min(left, 10240L);
        if (since > 1000000) dots++, since = 0;
    }
    EXPECT_EQ(dots, 5);
    RunResult r = install(dir, path("inst"), {"-s"});
    EXPECT_EQ(r.exitStatus, 0) << r.out;
    EXPECT_NE(r.out.find("\nUnpacking files: " + std::string(dots, '.') + "\ndone\nSkipping distribution check.\n"),
              std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Checking distribution files"), std::string::npos);
    EXPECT_TRUE(isRegularFile("inst/distribfilelist"));
    EXPECT_EQ(readFile("inst/docs/big.bin"), readFile(tree + "/docs/big.bin"));
    EXPECT_FALSE(exists("escaped.txt"));
    EXPECT_EQ(listDir("outside"), std::vector<std::string>{});
    EXPECT_EQ(readFile("abs/abs.txt"), "original\n");
    EXPECT_EQ(readFile("inst" + path("abs/abs.txt")), "packed\n");   // the leading "/" is dropped
    EXPECT_FALSE(exists("inst/link/x"));
}

TEST_F(UnpackTest, UnprivilegedUserKeepsOwnershipAndCleanupRemovesAnyDistribution) {
    // Awkward names for both directories: the shell commands must see them as they are.
    const std::string odd = "d $HOME 'q' \"x\" `id`; touch pwned";
    makeDirs("mine");
    std::string dir = makeDistribution(DistOptions(), "mine/" + odd);
    giveToNobody("mine");
    const std::string inst = "mine/inst " + odd;
    RunOptions options;
    options.argv0 = dir + "/cvinst";
    options.cwd = dir;
    options.args = {"-d", "-post-install", "-cleanup", "-destination-dir", path(inst)};
    options.input = kOpening;
    options.unprivileged = true;
    RunResult r = run(options);
    EXPECT_EQ(r.exitStatus, 0) << r.out << r.err;
    EXPECT_EQ(r.out.find("Updating user and group file ownership"), std::string::npos);
    EXPECT_TRUE(appearsInOrder(r.out, {"\ndone\n", "Cleaning up distribution files...\n",
                                       "INSTALLATION SUCCESSFULLY COMPLETED"})) << r.out;
    EXPECT_EQ(ownerOf(inst + "/bin/cv"), 65534u);
    EXPECT_TRUE(isSymlink(inst + "/bin/cvt"));
    EXPECT_FALSE(exists(dir));
    for (const std::string& where : {sandbox, path("mine"), path(inst), std::string("/tmp")})
        EXPECT_FALSE(exists(where + "/pwned")) << where;

    // A failing run started inside the distribution still removes it, from outside.
    std::string second = makeDistribution(DistOptions(), "second");
    options = RunOptions();
    options.argv0 = "./cvinst";
    options.cwd = second;
    options.args = {"-cleanup", "-post-install"};
    options.input = "\n";
    r = run(options);
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_TRUE(appearsInOrder(r.out, {kAgreeQuestion, "Cleaning up distribution files...\n"})) << r.out;
    EXPECT_EQ(r.out.find("INSTALLATION SUCCESSFULLY COMPLETED"), std::string::npos);
    EXPECT_FALSE(exists(second));
}

}  // namespace

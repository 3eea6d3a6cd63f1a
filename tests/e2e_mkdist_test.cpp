// End-to-end: the distribution builder cvmkdist, run as the release build runs it.
#include "tests/harness.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace {

class MkdistTest : public InstallerTest {
protected:
    RunResult mkdist(const std::vector<std::string>& args) {
        RunOptions options;
        options.program = builtMkdist();
        options.argv0 = "cvmkdist";
        options.cwd = sandbox;
        options.args = args;
        return run(options);
    }
    RunResult tar(const std::vector<std::string>& args) {
        RunOptions options;
        options.argv0 = "tar";
        options.cwd = sandbox;
        options.args = args;
        return run(options);
    }
    // A payload with known sums: "abc" is 97 + 98 + 99, the bytes 0..255 sum to 32640.
    std::string makeSmallPayload(const std::string& where) {
        writeFile(where + "/abc.txt", "abc");
        std::string all;
        for (int i = 0; i < 256; i++) all += (char)i;
        writeFile(where + "/bin/all bytes", all, 0755);
        writeFile(where + "/empty", "");
        writeFile(where + "/deep/er/z", "z");
        makeDirs(where + "/emptydir");
        EXPECT_EQ(symlink("abc.txt", path(where + "/link").c_str()), 0);
        return path(where);
    }
};

const char kSmallList[] =
    "abc.txt 3 294\n"
    "bin/all bytes 256 32640\n"
    "deep/er/z 1 122\n"
    "empty 0 0\n";

TEST_F(MkdistTest, ListsEveryRegularFileSortedWithSizeAndByteSum) {
    std::string payload = makeSmallPayload("payload");
    RunResult r = mkdist({"--payload", payload, "--list-only"});
    EXPECT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(r.out, kSmallList);
}

TEST_F(MkdistTest, PackageHoldsTheTreeAndTheList) {
    std::string payload = makeSmallPayload("pay load");
    RunResult r = mkdist({"--payload", payload, "--package", "cvpacku", "--out", path("out dir")});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(listDir("out dir"), std::vector<std::string>{"cvpacku"});

    makeDirs("x");
    ASSERT_EQ(tar({"-xzf", path("out dir/cvpacku"), "-C", path("x")}).exitStatus, 0);
    EXPECT_EQ(readFile("x/distribfilelist"), kSmallList);
    EXPECT_EQ(readFile("x/abc.txt"), "abc");
    EXPECT_EQ(readFile("x/bin/all bytes"), readFile(payload + "/bin/all bytes"));
    EXPECT_EQ(modeOf("x/bin/all bytes"), 0755u);
    EXPECT_TRUE(isDirectory("x/emptydir"));
    EXPECT_TRUE(isSymlink("x/link"));
    EXPECT_EQ(linkTarget("x/link"), "abc.txt");

    // Members are relative names; the top directory itself is not a member, so unpacking
    // does not touch the mode of the directory unpacked into.
    RunResult listing = tar({"-tzf", path("out dir/cvpacku")});
    ASSERT_EQ(listing.exitStatus, 0);
    std::istringstream lines(listing.out);
    std::string member;
    int count = 0;
    while (std::getline(lines, member)) {
        count++;
        EXPECT_FALSE(member.empty());
        EXPECT_NE(member[0], '/') << member;
        EXPECT_NE(member.substr(0, 2), "./") << member;
        EXPECT_NE(member, ".");
    }
    EXPECT_EQ(count, 10);   // 4 files and the list, 1 link, 4 directories
}

TEST_F(MkdistTest, PayloadIsLeftUntouched) {
    std::string payload = makeSmallPayload("payload");
    writeFile("payload/distribfilelist", "stale 1 1\n");
    std::vector<std::string> before = listDir("payload");
    RunResult r = mkdist({"--payload", payload, "--package", "cvpack", "--out", path("out")});
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    EXPECT_EQ(listDir("payload"), before);
    EXPECT_EQ(readFile("payload/distribfilelist"), "stale 1 1\n");
    // The stale list in the payload is replaced by the new one, which does not list itself.
    makeDirs("x");
    ASSERT_EQ(tar({"-xzf", path("out/cvpack"), "-C", path("x")}).exitStatus, 0);
    EXPECT_EQ(readFile("x/distribfilelist"), kSmallList);
}

TEST_F(MkdistTest, SamePayloadGivesTheSamePackage) {
    std::string payload = makeSmallPayload("payload");
    ASSERT_EQ(mkdist({"--payload", payload, "--package", "cvpack", "--out", path("one")}).exitStatus, 0);
    sleep(1);
    ASSERT_EQ(mkdist({"--payload", payload + "/", "--package", "cvpack", "--out", path("two")}).exitStatus,
              0);
    std::string first = readFile("one/cvpack");
    EXPECT_FALSE(first.empty());
    EXPECT_TRUE(first == readFile("two/cvpack"));
}

TEST_F(MkdistTest, CopiesInstallerMessagesAndLicence) {
    EXPECT_EQ(listDir(dist),
              (std::vector<std::string>{"cdinst.cvb", "cvinst", "cvpack", "license.txt"}));
    EXPECT_EQ(modeOf(dist + "/cvinst"), 0755u);
    EXPECT_EQ(readFile(dist + "/cvinst"), readFile(builtInstaller()));
    EXPECT_EQ(readFile(dist + "/cdinst.cvb"), readFile(builtMessageFile()));
    EXPECT_EQ(readFile(dist + "/license.txt"), readFile(demoPayload() + "/license.txt"));
}

TEST_F(MkdistTest, RefusesAFileWhoseByteSumCannotBeVerified) {
    // 8421504 bytes of 0xff sum to 2147483520, the largest multiple of 255 that still fits;
    // one byte more goes past 2147483647.
    writeFile("ok/big", std::string(8421504, '\xff'));
    RunResult fits = mkdist({"--payload", path("ok"), "--list-only"});
    EXPECT_EQ(fits.exitStatus, 0) << fits.err;
    EXPECT_EQ(fits.out, "big 8421504 2147483520\n");

    writeFile("bad/sub/too big", std::string(8421505, '\xff'));
    RunResult r = mkdist({"--payload", path("bad"), "--package", "cvpack", "--out", path("out")});
    EXPECT_NE(r.exitStatus, 0);
    EXPECT_NE(r.err.find("sub/too big"), std::string::npos) << r.err;
    EXPECT_FALSE(exists("out/cvpack"));
}

TEST_F(MkdistTest, RefusesUnknownPackageNames) {
    for (const char* name : {"CVPACK", "cvpackx", "pack", "cvpack/../x"}) {
        RunResult r = mkdist({"--payload", demoPayload(), "--package", name, "--out", path("out")});
        EXPECT_NE(r.exitStatus, 0) << name;
        EXPECT_NE(r.err.find(name), std::string::npos) << r.err;
        EXPECT_FALSE(exists("out")) << name;
    }
}

TEST_F(MkdistTest, MissingInputsFailWithTheirName) {
    const std::vector<std::vector<std::string>> cases = {
        {"--payload", path("nothere"), "--package", "cvpack", "--out", path("out")},
        {"--payload", demoPayload(), "--package", "cvpack", "--out", path("out"), "--installer",
         path("noinstaller")},
        {"--payload", demoPayload(), "--package", "cvpack", "--out", path("out"), "--messages",
         path("nomessages")},
        {"--payload", demoPayload(), "--package", "cvpack", "--out", path("out"), "--license",
         path("nolicense")},
    };
    for (const auto& args : cases) {
        RunResult r = mkdist(args);
        EXPECT_NE(r.exitStatus, 0);
        EXPECT_NE(r.err.find(path("no")), std::string::npos) << r.err;
        EXPECT_FALSE(exists("out/cvpack"));
    }
    RunResult incomplete = mkdist({"--payload", demoPayload(), "--package", "cvpack"});
    EXPECT_NE(incomplete.exitStatus, 0);
    EXPECT_NE(incomplete.err.find("--out"), std::string::npos);
}

}  // namespace

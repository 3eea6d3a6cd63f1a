// The SHA-256 list: sha256sum's line format both ways, and a list that sha256sum -c accepts.
#include "tools/common/sha256list.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

const std::string kAbc = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; pipe != nullptr && (c = fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    if (pipe != nullptr) pclose(pipe);
    return out;
}

}  // namespace

TEST(Sha256List, ParsesLinesBothModesAndEscapes) {
    Sha256Entry entry;
    ASSERT_EQ(parseSha256Line(kAbc + "  docs/release notes.txt", &entry), 0);
    EXPECT_EQ(entry.name, "docs/release notes.txt");
    EXPECT_STREQ(entry.hex, kAbc.c_str());
    std::string upper = kAbc;
    for (char& c : upper) c = static_cast<char>(toupper(c));
    ASSERT_EQ(parseSha256Line(upper + " *bin", &entry), 0);
    EXPECT_STREQ(entry.hex, kAbc.c_str());
    std::string line = sha256SumLine(kAbc.c_str(), "a\\b\nc");
    ASSERT_EQ(parseSha256Line(line.substr(0, line.size() - 1), &entry), 0);
    EXPECT_EQ(entry.name, "a\\b\nc");
}

TEST(Sha256List, RefusesOtherLines) {
    Sha256Entry entry;
    for (const std::string& bad : {kAbc.substr(1) + "  x", kAbc + " x", kAbc + "  ", kAbc + "-x",
                                   "g" + kAbc.substr(1) + "  x", "\\" + kAbc + "  x\\"})
        EXPECT_EQ(parseSha256Line(bad, &entry), 1) << bad;
    std::vector<Sha256Entry> entries;
    EXPECT_EQ(parseSha256List(kAbc + "  a\n" + kAbc + "  b\nnonsense\n", &entries), 3u);
    entries.clear();
    EXPECT_EQ(parseSha256List(kAbc + "  a\n" + kAbc + "  b", &entries), 0u);
    EXPECT_EQ(entries.size(), 2u);
}

// Names are sorted as the file list sorts them (bytes, unsigned) and checked by sha256sum.
TEST(Sha256List, WrittenListPassesSha256sum) {
    char dir[] = "/tmp/sha256list_test.XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string root = dir;
    for (const char* name : {"b", "a b", "\xc3\xa9", "new\nline"}) std::ofstream(root + "/" + name) << name;
    std::string list;
    ASSERT_EQ(buildSha256List("test", root, {"b", "\xc3\xa9", "new\nline", "a b"}, &list), 0);
    std::ofstream(root + "/list") << list;
    std::vector<Sha256Entry> entries;
    ASSERT_EQ(parseSha256List(list, &entries), 0u);
    ASSERT_EQ(entries.size(), 4u);
    EXPECT_EQ(entries[0].name, "a b");
    EXPECT_EQ(entries[1].name, "b");
    EXPECT_EQ(entries[2].name, "new\nline");
    EXPECT_EQ(entries[3].name, "\xc3\xa9");
    EXPECT_EQ(run("cd " + root + " && sha256sum -c --quiet list 2>&1; echo $?"), "0\n");
    EXPECT_EQ(buildSha256List("test", root, {"missing"}, &list), 1);
    EXPECT_EQ(system(("rm -rf " + root).c_str()), 0);
}

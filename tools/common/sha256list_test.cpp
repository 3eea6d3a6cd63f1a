// The SHA-256 list: written in the file list's order, read back, and accepted by sha256sum -c.
#include "tools/common/sha256list.h"
#include "tests/scratchdir.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>

namespace {

std::string run(const std::string& command) {
    std::string out;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; pipe != nullptr && (c = fgetc(pipe)) != EOF;) out += static_cast<char>(c);
    if (pipe != nullptr) pclose(pipe);
    return out;
}

}  // namespace

// Names are sorted as the file list sorts them (bytes, unsigned) and checked by sha256sum.
TEST(Sha256List, WrittenListPassesSha256sum) {
    ScratchDir scratch("sha256list_test");
    const std::string& root = scratch.path();
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
}

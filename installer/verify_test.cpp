// The file-list reader shared by the installer's verification and cvcheck.
#include "installer/verify.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

struct Read {
    int32_t length;
    std::string path;
    int32_t size, checksum;
};

// Every record of a list text, as readListRecord returns them.
std::vector<Read> readAll(const std::string& text) {
    FILE* list = fmemopen(const_cast<char*>(text.data()), text.size(), "r");
    std::vector<Read> records;
    char line[kListLineSize];
    ListRecord record;
    for (int32_t length; (length = readListRecord(list, line, &record)) > 0;)
        records.push_back({length, record.path, record.size, record.checksum});
    fclose(list);
    return records;
}

}  // namespace

TEST(FileList, FieldsFromTheRight) {
    std::vector<Read> records = readAll("docs/release notes.txt 42 1234\nbig 99999999999 -5\nnoblank\none 7");
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].length, 31);
    EXPECT_EQ(records[0].path, "docs/release notes.txt");
    EXPECT_EQ(records[0].size, 42);
    EXPECT_EQ(records[0].checksum, 1234);
    EXPECT_EQ(records[1].size, INT32_MAX);  // saturated
    EXPECT_EQ(records[1].checksum, -5);
    EXPECT_EQ(records[2].path, "noblank");
    EXPECT_EQ(records[2].checksum, 0);
    EXPECT_EQ(records[3].path, "one");
    EXPECT_EQ(records[3].size, 0);
    EXPECT_EQ(records[3].checksum, 7);
}

TEST(FileList, LongLinesComeInPieces) {
    std::vector<Read> records = readAll(std::string(600, 'a') + " 1 2\n");
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].length, 511);
    EXPECT_EQ(records[1].length, 94);
    EXPECT_EQ(records[1].size, 1);
}

TEST(FileList, DotDotComponents) {
    const struct {
        const char* name;
        bool leaves;
    } rows[] = {{"../x", true},    {"a/../b", true}, {"a/..", true}, {"..", true},
                {"a..b/c", false}, {"a/..b", false}, {"...", false}, {"a/b..", false}};
    for (const auto& row : rows) EXPECT_EQ(listNameLeavesDir(row.name), row.leaves) << row.name;
}

// The byte sum of a named file: the sum of its bytes when it has the listed size, all bits set
// when it is shorter or cannot be opened.
TEST(FileChecksum, SumOrAllBitsSet) {
    char path[] = "/tmp/cvinst-sum.XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "\x01\x02\xff", 3), 3);
    close(fd);
    EXPECT_EQ(fileChecksum(path, 3), 258u);
    EXPECT_EQ(fileChecksum(path, 4), 0xFFFFFFFFu);
    unlink(path);
    EXPECT_EQ(fileChecksum(path, 3), 0xFFFFFFFFu);
}

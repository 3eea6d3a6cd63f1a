// The mode list's lines and what counts as a changed mode.
#include "tools/common/modelist.h"

#include <gtest/gtest.h>

TEST(ModeList, LineRoundTrip) {
    ModeEntry written{"docs/release notes.txt", 0644, true};
    std::string line = modeLine(written);
    EXPECT_EQ(line, "0644 root docs/release notes.txt\n");
    ModeEntry read;
    ASSERT_EQ(parseModeLine(line.substr(0, line.size() - 1), &read), 0);
    EXPECT_EQ(read.name, "docs/release notes.txt");
    EXPECT_EQ(read.mode, 0644u);
    EXPECT_TRUE(read.rootOwned);
}

TEST(ModeList, BadLines) {
    ModeEntry entry;
    for (const char* line : {"", "0644 root", "0644 root ", "644 root bin/cv", "0648 root bin/cv",
                             "0644 alice bin/cv", "0644  bin/cv"})
        EXPECT_EQ(parseModeLine(line, &entry), 1) << line;
}

TEST(ModeList, ListNamesFirstBadLine) {
    std::vector<ModeEntry> entries;
    EXPECT_EQ(parseModeList("0755 root bin/\n0755 root bin/cvtw\n", &entries), 0u);
    EXPECT_EQ(entries.size(), 2u);
    std::vector<ModeEntry> more;
    EXPECT_EQ(parseModeList("0755 root bin/\nbin/cvtw 0755\n", &more), 2u);
}

TEST(ModeList, WhatCountsAsChanged) {
    const struct {
        mode_t listed, actual;
        bool differs;
    } rows[] = {
        {0755, 0755, false}, {0755, 0644, true},  // no longer executable
        {0755, 0700, false},                      // a umask of 077
        {0644, 0600, false}, {0644, 0666, true},  // others may write
        {0755, 04755, true},                      // set-user-id
        {0644, 0444, true},                       // the owner lost write
    };
    for (const auto& row : rows)
        EXPECT_EQ(modeDiffers(row.listed, row.actual), row.differs) << std::oct << row.actual;
}

// Which directories root refuses to install into. The refusals as printed, and the run that stops
// before tar, are checked end to end (tests/e2e_localuser_test.cpp).
#include "installer/dirtrust.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(DirTrust, SystemDirectories) {
    const struct {
        const char* path;
        bool system;
    } rows[] = {
        {"/", true},
        {"/usr", true},
        {"/usr/lib", true},
        {"/usr/lib64", true},
        {"/usr/libexec", true},
        {"/lib32", true},
        {"/var", true},
        {"/var/lib", true},
        {"/etc", true},
        {"/opt", true},
        {"/usr/local", true},
        {"/usr/local/lib", true},
        {"/opt/corvane", false},
        {"/usr/local/corvane", false},
        {"/usr/lib/corvane", false},
        {"/library", true},
        {"/srv/cv", false},
        {"/usrx", false},
        {"/home/alice/cv", false},
    };
    for (const auto& row : rows) EXPECT_EQ(isSystemDirectory(row.path), row.system) << row.path;
}

TEST(DirTrust, OwnerAndMode) {
    const struct {
        unsigned uid, mode;
        bool stickyCounts;
        int32_t reason;
    } rows[] = {
        {0, S_IFDIR | 0755, true, 0},
        {0, S_IFDIR | 0775, true, 0},  // the group is the administrator's to choose
        {65534, S_IFDIR | 0755, true, 1},
        {0, S_IFDIR | 0777, true, 2},
        {0, S_IFDIR | 01777, true, 0},   // /tmp on the way
        {0, S_IFDIR | 01777, false, 2},  // but not where the package goes
        {0, S_IFDIR | 0757, true, 2},
    };
    for (const auto& row : rows)
        EXPECT_EQ(untrustedReason(row.uid, row.mode, row.stickyCounts), row.reason) << std::oct << row.mode;
}

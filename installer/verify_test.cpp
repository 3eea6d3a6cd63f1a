// The byte sum of a named file, shared by the installer's verification and cvcheck.
#include "installer/verify.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

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

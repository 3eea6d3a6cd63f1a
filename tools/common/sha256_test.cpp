// The digest wrapper against published test vectors and against coreutils' sha256sum.
#include "tools/common/sha256.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

TEST(Sha256, KnownVectors) {
    char hex[kSha256HexSize];
    sha256Hex("", 0, hex);
    EXPECT_STREQ(hex, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    sha256Hex("abc", 3, hex);
    EXPECT_STREQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, FileAgreesWithSha256sumAcrossBlocks) {
    char path[] = "/tmp/sha256_test.XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    std::string data(300000, '\0');
    for (size_t i = 0; i < data.size(); i++) data[i] = (char)(i * 7 + i / 251);
    ASSERT_EQ(write(fd, data.data(), data.size()), (ssize_t)data.size());
    close(fd);
    char hex[kSha256HexSize];
    ASSERT_EQ(sha256File(path, hex), 0);
    std::string command = std::string("sha256sum ") + path;
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    char expected[kSha256HexSize] = {0};
    ASSERT_EQ(fread(expected, 1, 64, pipe), 64u);
    pclose(pipe);
    unlink(path);
    EXPECT_STREQ(hex, expected);
    EXPECT_EQ(sha256File(path, hex), -1);
}

TEST(Sha256, SumLinesEscapeAsSha256sumDoes) {
    std::string hex(64, 'a');
    EXPECT_EQ(sha256SumLine(hex.c_str(), "bin/cv"), hex + "  bin/cv\n");
    EXPECT_EQ(sha256SumLine(hex.c_str(), "a\nb"), "\\" + hex + "  a\\nb\n");
    EXPECT_EQ(sha256SumLine(hex.c_str(), "a\\b"), "\\" + hex + "  a\\\\b\n");
}

// The digest wrapper against published test vectors, and sha256sum's escaping of odd names.
#include "tools/common/sha256.h"

#include <gtest/gtest.h>

#include <string>

TEST(Sha256, KnownVectors) {
    char hex[kSha256HexSize];
    sha256Hex("", 0, hex);
    EXPECT_STREQ(hex, "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    sha256Hex("abc", 3, hex);
    EXPECT_STREQ(hex, "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(Sha256, SumLinesEscapeAsSha256sumDoes) {
    std::string hex(64, 'a');
    EXPECT_EQ(sha256SumLine(hex.c_str(), "bin/cv"), hex + "  bin/cv\n");
    EXPECT_EQ(sha256SumLine(hex.c_str(), "a\nb"), "\\" + hex + "  a\\nb\n");
    EXPECT_EQ(sha256SumLine(hex.c_str(), "a\\b"), "\\" + hex + "  a\\\\b\n");
}

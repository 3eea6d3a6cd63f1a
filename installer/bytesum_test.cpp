// Every byte-sum kernel the processor can run against a plain sum, over every length up to a
// few vector widths at every alignment, plus a buffer whose sum wraps past 32 bits.
#include "installer/bytesum.h"

#include <gtest/gtest.h>

#include <vector>

TEST(ByteSumTest, KernelsMatchAPlainSumAndWrap) {
    std::vector<unsigned char> data(600);
    for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<unsigned char>(i * 37 + 200);
    // 17000003 bytes of 255 sum to 4335000765, which wraps to 40033469.
    std::vector<unsigned char> full(17000003, 0xff);
    for (ByteSumKernel kernel : {kByteSumPlain, kByteSumSse2, kByteSumAvx2}) {
        if (!byteSumKernelAvailable(kernel)) continue;
        for (size_t offset = 0; offset < 5; offset++) {
            uint32_t expected = 0;
            for (size_t length = 0; length + offset <= data.size(); length++) {
                ASSERT_EQ(byteSumWith(kernel, data.data() + offset, length), expected)
                    << "kernel " << kernel << " offset " << offset << " length " << length;
                if (length + offset < data.size()) expected += data[offset + length];
            }
        }
        EXPECT_EQ(byteSumWith(kernel, full.data(), full.size()), 40033469u) << "kernel " << kernel;
    }
    EXPECT_EQ(byteSum(data.data() + 3, 501), byteSumWith(kByteSumPlain, data.data() + 3, 501));
}

// The checker added to a payload: in place of the payload's own, and from a private copy.
#include "tools/cvmkdist/modes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "tools/cvmkdist/util.h"

namespace {

class Modes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(makeWorkDirectory(&root_), 0);
        ASSERT_EQ(mkdir((root_ + "/bin").c_str(), 0750), 0);
        std::ofstream(root_ + "/bin/cvtw") << "translator";
        ASSERT_EQ(walkPayload(root_, {}, &payload_), 0);
    }
    void TearDown() override { removeTree(root_); }
    std::string root_;
    Payload payload_;
};

}  // namespace

TEST_F(Modes, CheckerReplacesThePayloadsOwn) {
    std::ofstream(root_ + "/bin/cvcheck") << "old";
    Payload payload;
    ASSERT_EQ(walkPayload(root_, {}, &payload), 0);
    size_t before = payload.entries.size();
    addChecker("/elsewhere/cvcheck", &payload);
    EXPECT_EQ(payload.entries.size(), before);
    size_t fromElsewhere = 0;
    for (const PayloadEntry& entry : payload.entries) fromElsewhere += entry.source.empty() ? 0 : 1;
    EXPECT_EQ(fromElsewhere, 1u);
}

TEST_F(Modes, CheckerCopyIsWhatIsListed) {
    std::ofstream(root_ + "/checker") << "checker";
    std::string work;
    ASSERT_EQ(addCheckerCopy(root_ + "/checker", &work, &payload_), 0);
    ASSERT_FALSE(work.empty());
    EXPECT_EQ(entrySource(payload_, payload_.entries.back()), work + "/cvcheck");
    std::string copied;
    EXPECT_EQ(readWholeFile(work + "/cvcheck", &copied), 0);
    EXPECT_EQ(copied, "checker");
    removeTree(work);
}

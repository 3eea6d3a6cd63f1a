// The mode list of a payload and the checker added to it.
#include "tools/cvmkdist/modes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>

#include "tools/cvmkdist/util.h"

namespace {

class Modes : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(makeWorkDirectory(&root_), 0);
        ASSERT_EQ(mkdir((root_ + "/bin").c_str(), 0750), 0);
        std::ofstream(root_ + "/bin/cvtw") << "translator";
        std::ofstream(root_ + "/notes") << "text";
        ASSERT_EQ(chmod((root_ + "/bin/cvtw").c_str(), 0755), 0);
        ASSERT_EQ(chmod((root_ + "/notes").c_str(), 0640), 0);
        ASSERT_EQ(walkPayload(root_, {}, &payload_), 0);
    }
    void TearDown() override { removeTree(root_); }
    std::string root_;
    Payload payload_;
};

}  // namespace

TEST_F(Modes, ListsFilesAndDirectoriesByName) {
    std::string list;
    ASSERT_EQ(buildModeList(payload_, &list), 0);
    EXPECT_EQ(list, "0750 root bin/\n0755 root bin/cvtw\n0640 root notes\n");
}

TEST_F(Modes, CheckerGoesIntoBin) {
    std::ofstream(root_ + "/checker") << "checker";
    ASSERT_EQ(chmod((root_ + "/checker").c_str(), 0700), 0);
    addChecker(root_ + "/checker", &payload_);
    std::string list;
    ASSERT_EQ(buildModeList(payload_, &list), 0);
    // Packed with the added file's mode, whatever the mode of the file it comes from.
    EXPECT_NE(list.find("0755 root bin/cvcheck\n"), std::string::npos) << list;
    EXPECT_EQ(entrySource(payload_, payload_.entries.back()), root_ + "/checker");
}

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

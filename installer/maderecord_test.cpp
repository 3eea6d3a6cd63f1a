// The record of what an installation made, over a real directory: birth times decide, the listed
// names and what was there before the mark stay out, an earlier record carries over.
#include "installer/maderecord.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "installer/state.h"
#include "runtime/path.h"

namespace {

class MadeRecord : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/maderecord.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = std::string(pattern) + "/";
        resetInstallState();
        strCopyBounded(gState.installDir, dir_.c_str(), kPathSize);
        ASSERT_EQ(mkdir((dir_ + "bin").c_str(), 0755), 0);
        write("srv-before", "there before");
        struct statx info;
        if (statx(AT_FDCWD, dir_.c_str(), 0, STATX_BTIME, &info) != 0 || (info.stx_mask & STATX_BTIME) == 0)
            GTEST_SKIP() << "no birth times on this file system";
    }
    void TearDown() override { system(("rm -rf '" + dir_ + "'").c_str()); }
    void write(const std::string& name, const std::string& text) { std::ofstream(dir_ + name) << text; }
    std::string record() {
        std::ifstream in(dir_ + kMadeRecordName);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    std::string dir_;
};

}  // namespace

TEST_F(MadeRecord, NamesWhatWasBornAfterTheMarkAndIsNotListed) {
    markInstallationStart();
    write("distribfilelist.20250101000000", "bin/cv 3 300\n");
    write("bin/cv", "abc");
    write("bin/cvtw.log", "compiled");
    ASSERT_EQ(mkdir((dir_ + "tagfiles").c_str(), 0755), 0);
    ASSERT_EQ(recordMadeFiles(), 0);
    // The dated list is new too, but cvcheck knows it by its name.
    EXPECT_EQ(record(), "bin/cvtw.log\ntagfiles/\n");
}

TEST_F(MadeRecord, EarlierRecordCarriesOverWhatIsStillThere) {
    write("old-made", "from the first installation");
    write(kMadeRecordName, "old-made\ngone\n");
    markInstallationStart();
    write("distribfilelist", "bin/cv 3 300\n");
    write("bin/cv", "abc");
    ASSERT_EQ(recordMadeFiles(), 0);
    EXPECT_EQ(record(), "old-made\n");
}

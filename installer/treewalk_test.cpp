// The walk over an unpacked tree: every entry once, links not entered, a directory it may not open
// named, a visitor that ends the walk early.
#include "installer/treewalk.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <string>

namespace {

// Collects the relative paths visited; stops with 7 at the entry named by context's stopAt.
struct Seen {
    std::string paths;
    std::string stopAt;
};
int32_t collect(int, const char*, const char* rel, const struct stat&, void* context) {
    Seen* seen = static_cast<Seen*>(context);
    seen->paths += std::string(rel) + " ";
    return seen->stopAt == rel ? 7 : 0;
}

class TreeWalk : public ::testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/cvinst-walk.XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        dir_ = name;
        ASSERT_EQ(system(("cd " + dir_ + " && mkdir -p a/b shut && touch a/b/f shut/g && ln -s /etc a/l" +
                          " && chmod 755 . && chmod 700 shut")
                             .c_str()),
                  0);
    }
    void TearDown() override { EXPECT_EQ(system(("rm -rf " + dir_).c_str()), 0); }
    std::string dir_;
};

TEST_F(TreeWalk, EveryEntryOnceAndNoLinkEntered) {
    Seen seen;
    char failed[PATH_MAX];
    EXPECT_EQ(walkTree((dir_ + "/a").c_str(), collect, &seen, failed), 0);
    EXPECT_EQ(seen.paths.size(), std::string("b b/f l ").size());
    EXPECT_NE(seen.paths.find("b/f "), std::string::npos);
    EXPECT_STREQ(failed, "");
    seen = {"", "b"};
    EXPECT_EQ(walkTree((dir_ + "/a").c_str(), collect, &seen, failed), 7);
    EXPECT_EQ(seen.paths.find("b/f"), std::string::npos);
    EXPECT_EQ(walkTree((dir_ + "/none").c_str(), collect, &seen, failed), -1);
}

// As another user the directory kept to root cannot be opened: the walk goes on and names it.
TEST_F(TreeWalk, DirectoryThatCannotBeOpened) {
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    pid_t pid = fork();
    if (pid == 0) {
        Seen seen;
        char failed[PATH_MAX] = "x";
        int32_t rc = setuid(65534) == 0 ? walkTree(dir_.c_str(), collect, &seen, failed) : 99;
        std::string report = std::to_string(rc) + " " + failed;
        _exit(write(pipeEnds[1], report.data(), report.size()) > 0 ? 0 : 1);
    }
    close(pipeEnds[1]);
    char buf[256] = {};
    EXPECT_GT(read(pipeEnds[0], buf, sizeof buf - 1), 0);
    close(pipeEnds[0]);
    waitpid(pid, nullptr, 0);
    EXPECT_STREQ(buf, "-1 shut");
}

}  // namespace

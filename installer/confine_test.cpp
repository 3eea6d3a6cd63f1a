// Confinement where no hostile package reaches it: links that stay inside the root are followed,
// also absolute and dangling ones, and the file is made where the link says; only links that
// lead out are refused. The refusals themselves are checked end to end (tests/e2e_hostile_test.cpp).
#include "installer/confine.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

TEST(Confine, LinksInsideAreFollowedLinksOutRefused) {
    const std::string top = fs::temp_directory_path() / ("cvconfine." + std::to_string(getpid()));
    const std::string root = top + "/inst/";
    fs::create_directories(root + "real");
    fs::create_directories(top + "/out");
    for (const auto& [target, name] : {std::pair<std::string, std::string>{"real", "in"},
                                       {root + "real", "abs"},
                                       {top + "/out", "away"},
                                       {"real/made", "dangling"},
                                       {top + "/out/made", "dangling_out"}})
        fs::create_symlink(target, root + name);
    // Name below the root, where the file is made (below top) or what the refusal says, and
    // whether the last name is followed.
    const struct {
        const char *name, *made, *refusal;
        bool follow;
    } rows[] = {{"in/a", "/inst/real/a", "", true},
                {"abs/b", "/inst/real/b", "", true},
                {"dangling", "/inst/real/made", "", true},
                {"dangling_out", "", "inst/dangling_out is a symbolic link that leads out of ", true},
                {"dangling_out", "/inst/dangling_out", "", false},
                {"away/c", "", "inst/away/c is reached through the symbolic link ", true}};
    for (const auto& row : rows) {
        testing::internal::CaptureStdout();
        ConfinedPath confined;
        ConfineResult result = confinePath(root.c_str(), (root + row.name).c_str(), row.follow, &confined);
        std::string printed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(result, row.made[0] != '\0' ? kConfineOk : kConfineRefused) << row.name;
        EXPECT_NE(printed.find(row.refusal), std::string::npos) << printed;
        if (result != kConfineOk) continue;
        EXPECT_EQ(printed, "") << row.name;
        if (!row.follow) unlinkat(confined.dirFd, confined.leaf, 0);  // a link not followed is replaced
        close(openat(confined.dirFd, confined.leaf, O_WRONLY | O_CREAT | O_NOFOLLOW, 0644));
        releaseConfined(&confined);
        EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(top + row.made))) << row.made;
    }
    EXPECT_TRUE(fs::is_empty(top + "/out"));
    EXPECT_EQ(checkConfined(root.c_str(), (root + "missing/d").c_str(), true), 0);  // left to the operation
    fs::remove_all(top);
}

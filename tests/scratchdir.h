// A fresh directory under /tmp for one unit test, by its physical path (no "/" at the end), removed
// with everything in it when the test ends.
#pragma once
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>

#include <filesystem>
#include <string>

class ScratchDir {
public:
    explicit ScratchDir(const std::string& tag) {
        std::string pattern = "/tmp/" + tag + ".XXXXXX";
        char real[PATH_MAX];
        if (mkdtemp(pattern.data()) != nullptr && realpath(pattern.c_str(), real) != nullptr) path_ = real;
        EXPECT_FALSE(path_.empty()) << pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& path() const { return path_; }
    std::string at(const std::string& rel) const { return path_ + "/" + rel; }

private:
    std::string path_;
};

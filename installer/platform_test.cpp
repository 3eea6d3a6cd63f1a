// Platform detection (not part of a run yet) against fake "uname" and "name" programs alone on
// PATH, and the "-o" override.
#include "installer/platform.h"
#include "tests/scratchdir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <utility>

#include "installer/state.h"

namespace {

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        savedPath = getenv("PATH");
        setenv("PATH", dir.c_str(), 1);  // only the fake programs; the shell itself is /bin/sh
    }
    void TearDown() override { setenv("PATH", savedPath.c_str(), 1); }
    // A fake program from "plain answer;arg=answer;...": the line it prints for no argument and
    // for each argument named; any other argument prints nothing, as a failing query does.
    // Null: no such program.
    void fake(const std::string& name, const char* answers) {
        unlink((dir + "/" + name).c_str());
        if (!answers) return;
        std::ofstream script(dir + "/" + name);
        std::istringstream in(answers);
        script << "#!/bin/sh\ncase \"$*\" in\n";
        for (std::string entry; std::getline(in, entry, ';');) {
            size_t eq = entry.find('=') + 1;  // 0 for the plain answer
            script << "\"" << entry.substr(0, eq ? eq - 1 : 0) << "\") echo '" << entry.substr(eq)
                   << "' ;;\n";
        }
        script << "esac\n";  // written out as the stream closes, before the program is run
        chmod((dir + "/" + name).c_str(), 0755);
    }
    ScratchDir scratch{"cvinst-platform"};
    const std::string dir = scratch.path();
    std::string savedPath;
};

TEST_F(PlatformTest, SystemTypeVersionAndReleaseFromUnameOrTheOverride) {
    const char* kSolarisX86 = "SunOS;-r=5.8;-a=SunOS box 5.8 Generic_108529 i86pc i386 i86pc";
    const std::string longOverride = "linux-" + std::string(100, '7') + "-" + std::string(100, '8');
    // Version and release start as "v" and "r", the type as 99, so that what is left alone shows.
    const struct {
        const char *override, *uname, *name;
        int32_t result, type;
        std::string version, release;
    } rows[] = {
        {"", "Linux;-r=6.1.0-13-amd64", "", 0, kOsLinux, "6", "1.0-13-amd64"},
        {"", "SunOS;-r=5.8;-a=SunOS box 5.8 Generic sun4u sparc", "", 0, kOsSolaris, "5", "8"},
        // Release 4 decides first.
        {"", "SunOS;-r=4.1.3;-a=SunOS box 4.1.3 i86", "", 0, kOsSunos, "4", "1.3"},
        {"", "AIX;-v=4;-r=3", "", 0, kOsAix, "4", "3"},
        {"", "OS/390;-v=03;-r=20.00", "", 0, kOsOs390, "03", "20.00"},
        {"", "SCO_SV;-r=3.2", "-r=5.0", 0, kOsSco, "5", "0"},  // the release comes from "name -r"
        // The override wins over uname; its type is found without regard to case.
        {"Linux-2-4", kSolarisX86, "", 0, kOsLinux, "2", "4"},
        {"BeOS-1-2", "Linux;-r=6.1", "", 20, 99, "v", "r"},
        {"", "HP-UX;-r=B.11.00", "", 0, kOsHpux, "11", "00"},
        {"", "OSF1;-r=V5.1", "", 0, kOsDigitalUnix, "5", "1"},
        {"", "IRIX;-r=6.5", "", 0, kOsIrix, "6", "5"},
        {"", "Plan9", "", 12, 99, "v", "r"},
        {"", nullptr, "", 1, 99, "v", "r"},
        // A release that cannot be queried is "0" for the systems that need one, an error for AIX.
        {"", "Linux", "", 9999, kOsLinux, "0", "0"},
        {"", "HP-UX", "", 9999, kOsHpux, "0", "0"},
        {"", "OSF1", "", 9999, kOsDigitalUnix, "0", "0"},
        {"", "IRIX", "", 9999, kOsIrix, "0", "0"},
        {"", "OS/390;-v=03", "", 9999, kOsOs390, "0", "0"},
        {"", "SCO_SV", "", 9999, kOsSco, "0", "0"},
        {"", "AIX", "", 5, kOsAix, "v", "r"},
        {"", "AIX;-v=4", "", 6, kOsAix, "4", "r"},
        {"", "SunOS", "", 8, 99, "v", "r"},
    };
    for (const auto& r : rows) {
        fake("uname", r.uname);
        fake("name", r.name);
        resetInstallState();
        gState.osType = 99;
        strcpy(gState.osVersion, "v");
        strcpy(gState.osRelease, "r");
        snprintf(gState.osTypeOverride, sizeof(gState.osTypeOverride), "%s", r.override);
        const std::string what = std::string(r.override) + " " + (r.uname ? r.uname : "no uname");
        EXPECT_EQ(detectPlatform(), r.result) << what;
        EXPECT_EQ(gState.osType, r.type) << what;
        EXPECT_EQ(gState.osVersion, r.version) << what;
        EXPECT_EQ(gState.osRelease, r.release) << what;
    }
}

TEST(PlatformNames, ByCode) {
    const std::pair<int32_t, const char*> rows[] = {
        {kOsUnknown, "unknown"},          {kOsLinux, "Linux"}, {kOsSco, "SCO OpenServer"},
        {kOsDigitalUnix, "Digital Unix"}, {11, "unknown"},     {-1, "unknown"},
    };
    for (const auto& r : rows) EXPECT_STREQ(osDisplayName(r.first), r.second) << r.first;
}

}  // namespace

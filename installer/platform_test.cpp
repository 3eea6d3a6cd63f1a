// Platform detection (not part of a run yet) against fake "uname" and "name" programs placed
// alone on PATH, and the corners of the package probe that a run cannot reach.
#include "installer/platform.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <optional>
#include <string>

#include "installer/state.h"

namespace {

// A fake program: for each argument ("" for none) the line it prints. An argument missing from
// the map prints nothing, which is how a failing query looks to the caller.
using Answers = std::map<std::string, std::string>;

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/cvinst-platform.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir = pattern;
        const char* old = getenv("PATH");
        savedPath = old ? old : "";
        // Only the fake programs can be found; the shell itself is /bin/sh.
        setenv("PATH", dir.c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", savedPath.c_str(), 1);
        EXPECT_EQ(system(("rm -rf '" + dir + "'").c_str()), 0);
    }
    void fakeProgram(const std::string& name, const std::optional<Answers>& answers) {
        std::string file = dir + "/" + name;
        unlink(file.c_str());
        if (!answers) return;
        std::string script = "#!/bin/sh\ncase \"$*\" in\n";
        for (const auto& entry : *answers) script += "\"" + entry.first + "\") echo '" + entry.second + "' ;;\n";
        script += "esac\nexit 0\n";
        FILE* out = fopen(file.c_str(), "w");
        ASSERT_NE(out, nullptr);
        fputs(script.c_str(), out);
        fclose(out);
        chmod(file.c_str(), 0755);
    }
    // Starts from values no detection produces, so that whatever is left alone shows.
    static void presetState(const std::string& override) {
        resetInstallState();
        gState.osType = 99;
        strcpy(gState.osVersion, "v");
        strcpy(gState.osRelease, "r");
        snprintf(gState.osTypeOverride, sizeof(gState.osTypeOverride), "%s", override.c_str());
    }
    static void expectState(int32_t type, const std::string& version, const std::string& release) {
        EXPECT_EQ(gState.osType, type);
        EXPECT_EQ(std::string(gState.osVersion), version);
        EXPECT_EQ(std::string(gState.osRelease), release);
    }

    std::string dir, savedPath;
};

TEST_F(PlatformTest, EveryKnownSystemFromUname) {
    const struct {
        std::optional<Answers> uname;
        Answers name;
        int32_t result, type;
        std::string version, release;
    } rows[] = {
        {std::nullopt, {}, 1, 99, "v", "r"},
        {Answers{}, {}, 1, 99, "v", "r"},
        {Answers{{"", "Linux"}, {"-r", "2.4.20"}}, {}, 0, kOsLinux, "2", "4.20"},
        {Answers{{"", "Linux"}, {"-r", "6.1.0-13-amd64"}}, {}, 0, kOsLinux, "6", "1.0-13-amd64"},
        {Answers{{"", "SunOS"}, {"-r", "5.8"}, {"-a", "SunOS box 5.8 Generic_108529 i86pc i386 i86pc"}}, {}, 0,
         kOsIntelSolaris, "5", "8"},
        {Answers{{"", "SunOS"}, {"-r", "5.8"}, {"-a", "SunOS box 5.8 Generic sun4u sparc SUNW,Ultra-5_10"}}, {}, 0,
         kOsSolaris, "5", "8"},
        // release 4 decides before "uname -a", which would claim Intel, is asked
        {Answers{{"", "SunOS"}, {"-r", "4.1.3"}, {"-a", "SunOS box 4.1.3 i86"}}, {}, 0, kOsSunos, "4", "1.3"},
        {Answers{{"", "SunOS"}}, {}, 8, 99, "v", "r"},
        {Answers{{"", "SunOS"}, {"-r", "5.8"}}, {}, 8, 99, "5", "r"},
        {Answers{{"", "AIX"}, {"-v", "4"}, {"-r", "3"}}, {}, 0, kOsAix, "4", "3"},
        {Answers{{"", "AIX"}, {"-r", "3"}}, {}, 5, kOsAix, "v", "r"},
        {Answers{{"", "AIX"}, {"-v", "4"}}, {}, 6, kOsAix, "4", "r"},
        {Answers{{"", "HP-UX"}, {"-r", "B.11.00"}}, {}, 0, kOsHpux, "11", "00"},
        {Answers{{"", "OSF1"}, {"-r", "V4.0"}}, {}, 0, kOsDigitalUnix, "4", "0"},
        {Answers{{"", "OSF1"}, {"-r", "5.1"}}, {}, 0, kOsDigitalUnix, "5", "1"},
        {Answers{{"", "IRIX"}, {"-r", "6.5"}}, {}, 0, kOsIrix, "6", "5"},
        {Answers{{"", "IRIX64"}, {"-r", "6.5"}}, {}, 12, 99, "v", "r"},
        {Answers{{"", "OS/390"}, {"-v", "03"}, {"-r", "20.00"}}, {}, 0, kOsOs390, "03", "20.00"},
        // the release comes from "name -r", not "uname -r"
        {Answers{{"", "SCO_SV"}, {"-r", "3.2"}}, {{"-r", "5.0"}}, 0, kOsSco, "5", "0"},
        {Answers{{"", "Plan9"}, {"-r", "4"}}, {}, 12, 99, "v", "r"},
        // a release query that fails keeps the type and zeroes version and release
        {Answers{{"", "Linux"}}, {}, 9999, kOsLinux, "0", "0"},
        {Answers{{"", "OS/390"}, {"-v", "03"}}, {}, 9999, kOsOs390, "0", "0"},
        {Answers{{"", "HP-UX"}}, {}, 9999, kOsHpux, "0", "0"},
        {Answers{{"", "SCO_SV"}, {"-r", "3.2"}}, {}, 9999, kOsSco, "0", "0"},
        {Answers{{"", "OSF1"}}, {}, 9999, kOsDigitalUnix, "0", "0"},
        {Answers{{"", "IRIX"}}, {}, 9999, kOsIrix, "0", "0"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.uname ? (row.uname->count("") ? row.uname->at("") : "silent") + " " +
                                     std::to_string(row.result)
                               : "no uname");
        fakeProgram("uname", row.uname);
        fakeProgram("name", row.name);
        presetState("");
        EXPECT_EQ(detectPlatform(), row.result);
        expectState(row.type, row.version, row.release);
    }
}

TEST_F(PlatformTest, OverrideWinsOverUname) {
    fakeProgram("uname", Answers{{"", "SunOS"}, {"-r", "5.8"}, {"-a", "sparc"}});
    const struct {
        std::string override;
        int32_t result, type;
        std::string version, release;
    } rows[] = {
        {"Linux-2-4", 0, kOsLinux, "2", "4"},     {"os390-1-2", 0, kOsOs390, "1", "2"},
        {"aix-4-3", 0, kOsAix, "4", "3"},         {"HPUX-11-0", 0, kOsHpux, "11", "0"},
        {"sunos-4-1", 0, kOsSunos, "4", "1"},     {"solaris-5-8", 0, kOsSolaris, "5", "8"},
        {"isolaris-5-8", 0, kOsIntelSolaris, "5", "8"}, {"sco-5-0", 0, kOsSco, "5", "0"},
        {"IRIX-6-5b", 0, kOsIrix, "6", "5b"},     {"osf1-4-0", 0, kOsDigitalUnix, "4", "0"},
        {"aix", 0, kOsAix, "", ""},               {"aix-4", 0, kOsAix, "4", ""},
        {"linux-" + std::string(100, '7') + "-" + std::string(100, '8'), 0, kOsLinux, std::string(31, '7'),
         std::string(31, '8')},
        {"hp-ux-11-0", 20, 99, "v", "r"},         {"irix64-6-5", 20, 99, "v", "r"},
        {"os/390-1-2", 20, 99, "v", "r"},         {"windows-5-1", 20, 99, "v", "r"},
        {"-2-4", 20, 99, "v", "r"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.override.substr(0, 20));
        presetState(row.override);
        EXPECT_EQ(detectPlatform(), row.result);
        expectState(row.type, row.version, row.release);
    }
}

TEST(OsDisplayName, CodesOutsideTheTableAreUnknown) {
    EXPECT_STREQ(osDisplayName(kOsLinux), "Linux");
    EXPECT_STREQ(osDisplayName(kOsDigitalUnix), "Digital Unix");
    EXPECT_STREQ(osDisplayName(11), "unknown");
    EXPECT_STREQ(osDisplayName(-1), "unknown");
}

TEST_F(PlatformTest, PackageProbeCorners) {
    resetInstallState();
    FILE* f = fopen((dir + "/cvpacku").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    // A directory without "/", and plug-in mode left over from before.
    snprintf(gDistribDir, sizeof(gDistribDir), "%s", dir.c_str());
    gState.pluginMode = 1;
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpacku");
    EXPECT_EQ(gState.pluginMode, 0);

    // A directory whose "cvpack" path is exactly 511 characters: "cvpackd" there would be cut
    // to the name of the existing "cvpack" if the length were not checked.
    std::string deep = dir;
    while (deep.size() < 511 - 7) {
        deep += "/" + std::string(std::min<size_t>(200, 511 - 7 - deep.size() - 1), 'd');
        ASSERT_EQ(mkdir(deep.c_str(), 0755), 0) << deep;
    }
    f = fopen((deep + "/cvpack").c_str(), "w");
    ASSERT_NE(f, nullptr);
    fclose(f);
    snprintf(gDistribDir, sizeof(gDistribDir), "%s/", deep.c_str());
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpack");
}

}  // namespace

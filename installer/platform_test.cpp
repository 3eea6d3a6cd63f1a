// Platform detection against fake "uname" (and "name") programs placed alone on PATH, and the
// package probe against real files.
#include "installer/platform.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

#include "installer/state.h"

namespace {

std::string makeTempDir() {
    char pattern[] = "/tmp/cvinst-platform.XXXXXX";
    char* dir = mkdtemp(pattern);
    return dir ? dir : "";
}

void writeFile(const std::string& path, const std::string& content, mode_t mode) {
    FILE* out = fopen(path.c_str(), "w");
    ASSERT_NE(out, nullptr) << path;
    fputs(content.c_str(), out);
    fclose(out);
    chmod(path.c_str(), mode);
}

void removeTree(const std::string& dir) {
    std::string command = "rm -rf '" + dir + "'";
    ASSERT_EQ(system(command.c_str()), 0);
}

// A fake system: for each argument ("" for none) the line the program prints. An argument
// missing from the map prints nothing, which is how a failing query looks to the caller.
using Answers = std::map<std::string, std::string>;

class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        dir = makeTempDir();
        ASSERT_FALSE(dir.empty());
        const char* old = getenv("PATH");
        hadPath = old != nullptr;
        if (hadPath) savedPath = old;
        // Only the fake programs can be found; the shell itself is /bin/sh.
        setenv("PATH", dir.c_str(), 1);
    }
    void TearDown() override {
        if (hadPath) setenv("PATH", savedPath.c_str(), 1);
        else unsetenv("PATH");
        removeTree(dir);
    }

    void fakeProgram(const std::string& name, const Answers& answers) {
        std::string script = "#!/bin/sh\ncase \"$*\" in\n";
        for (const auto& entry : answers) script += "\"" + entry.first + "\") echo '" + entry.second + "' ;;\n";
        script += "esac\nexit 0\n";
        writeFile(dir + "/" + name, script, 0755);
    }
    void fakeUname(const Answers& answers) { fakeProgram("uname", answers); }

    std::string dir;
    std::string savedPath;
    bool hadPath = false;
};

TEST_F(PlatformTest, LinuxSplitsTheKernelRelease) {
    fakeUname({{"", "Linux"}, {"-r", "2.4.20"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsLinux);
    EXPECT_STREQ(gState.osVersion, "2");
    EXPECT_STREQ(gState.osRelease, "4.20");
}

TEST_F(PlatformTest, LinuxKeepsTheRestOfAModernReleaseInTheLastField) {
    fakeUname({{"", "Linux"}, {"-r", "6.1.0-13-amd64"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_STREQ(gState.osVersion, "6");
    EXPECT_STREQ(gState.osRelease, "1.0-13-amd64");
}

TEST_F(PlatformTest, SolarisOnIntelIsRecognisedFromUnameA) {
    fakeUname({{"", "SunOS"}, {"-r", "5.8"}, {"-a", "SunOS box 5.8 Generic_108529 i86pc i386 i86pc"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsIntelSolaris);
    EXPECT_STREQ(gState.osVersion, "5");
    EXPECT_STREQ(gState.osRelease, "8");
}

TEST_F(PlatformTest, SolarisOnSparc) {
    fakeUname({{"", "SunOS"}, {"-r", "5.8"}, {"-a", "SunOS box 5.8 Generic_108528 sun4u sparc SUNW,Ultra-5_10"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsSolaris);
    EXPECT_STREQ(gState.osVersion, "5");
    EXPECT_STREQ(gState.osRelease, "8");
}

TEST_F(PlatformTest, SunosFourNeverLooksAtTheMachine) {
    // "uname -a" would claim Intel; release 4 decides before it is asked.
    fakeUname({{"", "SunOS"}, {"-r", "4.1.3"}, {"-a", "SunOS box 4.1.3 i86"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsSunos);
    EXPECT_STREQ(gState.osVersion, "4");
    EXPECT_STREQ(gState.osRelease, "1.3");
}

TEST_F(PlatformTest, SunosQueriesThatFailReturnEight) {
    fakeUname({{"", "SunOS"}});
    EXPECT_EQ(detectPlatform(), 8);
    fakeUname({{"", "SunOS"}, {"-r", "5.8"}});
    EXPECT_EQ(detectPlatform(), 8);
}

TEST_F(PlatformTest, AixTakesWholeAnswersAndHasItsOwnFailureCodes) {
    fakeUname({{"", "AIX"}, {"-v", "4"}, {"-r", "3"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsAix);
    EXPECT_STREQ(gState.osVersion, "4");
    EXPECT_STREQ(gState.osRelease, "3");

    fakeUname({{"", "AIX"}, {"-r", "3"}});
    EXPECT_EQ(detectPlatform(), 5);
    fakeUname({{"", "AIX"}, {"-v", "4"}});
    EXPECT_EQ(detectPlatform(), 6);
}

TEST_F(PlatformTest, HpuxDropsTheLetterField) {
    fakeUname({{"", "HP-UX"}, {"-r", "B.11.00"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsHpux);
    EXPECT_STREQ(gState.osVersion, "11");
    EXPECT_STREQ(gState.osRelease, "00");
}

TEST_F(PlatformTest, Osf1LosesTheLeadingV) {
    fakeUname({{"", "OSF1"}, {"-r", "V4.0"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsDigitalUnix);
    EXPECT_STREQ(gState.osVersion, "4");
    EXPECT_STREQ(gState.osRelease, "0");

    fakeUname({{"", "OSF1"}, {"-r", "V5.1"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_STREQ(gState.osVersion, "5");
    EXPECT_STREQ(gState.osRelease, "1");
}

TEST_F(PlatformTest, IrixAndItsSixtyFourBitNameIsNotIrix) {
    fakeUname({{"", "IRIX"}, {"-r", "6.5"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsIrix);
    EXPECT_STREQ(gState.osVersion, "6");
    EXPECT_STREQ(gState.osRelease, "5");

    gState.osType = kOsIrix;
    fakeUname({{"", "IRIX64"}, {"-r", "6.5"}});
    EXPECT_EQ(detectPlatform(), 12);
    EXPECT_EQ(gState.osType, kOsIrix);
}

TEST_F(PlatformTest, Os390TakesVersionAndReleaseWhole) {
    fakeUname({{"", "OS/390"}, {"-v", "03"}, {"-r", "20.00"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsOs390);
    EXPECT_STREQ(gState.osVersion, "03");
    EXPECT_STREQ(gState.osRelease, "20.00");
}

TEST_F(PlatformTest, ScoAsksTheProgramCalledName) {
    // "uname -r" answers differently from "name -r": only the latter may be used.
    fakeUname({{"", "SCO_SV"}, {"-r", "3.2"}});
    fakeProgram("name", {{"-r", "5.0"}});
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsSco);
    EXPECT_STREQ(gState.osVersion, "5");
    EXPECT_STREQ(gState.osRelease, "0");
}

TEST_F(PlatformTest, UnknownSystemLeavesTheTypeAlone) {
    gState.osType = kOsAix;
    fakeUname({{"", "Plan9"}, {"-r", "4"}});
    EXPECT_EQ(detectPlatform(), 12);
    EXPECT_EQ(gState.osType, kOsAix);
}

TEST_F(PlatformTest, NoUnameAtAllReturnsOne) {
    EXPECT_EQ(detectPlatform(), 1);
    fakeUname({});
    EXPECT_EQ(detectPlatform(), 1);
}

TEST_F(PlatformTest, FailingReleaseQueryKeepsTheTypeAndZeroesVersionAndRelease) {
    const struct {
        const char* name;
        int32_t type;
    } systems[] = {{"Linux", kOsLinux}, {"OS/390", kOsOs390}, {"HP-UX", kOsHpux},
                   {"SCO_SV", kOsSco},  {"OSF1", kOsDigitalUnix}, {"IRIX", kOsIrix}};
    for (const auto& system : systems) {
        SCOPED_TRACE(system.name);
        resetInstallState();
        fakeUname({{"", system.name}});
        fakeProgram("name", {});
        EXPECT_EQ(detectPlatform(), 9999);
        EXPECT_EQ(gState.osType, system.type);
        EXPECT_STREQ(gState.osVersion, "0");
        EXPECT_STREQ(gState.osRelease, "0");
    }
}

TEST_F(PlatformTest, OverrideWinsOverUnameAndKeepsTheFieldsAsTyped) {
    fakeUname({{"", "SunOS"}, {"-r", "5.8"}, {"-a", "sparc"}});
    strcpy(gState.osTypeOverride, "Linux-2-4");
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsLinux);
    EXPECT_STREQ(gState.osVersion, "2");
    EXPECT_STREQ(gState.osRelease, "4");

    strcpy(gState.osTypeOverride, "IRIX-6-5b");
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsIrix);
    EXPECT_STREQ(gState.osRelease, "5b");
}

TEST_F(PlatformTest, OverrideKeysMapToTheirCodes) {
    const struct {
        const char* key;
        int32_t type;
    } keys[] = {{"linux", 1}, {"os390", 2}, {"aix", 3}, {"hpux", 4}, {"sunos", 5}, {"solaris", 6},
                {"isolaris", 7}, {"sco", 8}, {"irix", 9}, {"osf1", 10}};
    for (const auto& key : keys) {
        SCOPED_TRACE(key.key);
        snprintf(gState.osTypeOverride, sizeof(gState.osTypeOverride), "%s-1-2", key.key);
        EXPECT_EQ(detectPlatform(), 0);
        EXPECT_EQ(gState.osType, key.type);
    }
}

TEST_F(PlatformTest, UnknownOverrideKeyChangesNothing) {
    gState.osType = kOsAix;
    strcpy(gState.osVersion, "4");
    strcpy(gState.osRelease, "3");
    for (const char* value : {"hp-ux-11-0", "irix64-6-5", "os/390-1-2", "windows-5-1", "-2-4"}) {
        SCOPED_TRACE(value);
        strcpy(gState.osTypeOverride, value);
        EXPECT_EQ(detectPlatform(), 20);
        EXPECT_EQ(gState.osType, kOsAix);
        EXPECT_STREQ(gState.osVersion, "4");
        EXPECT_STREQ(gState.osRelease, "3");
    }
}

TEST_F(PlatformTest, MissingOverrideFieldsAreEmpty) {
    strcpy(gState.osVersion, "x");
    strcpy(gState.osRelease, "y");
    strcpy(gState.osTypeOverride, "aix");
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(gState.osType, kOsAix);
    EXPECT_STREQ(gState.osVersion, "");
    EXPECT_STREQ(gState.osRelease, "");

    strcpy(gState.osTypeOverride, "aix-4");
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_STREQ(gState.osVersion, "4");
    EXPECT_STREQ(gState.osRelease, "");
}

TEST_F(PlatformTest, OverrideFieldsLongerThanTheirBuffersAreCut) {
    std::string value = "linux-" + std::string(100, '7') + "-" + std::string(100, '8');
    strcpy(gState.osTypeOverride, value.c_str());
    EXPECT_EQ(detectPlatform(), 0);
    EXPECT_EQ(std::string(gState.osVersion), std::string(sizeof(gState.osVersion) - 1, '7'));
    EXPECT_EQ(std::string(gState.osRelease), std::string(sizeof(gState.osRelease) - 1, '8'));
}

TEST(OsDisplayName, NamesEveryCodeAndCallsTheRestUnknown) {
    const char* const expected[] = {"unknown", "Linux", "OS/390", "AIX", "HP-UX", "SunOS",
                                    "Solaris", "Intel Solaris", "SCO OpenServer", "IRIX", "Digital Unix"};
    for (int32_t code = 0; code <= 10; code++) EXPECT_STREQ(osDisplayName(code), expected[code]) << code;
    EXPECT_STREQ(osDisplayName(11), "unknown");
    EXPECT_STREQ(osDisplayName(-1), "unknown");
}

class ChoosePackageTest : public ::testing::Test {
protected:
    void SetUp() override {
        resetInstallState();
        dir = makeTempDir();
        ASSERT_FALSE(dir.empty());
        snprintf(gDistribDir, sizeof(gDistribDir), "%s/", dir.c_str());
    }
    void TearDown() override { removeTree(dir); }
    void touch(const std::string& name) { writeFile(dir + "/" + name, "x", 0644); }

    std::string dir;
};

TEST_F(ChoosePackageTest, DebugPackageIsProbedBeforeThePlainOne) {
    touch("cvpack");
    touch("cvpackd");
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpackd");
    EXPECT_EQ(gState.pluginMode, 0);
}

TEST_F(ChoosePackageTest, PluginModeIsClearedForAPlainPackage) {
    gState.pluginMode = 1;
    touch("cvpacku");
    touch("cvpackep");
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpacku");
    EXPECT_EQ(gState.pluginMode, 0);
}

TEST_F(ChoosePackageTest, DirectoryWithoutTrailingSlashWorks) {
    snprintf(gDistribDir, sizeof(gDistribDir), "%s", dir.c_str());
    touch("cvpack");
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpack");
}

TEST_F(ChoosePackageTest, ProbeThatDoesNotFitIsNotTakenForAShorterName) {
    // Build a directory whose "cvpack" path is exactly 511 characters: "cvpackd" there
    // would be cut to the name of the existing "cvpack" if the length were not checked.
    std::string deep = dir;
    const size_t target = 511 - 1 - 6;
    while (deep.size() < target) {
        size_t room = target - deep.size() - 1;
        deep += "/" + std::string(room > 200 ? 200 : room, 'd');
        ASSERT_EQ(mkdir(deep.c_str(), 0755), 0) << deep;
    }
    ASSERT_EQ(deep.size(), target);
    writeFile(deep + "/cvpack", "x", 0644);
    snprintf(gDistribDir, sizeof(gDistribDir), "%s/", deep.c_str());
    EXPECT_EQ(choosePackage(), 0);
    EXPECT_STREQ(distribName, "cvpack");
}

}  // namespace

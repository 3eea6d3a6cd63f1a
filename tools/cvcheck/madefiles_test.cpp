// The installation's own files, by name.
#include "tools/cvcheck/madefiles.h"

#include <gtest/gtest.h>

TEST(MadeFiles, KindsByName) {
    const std::unordered_set<std::string> listed = {"macros/main.e", "macros/sub/x.e", "bin/cv"};
    const struct {
        const char* path;
        MadeKind kind;
    } rows[] = {{"bin/cvt", kMadeLink},
                {"bin/corv.ini", kMadeIni},
                {"corv.ini", kMadeNone},
                {"alias.crv", kMadeAlias},
                {"$alias.crv", kMadeShippedAlias},
                {"rescue.stu", kMadeRescue},
                {"uproject.crv", kMadeProject},
                {"macros/main.ex", kMadeMacro},
                {"macros/keys.ex", kMadeNone},  // its source is not listed
                {"macros/sub/x.ex", kMadeNone},
                {"macros/main.exx", kMadeNone},
                {"tagfiles/c.tag", kMadeTagFile},
                {"tagfiles", kMadeNone},
                {"old/corv.ini", kMadeBackup},
                {"distribfilelist.20240131235959", kMadeList},
                {"distribfilelist.2024013123595", kMadeNone},
                {"distribfilelist.2024013123595x", kMadeNone},
                {"distribfilelist", kMadeList},  // the package's own list, left by an unfinished installation
                {"distribsha256", kMadeList},
                {"distribmodes", kMadeList},
                {"distribmade", kMadeList}};
    for (const auto& row : rows) EXPECT_EQ(madeKind(row.path, listed), row.kind) << row.path;
}

TEST(MadeFiles, ChangedAfterVerification) {
    for (MadeKind kind :
         {kMadeLink, kMadeIni, kMadeAlias, kMadeShippedAlias, kMadeRescue, kMadeMacro, kMadeTagFile})
        EXPECT_TRUE(changedAfterVerification(kind)) << kind;
    for (MadeKind kind : {kMadeNone, kMadeProject, kMadeList, kMadeBackup})
        EXPECT_FALSE(changedAfterVerification(kind)) << kind;
}

// What is handed over, without running it: its version, and whether the platform's build says the
// same as this one.
#include "printed.h"

#include <gtest/gtest.h>

static const std::string SCRIPTS = SOURCE_DIR "/scripts/";

static std::string sed(const std::string& command, const std::string& file)
{
    return "sed -nE '" + command + "' " SOURCE_DIR "/" + file;
}

TEST(VersionTest, IsTheSameInTheFileThePlatformsBuildAndTheChangelog)
{
    static const std::string version = HNETD_VERSION "\n";
    EXPECT_EQ(printed_by(SCRIPTS + "version " HNETD), version);
    EXPECT_NE(printed_by("strings " HNETD).find("hnetd " + version), std::string::npos);
    EXPECT_EQ(printed_by(sed(R"(s/.*HNETD_VERSION=..(.*)..",$/\1/p)", "Android.bp")), version);
    EXPECT_EQ(printed_by(sed(R"(s/^## \[(.*)\].*/\1/p)", "CHANGELOG.md | head -1")), version);
}

TEST(PlatformTest, ItsBuildHasTheSameSourcesAndFoldersOfHeaders)
{
    names sources = names_printed_by(sed(R"(s/^  (.*\.cpp)$/\1/p)", "cmake/sources.cmake"));
    sources.insert("netd/src/main_haldennetd.cpp");
    EXPECT_EQ(names_printed_by(sed(R"re(s/^ *"(.*\.cpp)",$/\1/p)re", "Android.bp")), sources);
    EXPECT_EQ(
        names_printed_by(sed(R"re(/local_include_dirs/,/]/s/^ *"(.*)",$/\1/p)re", "Android.bp")),
        names_printed_by(sed(R"re(/set\(HNETD_INCLUDE_DIRS/,/\)$/s/^ .*DIR}.(.*[a-z])\)?$/\1/p)re",
                             "CMakeLists.txt")));
}

TEST(PlatformTest, ItsPolicyTakesOursAndTheLabels)
{
    if (system("PATH=$PATH:/usr/sbin; for t in m4 checkpolicy sefcontext_compile; do"
               "  command -v $t >/dev/null || exit 1; done") != 0) {
        GTEST_SKIP() << "scripts/setup test installs what this takes";
    }
    EXPECT_EQ(system((SCRIPTS + "policy").c_str()), 0);
}

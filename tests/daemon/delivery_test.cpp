// What is handed over, without running it: how the files were built, and whether the platform's
// build says the same as this one.
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

// The daemon, and the libraries beside it that stand in for the closed ones.
class HardenedTest : public testing::TestWithParam<std::string> {};

TEST_P(HardenedTest, AsThePlatformsProgramsAre)
{
    const std::string file = "$(dirname " HNETD ")/" + GetParam();
    const std::string table = printed_by(READELF " --wide --program-headers --dynamic " + file);
    const auto has = [&](const std::string& line) {
        return printed_by("printf '%s' '" + table + "' | grep -cE '" + line + "' || true") != "0\n";
    };

    EXPECT_TRUE(has("GNU_RELRO")) << table;
    EXPECT_TRUE(has("FLAGS_1.* NOW")) << table;
    EXPECT_TRUE(has("GNU_STACK .* RW ")) << table;
    EXPECT_TRUE(has("DYN \\(")) << table;
    EXPECT_FALSE(has("TEXTREL|RPATH")) << table;
    EXPECT_EQ(has("RUNPATH"), has("RUNPATH.*\\[\\$ORIGIN\\]")) << "leads elsewhere\n" << table;
}

INSTANTIATE_TEST_SUITE_P(, HardenedTest,
                         testing::Values("hnetd", "libbinder.so", "libhalden_net.so",
                                         "libhalden_netservice.so"));

// What is called when a check fails is in the dynamic table; what a function begins with is not,
// and the note that would tell counts the start files of the C library as well.
TEST(HardenedCodeTest, HasTheCompilersChecks)
{
    const std::string imports = printed_by("nm -D --undefined-only " HNETD);
    EXPECT_NE(imports.find("__stack_chk_fail"), std::string::npos);
    EXPECT_NE(imports.find("__snprintf_chk"), std::string::npos);
    const std::string entry =
        printed_by(OBJDUMP " -d --no-show-raw-insn --disassemble=taskSpawn " HNETD
                           " | grep -A1 '<taskSpawn>:$' | tail -1");
    const std::string first = PROCESSOR == std::string("x86_64") ? "endbr64" : "paciasp";
    EXPECT_NE(entry.find(first), std::string::npos) << entry;
}

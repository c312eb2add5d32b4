// The dynamic table of the executable is the list that the closed libraries rely on.
#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

using names = std::set<std::string>;

static names printed_by(const char* command)
{
    names found;
    char name[512];
    FILE* output = popen(command, "r");
    while (fscanf(output, "%511s", name) == 1) {
        found.insert(name);
    }
    EXPECT_EQ(pclose(output), 0);
    return found;
}

// A name of the list stands alone on its line, closed with a semicolon. In the table, names with a
// version are the C library's variables, of which the program holds the copy; those of a sanitizer
// begin with two underscores, like all of a compiler's.
TEST(ExportsTest, ExactlyTheListedNamesAreExported)
{
    const names list = printed_by("sed -n 's/^ *\\([[:alnum:]_]*\\);$/\\1/p' " EXPORTS_LIST);
    const names table =
        printed_by("nm -D --defined-only " HNETD " | sed -n 's/.* //; /@/d; /^__/d; p'");
    EXPECT_TRUE(list.count("taskSpawn") == 1 && list.count("msPerTick") == 1) << "list not read";
    EXPECT_EQ(list, table);
}

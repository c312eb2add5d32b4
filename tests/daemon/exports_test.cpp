// The dynamic table of the executable is the list that the closed libraries rely on.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

using names = std::set<std::string>;

// A name of the list stands alone on its line, closed with a semicolon.
static names listed()
{
    names found;
    std::ifstream file(EXPORTS_LIST);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (second.empty() && first.size() > 2 && first.back() == ';') {
            found.insert(first.substr(0, first.size() - 1));
        }
    }
    return found;
}

// Names with a version are the C library's variables, of which the program holds the copy.
// Those of a sanitizer begin with two underscores, like all of a compiler's.
static names exported()
{
    names found;
    char name[512];
    FILE* nm = popen("nm -D --defined-only " HNETD, "r");
    while (fscanf(nm, "%*s %*s %511s", name) == 1) {
        if (strchr(name, '@') == nullptr && strncmp(name, "__", 2) != 0) {
            found.insert(name);
        }
    }
    EXPECT_EQ(pclose(nm), 0);
    return found;
}

TEST(ExportsTest, ExactlyTheListedNamesAreExported)
{
    const names list = listed();
    const names table = exported();
    EXPECT_TRUE(list.count("taskSpawn") == 1 && list.count("msPerTick") == 1) << "list not read";
    EXPECT_EQ(list, table);
}

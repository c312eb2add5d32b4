// The dynamic table of the executable is the list that the closed libraries rely on.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

// A name of the list stands alone on its line, closed with a semicolon.
static std::set<std::string> listed()
{
    std::set<std::string> names;
    std::ifstream file(EXPORTS_LIST);
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string first, second;
        words >> first >> second;
        if (second.empty() && first.size() > 2 && first.back() == ';') {
            names.insert(first.substr(0, first.size() - 1));
        }
    }
    return names;
}

// Names with a version are the C library's variables, of which the program holds the copy.
// Those of a sanitizer begin with two underscores, like all of a compiler's.
static bool foreign(const std::string& name)
{
    return name.find('@') != std::string::npos || name.rfind("__", 0) == 0;
}

static std::set<std::string> exported()
{
    std::set<std::string> names;
    FILE* nm = popen("nm -D --defined-only " HNETD, "r");
    char line[512];
    while (nm != nullptr && fgets(line, sizeof line, nm) != nullptr) {
        std::istringstream fields(line);
        std::string address, kind, name;
        fields >> address >> kind >> name;
        if (!foreign(name)) {
            names.insert(name);
        }
    }
    EXPECT_TRUE(nm != nullptr && pclose(nm) == 0) << "nm failed";
    return names;
}

static std::string only_in(const std::set<std::string>& these, const std::set<std::string>& those)
{
    std::string names;
    for (const std::string& name : these) {
        if (those.count(name) == 0) {
            names += name + " ";
        }
    }
    return names;
}

TEST(ExportsTest, ExactlyTheListedNamesAreExported)
{
    const std::set<std::string> list = listed();
    const std::set<std::string> table = exported();

    EXPECT_EQ(only_in(list, table), "") << "listed, but not in the program";
    EXPECT_EQ(only_in(table, list), "") << "exported, but not listed";
    EXPECT_TRUE(list.count("taskSpawn") == 1 && list.count("msPerTick") == 1) << "list not read";
}

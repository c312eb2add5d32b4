// The dynamic table of the executable is the list that the closed libraries rely on.
#include "printed.h"

#include <gtest/gtest.h>

// A name of the list stands alone on its line, closed with a semicolon. In the table, names with a
// version are the C library's variables, of which the program holds the copy; those of a sanitizer
// begin with two underscores, like all of a compiler's.
TEST(ExportsTest, ExactlyTheListedNamesAreExported)
{
    const names list = names_printed_by("sed -n 's/^ *\\([[:alnum:]_]*\\);$/\\1/p' " EXPORTS_LIST);
    const names table =
        names_printed_by("nm -D --defined-only " HNETD " | sed -n 's/.* //; /@/d; /^__/d; p'");
    EXPECT_TRUE(list.count("taskSpawn") == 1 && list.count("msPerTick") == 1) << "list not read";
    EXPECT_EQ(list, table);
}

#include "addressSet.h"

#include "fail.h"
#include "osaTask.h"
#include "precompiled.h"

namespace {

constexpr uintptr_t COUNT = 5000;

const void* address(uintptr_t n, uintptr_t stride, uintptr_t off = 0)
{
    return reinterpret_cast<const void*>((n % COUNT + 1) * stride + off);
}

// What is in the set stays findable through every growth, and nothing else is found; a growth
// without memory changes nothing. The strides are those of allocators, and one of the high bits.
TEST(AddressSetTest, IsSearchedWhileItGrows)
{
    for (const uintptr_t stride : {16UL, 448UL, 4096UL, 1UL << 40}) {
        address_set_t set = {};
        std::atomic<uintptr_t> added{0};
        std::vector<std::jthread> searchers;

        EXPECT_FALSE(address_set_has(&set, address(0, stride)));
        for (uintptr_t i = 0; i < 2; i++) {
            searchers.emplace_back([&, i] {
                for (uintptr_t n = i; added < COUNT; n += 7) {
                    const uintptr_t known = added;
                    EXPECT_TRUE(known == 0 || address_set_has(&set, address(n % known, stride)));
                    EXPECT_FALSE(address_set_has(&set, address(n, stride, 1)));
                    EXPECT_FALSE(address_set_has(&set, nullptr));
                }
            });
        }
        int growths = 0;
        for (uintptr_t n = 0; n < COUNT; n++) {
            fail_malloc(1);
            if (!address_set_add(&set, address(n, stride))) {
                growths++;
                EXPECT_FALSE(address_set_has(&set, address(n, stride)));
                ASSERT_TRUE(address_set_add(&set, address(n, stride)));
            }
            added = n + 1;
        }
        fail_nothing();
        EXPECT_EQ(growths, 11); // from 8 addresses to 8192
        searchers.clear();
        for (uintptr_t n = 0; n < COUNT; n++) {
            ASSERT_TRUE(address_set_has(&set, address(n, stride)));
        }
        while (address_table_t* table = set.table) {
            set.table = table->older;
            ts_free(table);
        }
    }
}

} // namespace

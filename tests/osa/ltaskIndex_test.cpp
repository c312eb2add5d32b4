#include "taskIndex.h"

#include "fail.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

// Through its growths, which may fail, and back: what is in the index is found, and nothing else.
TEST(TaskIndexTest, FindsExactlyWhatIsInIt)
{
    constexpr size_t TASKS = 300;
    const auto tasks = std::make_unique<task_t[]>(TASKS);
    std::mt19937_64 random(1);
    for (const bool first : {true, false}) {
        int growths = 0;
        for (size_t i = 0; i < TASKS; i++) {
            tasks[i].pthrid = random() & ~7UL;
            fail_malloc(i % 2 == 0 ? 1 : 2);
            task_index_add(&tasks[i]);
            growths += malloc_calls();
            EXPECT_EQ(malloc_calls() == 1, first && (i == 64 || i == 65 || i == 128 || i == 129 ||
                                                     i == 256 || i == 257));
            for (size_t k = 0; k <= i; k++) {
                ASSERT_EQ(task_index_find(tasks[k].pthrid), &tasks[k]);
            }
        }
        fail_nothing();
        EXPECT_EQ(growths, first ? 6 : 0);
        for (size_t i = 0; i < TASKS; i += 3) {
            const taskId_t id = tasks[i].pthrid;
            EXPECT_EQ(task_index_find(id + 1), nullptr);
            tasks[i].pthrid = id + 1; // a thread takes another's place
            EXPECT_EQ(task_index_find(id), nullptr);
            EXPECT_EQ(task_index_find(id + 1), nullptr);
            task_index_remove(&tasks[i]);
            task_index_remove(&tasks[i]); // is not there
        }
        for (size_t i = 0; i < TASKS; i++) {
            EXPECT_EQ(task_index_find(tasks[i].pthrid), i % 3 == 0 ? nullptr : &tasks[i]);
            task_index_remove(&tasks[i]);
        }
    }
}

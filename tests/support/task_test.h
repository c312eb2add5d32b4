// Tests that leave no trace: when one ends, every thread and every task that it started is gone,
// and nobody has the task lock.
#pragma once

#include "internal.h"
#include "osaTask.h"
#include "task_probe.h"

#include <gtest/gtest.h>

class TaskTest : public testing::Test {
  protected:
    void TearDown() override
    {
        EXPECT_EQ(taskLock(), OK);
        taskUnlock();
        EXPECT_TRUE(threads_gone());
        pthread_mutex_lock(&task_list_lock);
        EXPECT_EQ(task_list, nullptr);
        pthread_mutex_unlock(&task_list_lock);
    }

    /** Waits for the threads that were started since the test began. */
    bool threads_gone() const
    {
        return eventually([this] { return thread_count() <= threads_before; });
    }

    const int threads_before = threads_at_rest();
};

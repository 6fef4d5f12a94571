#pragma once

#include "../platform/ForkedChild.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

/// Runs `action` in a child, which has none of the state that a process builds up at first use.
template <typename Action>
void inFreshProcess(Action action) {
    const ::testing::TestResult& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int reported = result.total_part_count();
    ForkedChild child([&] {
        action();
        return result.total_part_count() > reported ? 1 : 0;
    });
    EXPECT_EQ(child.wait(), 0);
}

/// Runs `action` with the number of its thread in `count` threads that start together.
template <typename Action>
void inThreadsAtOnce(int count, Action action) {
    std::atomic<bool> isOpen{false};
    std::vector<std::jthread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            while (!isOpen)
                std::this_thread::yield();
            action(i);
        });
    isOpen = true;
}

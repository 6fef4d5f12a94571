#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

/// Starts `action` in a child, which has none of the state that a process builds up at first use.
template <typename Action>
pid_t startChild(Action action) {
    const ::testing::TestResult& result = *::testing::UnitTest::GetInstance()->current_test_info()->result();
    const int reported = result.total_part_count();
    const pid_t child = ::fork();
    if (child != 0) return child;
    action();
    ::_exit(result.total_part_count() > reported ? 1 : 0);
}

inline void expectChildSucceeds(pid_t child) {
    int status = -1;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "child ended with " << status;
}

template <typename Action>
void inFreshProcess(Action action) {
    expectChildSucceeds(startChild(action));
}

/// Runs `action` with the number of its thread in `count` threads that start together.
template <typename Action>
void inThreadsAtOnce(int count, Action action) {
    std::atomic<bool> isOpen{false};
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i)
        threads.emplace_back([&, i] {
            while (!isOpen)
                std::this_thread::yield();
            action(i);
        });
    isOpen = true;
    for (std::thread& thread : threads)
        thread.join();
}

#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <vector>

using Times = std::vector<std::chrono::steady_clock::duration>;

/// Runs `round` once for each entry and puts its duration there. @return in how many rounds it gave true.
template <typename Round>
std::size_t timeRounds(Times& times, Round round) {
    std::size_t count = 0;
    for (auto& time : times) {
        const auto begin = std::chrono::steady_clock::now();
        count += round() ? 1 : 0;
        time = std::chrono::steady_clock::now() - begin;
    }
    return count;
}

/// Prints mean and median in microseconds. Sorts.
inline void printTimes(Times& times) {
    using Microseconds = std::chrono::duration<double, std::micro>;
    std::ranges::sort(times);
    Microseconds all{};
    for (const auto time : times)
        all += time;
    std::printf("mean_us %.2f\nmedian_us %.2f\n", all.count() / static_cast<double>(times.size()),
                Microseconds(times[times.size() / 2]).count());
}

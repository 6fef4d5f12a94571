#include "Process.h"

#include <atomic>
#include <pthread.h>

namespace platform {
namespace {

std::atomic<std::uint32_t> generation{0};

void countFork() { generation.fetch_add(1, std::memory_order_relaxed); }

}  // namespace

std::uint32_t processGeneration() noexcept {
    [[maybe_unused]] static const int registered = ::pthread_atfork(nullptr, nullptr, countFork);
    return generation.load(std::memory_order_relaxed);
}

}  // namespace platform

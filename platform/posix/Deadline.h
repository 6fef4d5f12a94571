#pragma once

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <poll.h>

namespace platform {

/// As a time-out: wait for ever.
constexpr std::uint32_t kNoLimit = 0xFFFFFFFF;

/// The end of a wait in the system, which passes in real time whatever clock is in place.
class Deadline {
  public:
    explicit Deadline(std::uint32_t limitMs)
        : mHasEnd(limitMs != kNoLimit), mEnd(std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs)) {}

    /// Milliseconds that are left, rounded up; 0 when the time is over, kNoLimit if it never is.
    std::uint32_t remainingMs() const {
        if (!mHasEnd) return kNoLimit;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(mEnd - std::chrono::steady_clock::now());
        return static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 0));
    }

  private:
    bool mHasEnd;
    std::chrono::steady_clock::time_point mEnd;
};

/// Waits until `descriptor` is ready for `events`.
/// @return the events that came, POLLHUP and POLLERR included; 0 when the time went by first.
inline short waitUntilReady(int descriptor, short events, const Deadline& deadline) {
    for (;;) {
        const std::uint32_t leftMs = deadline.remainingMs();
        const int pollMs = leftMs == kNoLimit ? -1 : static_cast<int>(std::min<std::uint32_t>(leftMs, INT_MAX));
        pollfd entry{descriptor, events, 0};
        const int ready = ::poll(&entry, 1, pollMs);
        if (ready > 0) return entry.revents;
        if (ready < 0 && errno != EINTR) return POLLERR;
        if (leftMs == 0) return 0;
    }
}

/// The events of `descriptor` at this moment.
inline short readyNow(int descriptor, short events) { return waitUntilReady(descriptor, events, Deadline(0)); }

}  // namespace platform

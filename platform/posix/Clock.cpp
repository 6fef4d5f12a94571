#include "Clock.h"

#include "ManualResetEvent.h"

#include <atomic>
#include <chrono>
#include <ctime>
#include <thread>

namespace platform {
namespace {

using std::chrono::milliseconds;

class SystemClock : public Clock {
  public:
    std::uint64_t nowMs() override {
        const auto sinceStart = std::chrono::steady_clock::now().time_since_epoch();
        return static_cast<std::uint64_t>(std::chrono::duration_cast<milliseconds>(sinceStart).count());
    }
    void pauseMs(std::uint32_t ms) override { std::this_thread::sleep_for(milliseconds(ms)); }
    bool waitFor(ManualResetEvent& event, std::uint32_t ms) override { return event.waitFor(milliseconds(ms)); }
};

std::atomic<Clock*> gReplacement{nullptr};

// Never destroyed: threads that outlive the end of main() may still ask for the time.
Clock& systemClock() {
    static Clock& clock = *new SystemClock;
    return clock;
}

// Not time(): that one runs behind and may still tell the second before.
timespec wallTime() {
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return now;
}

}  // namespace

Clock& Clock::current() {
    Clock* replacement = gReplacement.load(std::memory_order_acquire);
    return replacement ? *replacement : systemClock();
}

void Clock::replace(Clock* clock) { gReplacement.store(clock, std::memory_order_release); }

LocalTime localTime() {
    constexpr long kNanosecondsPerMillisecond = 1'000'000;
    const timespec now = wallTime();
    tm parts{};
    ::localtime_r(&now.tv_sec, &parts);
    return {parts.tm_year + 1900,
            parts.tm_mon + 1,
            parts.tm_mday,
            parts.tm_hour,
            parts.tm_min,
            parts.tm_sec,
            static_cast<int>(now.tv_nsec / kNanosecondsPerMillisecond)};
}

std::uint32_t wallSeconds() { return static_cast<std::uint32_t>(wallTime().tv_sec); }

}  // namespace platform

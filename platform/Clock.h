#pragma once

#include <cstdint>

namespace platform {

class ManualResetEvent;

/// Time as the library sees it. Everything that measures or passes time goes through the current clock, so that a
/// test can put its own in place and let half a minute go by in no time. Any thread may call every operation.
class Clock {
  public:
    virtual ~Clock() = default;

    /// Milliseconds on a clock that nobody can set. The zero point means nothing.
    virtual std::uint64_t nowMs() = 0;
    /// Blocks the caller for `ms` milliseconds.
    virtual void pauseMs(std::uint32_t ms) = 0;
    /// Blocks until `event` is set, at most `ms` milliseconds.
    /// @return true if the event is set, false when the time went by without it.
    virtual bool waitFor(ManualResetEvent& event, std::uint32_t ms) = 0;

    /// The low 32 bits of nowMs(). Wraps after 49 days: take differences in unsigned arithmetic.
    std::uint32_t tick() { return static_cast<std::uint32_t>(nowMs()); }

    /// The clock in use; the system's own unless replaced.
    static Clock& current();
    /// Puts `clock` in place of the current one; null puts the system's own back. The caller keeps ownership and
    /// leaves the object alive while it is in place.
    static void replace(Clock* clock);
};

/// Local calendar time with milliseconds, as a log record shows it. `month` 1 to 12, `day` 1 to 31.
struct LocalTime {
    int year, month, day, hour, minute, second, millisecond;
};
LocalTime localTime();

/// Seconds since 1970, from the wall clock.
std::uint32_t wallSeconds();

}  // namespace platform

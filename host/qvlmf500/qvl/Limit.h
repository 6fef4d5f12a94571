#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <stop_token>

namespace qvl {

/// How long an operation may wait, all its waits together: for the tag or card, and for the reader while another thread
/// or program works with it. A wait that is over, or that the host ends, ends the operation with an Error. What an
/// operation does without waiting, the exchanges with a tag that is there, takes the time it takes.
class Limit {
  public:
    using Clock = std::chrono::steady_clock;

    /// None: until the stop token says so.
    Limit() = default;
    Limit(std::stop_token stop) : mStop(std::move(stop)) {}  // NOLINT: a stop token is a limit
    Limit(Clock::time_point deadline, std::stop_token stop = {})
        : mDeadline(deadline), mStop(std::move(stop)) {}  // NOLINT
    /// From now on. A negative time is none at all.
    template <typename Rep, typename Period>
    Limit(std::chrono::duration<Rep, Period> time, std::stop_token stop = {})  // NOLINT: so is a time
        : mDeadline(after(time)), mStop(std::move(stop)) {}
    /// One attempt, without waiting for a tag. An operation of another thread or program is waited for, up to 30
    /// seconds.
    static Limit now() { return Limit(Clock::time_point::min()).withPatience(std::chrono::seconds(30)); }
    /// The same limit, but with another time, from now on, for operations of other threads and programs.
    template <typename Rep, typename Period>
    Limit withPatience(std::chrono::duration<Rep, Period> time) const {
        Limit limit = *this;
        limit.mReaderDeadline = after(time);
        return limit;
    }

    /// The same limit, with a question that is asked about every 100 ms on the thread of the operation; false cancels
    /// it. What it throws ends the operation and arrives at the caller.
    Limit asking(std::function<bool()> goOn) const {
        Limit limit = *this;
        limit.mGoOn = std::move(goOn);
        return limit;
    }

    Clock::time_point deadline() const { return mDeadline; }
    /// How long it waits for other threads and programs.
    Clock::time_point readerDeadline() const { return mReaderDeadline.value_or(mDeadline); }
    bool isNow() const { return mDeadline == Clock::time_point::min(); }
    bool isOver() const { return mDeadline != Clock::time_point::max() && Clock::now() >= mDeadline; }
    const std::stop_token& stop() const { return mStop; }
    const std::function<bool()>& question() const { return mGoOn; }

  private:
    template <typename Rep, typename Period>
    static Clock::time_point after(std::chrono::duration<Rep, Period> time) {
        const auto now = Clock::now();
        const auto most = std::chrono::duration<double>(Clock::time_point::max() - now);
        if (std::chrono::duration<double>(time) >= most) return Clock::time_point::max();
        return now + std::chrono::ceil<Clock::duration>(time);
    }

    Clock::time_point mDeadline = Clock::time_point::max();
    std::optional<Clock::time_point> mReaderDeadline;
    std::stop_token mStop;
    std::function<bool()> mGoOn;
};

}  // namespace qvl

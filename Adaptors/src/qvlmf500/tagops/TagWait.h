#pragma once

#include "Clock.h"
#include "ServiceStatus.h"

#include <cstdint>

/// How an operation may wait for a tag. The service implements it with the prompt, a test as it likes.
class TagWait {
  public:
    virtual ~TagWait() = default;

    /// What all waits of one operation may take together, in ms; 0 allows no attempt. May change at any time.
    virtual std::uint32_t limitMs() const = 0;
    /// True while there is somebody who waits: a prompt stands.
    virtual bool mayPause() const = 0;
    /// Lets time pass between two attempts. @return 3100, or 3121 when nobody waits or the wait was cancelled.
    virtual int pause() = 0;
};

/// The budget of waiting of one operation: what its earlier waits have used is gone.
class WaitBudget {
  public:
    /// When a wait reads the clock: what it measures decides whether there is another attempt.
    enum class ClockRead { beforePause, afterPause };

    explicit WaitBudget(TagWait& wait) : mWait(wait) {}

    /// Attempts until one succeeds, the time is over, the wait is cancelled or the reader is lost. With nothing left
    /// there is one attempt. @return 3100, 3121 or 3122.
    template <typename Attempt, typename IsLost>
    int wait(ClockRead clockRead, Attempt attempt, IsLost isLost);

  private:
    TagWait& mWait;
    std::uint32_t mUsed = 0;
};

template <typename Attempt, typename IsLost>
int WaitBudget::wait(ClockRead clockRead, Attempt attempt, IsLost isLost) {
    if (mWait.limitMs() == 0) return kWaitOver;
    platform::Clock& clock = platform::Clock::current();
    const std::uint32_t start = clock.tick();
    std::uint32_t elapsed = 0;
    const auto isOver = [&] { return std::uint64_t{mUsed} + elapsed >= mWait.limitMs(); };
    const bool isLastAttempt = isOver();
    int status = kOk;
    while (!attempt(elapsed)) {
        if (isLost()) {
            status = mWait.mayPause() ? kWaitOver : kCancelled;
            break;
        }
        if (clockRead == ClockRead::beforePause) elapsed = clock.tick() - start;
        status = isLastAttempt ? int{kWaitOver} : mWait.pause();
        if (status != kOk) break;
        if (clockRead == ClockRead::afterPause) elapsed = clock.tick() - start;
        if (!isOver()) continue;
        status = kWaitOver;
        break;
    }
    const bool isTooLate = isLastAttempt ? mWait.limitMs() == 0 : isOver();
    mUsed += clock.tick() - start;
    return isTooLate ? int{kWaitOver} : status;
}

#pragma once

#include "Clock.h"
#include "ServiceStatus.h"
#include "TagPromptControl.h"

#include <atomic>
#include <cstdint>

/// The time that an operation may wait for a tag. Only a standing prompt lets it wait at all, in steps of 100 ms
/// between attempts; its closing ends the wait. A limit of 0 allows no attempt.
class PromptWait {
  public:
    /// `limitMs` may change while the wait goes on.
    explicit PromptWait(const std::atomic<std::uint32_t>& limitMs)
        : mLimit(limitMs), mStart(platform::Clock::current().tick()) {}

    bool mayTry() {
        mIsOver = mElapsed >= mLimit;
        return !mIsOver;
    }
    bool hasWaited() const { return mElapsed != 0; }
    /// Looks at the clock.
    void measure() { mElapsed = platform::Clock::current().tick() - mStart; }
    /// Lets time go by after a failed attempt. @return 3100, or 3121 when nobody shows a prompt or it was closed.
    int pass() const {
        platform::ManualResetEvent& event = tagPromptEvent();
        event.reset();
        if (!tagPromptStands()) return kCancelled;
        return platform::Clock::current().waitFor(event, kStepMs) ? kCancelled : kOk;
    }
    /// `status`, unless the time is over.
    int result(int status) { return mIsOver || !mayTry() ? kWaitOver : status; }

  private:
    static constexpr std::uint32_t kStepMs = 100;

    const std::atomic<std::uint32_t>& mLimit;
    std::uint32_t mStart;
    std::uint32_t mElapsed = 0;
    bool mIsOver = false;  // once found over it stays so, even if the limit grows at that moment
};

#pragma once

#include "Clock.h"
#include "HostWait.h"
#include "TagPromptControl.h"
#include "TagWait.h"

#include <atomic>
#include <cstdint>
#include <limits>

/// Waiting in steps of 100 ms between two attempts: as the host of this thread has it, else under the prompt of the
/// process, only while that stands; its closing ends the wait.
class PromptWait : public TagWait {
  public:
    /// `limitMs` may change while the wait goes on. It does not bind a host that waits by itself.
    explicit PromptWait(const std::atomic<std::uint32_t>& limitMs) : mLimit(limitMs) {}

    std::uint32_t limitMs() const override { return mHost ? std::numeric_limits<std::uint32_t>::max() : mLimit.load(); }
    bool mayPause() const override { return mHost ? mHost->waitForTag(0) : tagPromptStands(); }
    int pause() override {
        if (mHost) return mHost->waitForTag(kStepMs) ? kOk : kCancelled;
        platform::ManualResetEvent& event = tagPromptEvent();
        event.reset();
        if (!tagPromptStands()) return kCancelled;
        return platform::Clock::current().waitFor(event, kStepMs) ? kCancelled : kOk;
    }

  private:
    static constexpr std::uint32_t kStepMs = 100;

    HostWait* const mHost = hostWait();
    const std::atomic<std::uint32_t>& mLimit;
};

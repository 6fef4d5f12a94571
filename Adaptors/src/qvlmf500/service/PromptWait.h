#pragma once

#include "Clock.h"
#include "TagPromptControl.h"
#include "TagWait.h"

#include <atomic>
#include <cstdint>

/// Waiting under the prompt of the process: only while it stands, in steps of 100 ms between two attempts; its closing
/// ends the wait.
class PromptWait : public TagWait {
  public:
    /// `limitMs` may change while the wait goes on.
    explicit PromptWait(const std::atomic<std::uint32_t>& limitMs) : mLimit(limitMs) {}

    std::uint32_t limitMs() const override { return mLimit; }
    bool mayPause() const override { return tagPromptStands(); }
    int pause() override {
        platform::ManualResetEvent& event = tagPromptEvent();
        event.reset();
        if (!tagPromptStands()) return kCancelled;
        return platform::Clock::current().waitFor(event, kStepMs) ? kCancelled : kOk;
    }

  private:
    static constexpr std::uint32_t kStepMs = 100;

    const std::atomic<std::uint32_t>& mLimit;
};

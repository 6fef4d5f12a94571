#pragma once

#include "Clock.h"
#include "ManualResetEvent.h"

#include <atomic>
#include <cstdint>
#include <functional>

/// A clock in the hands of a test: pauses and waits pass at once and move it on. In place from construction to
/// destruction.
class ManualClock : public platform::Clock {
  public:
    ManualClock() { replace(this); }
    ~ManualClock() override { replace(nullptr); }

    std::uint64_t nowMs() override { return mNow += mPerLook; }
    void pauseMs(std::uint32_t ms) override {
        mPaused += ms;
        mNow += ms;
    }
    bool waitFor(platform::ManualResetEvent& event, std::uint32_t ms) override {
        if (mDuringWait) mDuringWait();
        if (event.isSet()) return true;
        mNow += ms;
        return false;
    }

    void advance(std::uint64_t ms) { mNow += ms; }
    /// Lets every look at the clock take this long.
    void setMsPerLook(std::uint64_t ms) { mPerLook = ms; }
    /// Runs inside every wait for an event.
    void duringWait(std::function<void()> what) { mDuringWait = std::move(what); }
    std::uint64_t paused() const { return mPaused; }

  private:
    std::atomic<std::uint64_t> mNow{1000000};
    std::atomic<std::uint64_t> mPerLook{0};
    std::atomic<std::uint64_t> mPaused{0};
    std::function<void()> mDuringWait;
};

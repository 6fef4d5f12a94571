#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace platform {

/// An event that stays set until somebody resets it. Not set at the start. Any thread may call every operation.
class ManualResetEvent {
  public:
    void set();
    void reset();
    bool isSet() const;
    /// Real waiting; callers wait through Clock::waitFor instead, which a test can replace.
    /// @return true if the event is set, false when the time went by without it.
    bool waitFor(std::chrono::milliseconds limit);

  private:
    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    bool mSet = false;
};

}  // namespace platform

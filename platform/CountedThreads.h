#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

namespace platform {

/// Starts threads without keeping their handles, and knows how many still run. Nobody joins them, but an owner can
/// wait until none is left.
class CountedThreads {
  public:
    /// Waits as waitUntilNone() does.
    ~CountedThreads();
    /// Runs `work` on a new thread. @return false if the thread could not be started; `work` then never runs.
    bool start(std::function<void()> work) noexcept;
    /// Returns when no started thread runs any more. Not from one of those threads.
    void waitUntilNone();

  private:
    std::mutex mMutex;
    std::condition_variable mChanged;
    int mRunning = 0;
};

}  // namespace platform

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

/// Ctrl-C and the other polite requests to end (SIGINT, SIGTERM, SIGHUP), taken by a thread of its own instead of a
/// handler.
///
/// Made before any other thread: all of them must have the signals blocked.
class Interrupt {
  public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool requested() const;
    /// Pauses, but not beyond a request. @return whether the end was requested.
    bool waitFor(std::chrono::milliseconds pause);

  private:
    void watch();

    mutable std::mutex mMutex;
    std::condition_variable mChanged;
    bool mRequested = false;
    bool mEnding = false;
    std::thread mThread;
};

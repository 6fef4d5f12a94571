#pragma once

#include "Arguments.h"

#include <chrono>
#include <memory>
#include <mutex>

namespace native {

/// An object of the layer that one thread at a time may use: others queue for it, within their limits.
template <typename T>
class Turns {
  public:
    explicit Turns(T&& object) : mObject(std::make_unique<T>(std::move(object))) {}

    template <typename Work>
    auto use(const qvl::Limit& limit, Work work) {
        if (hostWait() != nullptr)  // in a signal handler, and the turn may be that of its own thread
            throw qvl::Error(qvl::Reason::badArgument,
                             "an operation of this thread is running: it cannot begin another");
        std::unique_lock mine(mMutex, std::defer_lock);
        while (!mine.try_lock_for(std::chrono::milliseconds(50))) {
            if (limit.question() && !limit.question()()) throw qvl::Error(qvl::Reason::cancelled, "cancelled");
            if (limit.isOver()) throw qvl::Error(qvl::Reason::timedOut, "another thread kept it for the whole time");
        }
        return work(*mObject);
    }

    /// For its values, which do not change.
    const T& operator*() const { return *mObject; }
    const T* operator->() const { return mObject.get(); }

  private:
    std::timed_mutex mMutex;
    std::unique_ptr<T> mObject;
};

}  // namespace native

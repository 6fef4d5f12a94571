#include "ManualResetEvent.h"

namespace platform {

// Notifying under the lock lets a waiter destroy the event as soon as its wait ends.
void ManualResetEvent::set() {
    std::lock_guard lock(mMutex);
    mSet = true;
    mChanged.notify_all();
}

void ManualResetEvent::reset() {
    std::lock_guard lock(mMutex);
    mSet = false;
}

bool ManualResetEvent::isSet() const {
    std::lock_guard lock(mMutex);
    return mSet;
}

bool ManualResetEvent::waitFor(std::chrono::milliseconds limit) {
    std::unique_lock lock(mMutex);
    return mChanged.wait_for(lock, limit, [this] { return mSet; });
}

}  // namespace platform

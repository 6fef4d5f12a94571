#include "CountedThreads.h"

#include <thread>
#include <utility>

namespace platform {

CountedThreads::~CountedThreads() { waitUntilNone(); }

bool CountedThreads::start(std::function<void()> work) noexcept {
    // Notifying under the lock: whoever waits for the last thread may destroy this object right after.
    const auto count = [this](int change) {
        std::lock_guard lock(mMutex);
        mRunning += change;
        if (mRunning == 0) mChanged.notify_all();
    };
    count(+1);
    try {
        std::thread([count, work = std::move(work)]() mutable {
            work();
            work = nullptr;  // what it holds on to goes before the owner may
            count(-1);
        }).detach();
        return true;
    } catch (...) {
        count(-1);
        return false;
    }
}

void CountedThreads::waitUntilNone() {
    std::unique_lock lock(mMutex);
    mChanged.wait(lock, [this] { return mRunning == 0; });
}

}  // namespace platform

#include "Interrupt.h"

#include <csignal>
#include <pthread.h>

namespace {

sigset_t endingSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int each : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, each);
    return signals;
}

}  // namespace

Interrupt::Interrupt() {
    const sigset_t signals = endingSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    mThread = std::thread([this] { watch(); });
}

Interrupt::~Interrupt() {
    {
        const std::lock_guard held(mMutex);
        mEnding = true;
    }
    ::pthread_kill(mThread.native_handle(), SIGHUP);  // Any of them wakes it.
    mThread.join();
}

bool Interrupt::requested() const {
    const std::lock_guard held(mMutex);
    return mRequested;
}

bool Interrupt::waitFor(std::chrono::milliseconds pause) {
    std::unique_lock held(mMutex);
    return mChanged.wait_for(held, pause, [this] { return mRequested; });
}

void Interrupt::watch() {
    const sigset_t signals = endingSignals();
    for (int signal = 0; ::sigwait(&signals, &signal) == 0;) {
        {
            const std::lock_guard held(mMutex);
            if (mEnding) return;
            mRequested = true;
        }
        mChanged.notify_all();
    }
}

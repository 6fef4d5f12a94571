#include "ReaderState.h"

#include "LogService.h"

#include <exception>

namespace {

constexpr const char* kReaderMutexName = "QUORVELREADER_MUTEX";

std::unique_ptr<platform::NamedMutex> makeReaderMutex() {
    try {
        return std::make_unique<platform::NamedMutex>(kReaderMutexName);
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace

ReaderState::ReaderState(const QvlTcl& cards) : mCards(cards), mMutex(makeReaderMutex()) {
    if (mMutex && !mMutex->isMachineWide())
        QVL_LOG(kLogFailure, "ReaderState: no lock file, other processes are not kept apart from this one");
}

ReaderLock::ReaderLock(ReaderState& reader, Purpose purpose) : mReader(reader), mPurpose(purpose) {
    static const platform::NamedMutex::LongWait tell = [](long holder) {
        QVL_LOG(kLogFailure, "ReaderLock: waits for the reader, which process %ld holds", holder);
    };
    if (mReader.mMutex) mReader.mMutex->lock(tell);
    mReader.mPendingCalls.fetch_add(1);
    auto driver = mReader.mCards.driver();
    if (!driver || driver->linkWatch() != nullptr) return;
    mWatched = std::move(driver);
    mWatched->watchLink(&mWatch);
}

ReaderLock::~ReaderLock() {
    if (mWatched) {
        mWatched->watchLink(nullptr);
        const bool isLost = mWatch.isLost() || mWatch.isBroken();
        if (isLost && mReader.isReady() && mPurpose == Purpose::operation) mReader.mLoss = ReaderState::Loss::noted;
    }
    mReader.mPendingCalls.fetch_sub(1);
    if (mReader.mMutex) mReader.mMutex->unlock();
}

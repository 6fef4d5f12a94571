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

WatchedLink::WatchedLink(ReaderState& reader, Purpose purpose) : mReader(reader), mPurpose(purpose) {
    auto driver = mReader.mCards.driver();
    if (!driver || driver->linkWatch() != nullptr) return;
    mWatched = std::move(driver);
    mWatched->watchLink(&mWatch);
}

WatchedLink::~WatchedLink() {
    if (!mWatched) return;
    mWatched->watchLink(nullptr);
    const bool isLost = mWatch.isLost() || mWatch.isBroken();
    if (isLost && mReader.isReady() && mPurpose == Purpose::operation) mReader.mLoss = ReaderState::Loss::noted;
}

ReaderLock::Held::Held(ReaderState& state) : reader(state) {
    static const platform::NamedMutex::LongWait tell = [](long holder) {
        QVL_LOG(kLogFailure, "ReaderLock: waits for the reader, which process %ld holds", holder);
    };
    if (reader.mMutex) reader.mMutex->lock(tell);
    reader.mPendingCalls.fetch_add(1);
}

ReaderLock::Held::~Held() {
    reader.mPendingCalls.fetch_sub(1);
    if (reader.mMutex) reader.mMutex->unlock();
}

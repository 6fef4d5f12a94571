#include "ReaderState.h"

#include "HostWait.h"
#include "LogService.h"

#include <exception>
#include <stdexcept>

namespace {

constexpr const char* kReaderMutexName = "QUORVELREADER_MUTEX";

void tellHolder(long holder) {
    if (holder != 0)
        QVL_LOG(kLogFailure, "ReaderLock: waiting for the reader, held by process %ld", holder);
    else
        QVL_LOG(kLogFailure, "ReaderLock: waiting for the reader, held by another process or thread");
}

void waitFor(platform::NamedMutex& mutex) {
    constexpr std::uint32_t kStepMs = 5;
    HostWait* const host = hostWait();
    if (host == nullptr)
        mutex.lock(tellHolder);
    else if (!mutex.lockWhile([host](long holder) { return host->waitForReader(kStepMs, holder); }))
        throw std::runtime_error("the host does not wait for the reader any longer");
}

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
    if (driver && driver->watchLink(mWatch)) mWatched = std::move(driver);
}

WatchedLink::~WatchedLink() {
    if (!mWatched) return;
    mWatched->unwatchLink();
    const bool isLost = mWatch.isLost() || mWatch.isBroken();
    const bool isInPlace = mReader.isReady() && mReader.mCards.driver() == mWatched;
    if (isLost && isInPlace && mPurpose == Purpose::operation) mReader.mLoss = ReaderState::Loss::noted;
}

ReaderLock::Held::Held(ReaderState& state) : reader(state) {
    if (reader.mMutex) waitFor(*reader.mMutex);
    reader.mPendingCalls.fetch_add(1);
}

ReaderLock::Held::~Held() {
    reader.mPendingCalls.fetch_sub(1);
    if (reader.mMutex) reader.mMutex->unlock();
}

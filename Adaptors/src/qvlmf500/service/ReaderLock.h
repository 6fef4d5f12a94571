#pragma once

#include "LinkWatch.h"
#include "QvlMf500ReaderImpl.h"

/// One operation inside the reader lock: waits for it without limit, and gives it back at the end of the scope. Nests
/// on its thread. The outermost one tells the driver that an operation begins.
class ReaderLock {
  public:
    explicit ReaderLock(QvlMf500ReaderImpl& reader) : mReader(reader) {
        if (mReader.mReaderMutex) mReader.mReaderMutex->lock();
        mReader.mPendingCalls.fetch_add(1);
        mDriver = mReader.driver();
        mIsWatching = mDriver && mDriver->linkWatch() == nullptr;
        if (mIsWatching) mDriver->watchLink(&mWatch);
    }
    ~ReaderLock() {
        if (mIsWatching) mDriver->watchLink(nullptr);
        mReader.mPendingCalls.fetch_sub(1);
        if (mReader.mReaderMutex) mReader.mReaderMutex->unlock();
    }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    QvlMf500ReaderImpl& mReader;
    std::shared_ptr<Qvl14443bfl> mDriver;
    LinkWatch mWatch;
    bool mIsWatching = false;
};

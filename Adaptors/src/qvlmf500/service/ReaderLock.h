#pragma once

#include "QvlMf500ReaderImpl.h"

/// One operation inside the reader lock: waits for it without limit, and gives it back at the end of the scope. Nests
/// on its thread. The outermost one tells the driver that an operation begins.
class ReaderLock {
  public:
    explicit ReaderLock(QvlMf500ReaderImpl& reader) : mReader(reader) {
        if (mReader.mReaderMutex) mReader.mReaderMutex->lock();
        if (mReader.mPendingCalls.fetch_add(1) > 0) return;
        if (const auto bfl = mReader.driver()) bfl->operationBegins();
    }
    ~ReaderLock() {
        mReader.mPendingCalls.fetch_sub(1);
        if (mReader.mReaderMutex) mReader.mReaderMutex->unlock();
    }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    QvlMf500ReaderImpl& mReader;
};

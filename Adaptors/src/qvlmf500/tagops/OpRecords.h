#pragma once

#include "OpResultCode.h"

#include <cstddef>
#include <memory>

/// Records of an operation, one a sector or block, as a host gets them.
class OpRecords {
  public:
    OpRecords() = default;
    explicit OpRecords(int room) : mRecords(std::make_unique<OpResultCode[]>(static_cast<std::size_t>(room))) {}

    void add(int number, int status) {
        mRecords[static_cast<std::size_t>(mCount++)] = {static_cast<short>(number), status};
    }
    int count() const { return mCount; }
    /// Status of the last record; 0 without one.
    int lastStatus() const { return mCount > 0 ? mRecords[static_cast<std::size_t>(mCount - 1)].status : 0; }
    /// Hands the records out: a new array, null without room.
    void release(int& count, OpResultCode*& records) {
        count = mCount;
        records = mRecords.release();
    }

  private:
    std::unique_ptr<OpResultCode[]> mRecords;
    int mCount = 0;
};

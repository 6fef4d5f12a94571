#pragma once

#include "DirectoryImage.h"
#include "OpRecords.h"
#include "SelectedTag.h"

#include <cstdint>
#include <span>

/// A run of data blocks as a host asks for it.
struct RunRequest {
    TagAppType appType;
    short appId;
    int startBlock;  ///< Absolute, or an index through the data of the application.
    int blockCount;  ///< kToTheEnd: all that follow.
    KeyUse madKey;
    bool isWrite;
};

/// A run of data blocks of a selected tag, moved sector by sector, so that each sector is authenticated once; told
/// block by block, so that a run can half succeed.
class BlockRun {
  public:
    explicit BlockRun(SelectedTag& tag) : mTag(tag) {}

    /// Finds out where the run lies. 3100, 3109, 3110, 3112, 3113, 3119, 3131.
    int resolve(const RunRequest& request);
    int blockCount() const { return mBlockCount; }
    /// Bytes of the run.
    std::size_t size() const { return static_cast<std::size_t>(mBlockCount) * mTag.blockSize(); }

    /// `out` holds size() bytes; blocks that failed are zero. 3100 or 3132.
    int read(const KeyUse& key, std::uint8_t* out, OpRecords& records);
    /// Writes `data`, at most size() bytes, and zeros after them. 3100 or 3132.
    int write(const KeyUse& key, std::span<const std::uint8_t> data, OpRecords& records);

  private:
    class Walk;

    int resolveInApplication(const RunRequest& request, int& capacity);
    int resolvePlain(const RunRequest& request, int& capacity);
    template <typename Move>
    int walk(OpRecords& records, Move move);

    SelectedTag& mTag;
    TagAppType mAppType = TagAppNone;
    SectorList mSectors;
    int mFirstListIndex = 0;
    int mOffset = 0;  // block in the first sector
    int mBlockCount = 0;
};

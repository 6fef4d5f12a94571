#include "BlockRun.h"

#include "LogService.h"
#include "TagDirectory.h"
#include "TagGeometry.h"

#include <algorithm>

namespace {

constexpr int kMostBlocksInCall = 15;

// How many blocks one call may move: to the end of the sector, on a tag of pages up to three.
int roomIn(std::uint32_t type, int sector, int offset) {
    return (isLargeSector(type, sector) ? kLargeTrailer : kSmallTrailer) - offset;
}

}  // namespace

/// The sectors of a run, one call a step.
class BlockRun::Walk {
  public:
    explicit Walk(const BlockRun& run)
        : mRun(run), mType(run.mTag.type()), mIndex(run.mFirstListIndex), mSector(run.mSectors[run.mFirstListIndex]),
          mOffset(run.mOffset), mLeft(run.mBlockCount) {}

    bool atEnd() const { return mLeft <= 0 || mIndex >= mRun.mSectors.count; }
    SectorBlocks blocks() const { return {mSector, mOffset, std::min(roomIn(mType, mSector, mOffset), mLeft)}; }
    /// What stands in the record of a block: its absolute number, or its place in an application's run.
    int numberOf(int block) const {
        if (mRun.mAppType != TagAppNone) return mRun.mBlockCount - mLeft + block;
        return static_cast<std::uint8_t>(firstBlockOfSector(mType, mSector) + mOffset + block);
    }
    void next() {
        const int moved = blocks().count;
        mLeft -= moved;
        mOffset = 0;
        ++mIndex;
        if (mType == kTagUltralight)
            mSector += moved;
        else if (mIndex < mRun.mSectors.count)
            mSector = mRun.mSectors[mIndex];
    }

  private:
    const BlockRun& mRun;
    std::uint32_t mType;
    int mIndex;
    int mSector;
    int mOffset;
    int mLeft;
};

int BlockRun::resolve(const RunRequest& request) {
    mAppType = request.appType;
    int capacity = 0;  // data blocks of the sectors, less those before the start
    const bool isPlain = request.appType == TagAppNone;
    if (!isPlain && request.isWrite && (mTag.type() == kTag4K || !hasTrailers(mTag.type()))) return kNotAllowedHere;
    if (const int status = isPlain ? resolvePlain(request, capacity) : resolveInApplication(request, capacity);
        status != kOk) {
        QVL_LOG(kLogFailure, "%s failed %d", request.isWrite ? "setBlockData" : "getBlockData", status);
        return status;
    }
    for (int i = 0; i < mSectors.count; ++i)
        capacity += dataBlocksOf(mTag.type(), mSectors[i]);
    mBlockCount = request.blockCount == kToTheEnd ? capacity : request.blockCount;
    return capacity < 0 || capacity < mBlockCount ? kTooFew : kOk;
}

int BlockRun::resolveInApplication(const RunRequest& request, int& capacity) {
    TagDirectory directory(mTag, request.madKey);
    const int status = directory.locateRange(static_cast<std::uint16_t>(request.appId), request.startBlock, mSectors,
                                             mFirstListIndex, mOffset);
    if (status != kOk)
        QVL_LOG(kLogFailure, request.isWrite ? "setBlockData failed %d" : "getBlockData failed: %d", status);
    capacity = -request.startBlock;
    return status;
}

int BlockRun::resolvePlain(const RunRequest& request, int& capacity) {
    // The test before the lock saw the type that the caller's TagUID held.
    if (const int status = checkUserBlock(mTag.type(), request.startBlock); status != kMemoryOk) return status;
    SectorRun sectors;
    if (const int status = blockRangeToSectors(mTag.type(), request.startBlock, request.blockCount, sectors);
        status != kOk)
        return status;
    for (int i = 0; i < sectors.count; ++i)
        mSectors.add(sectors.sector + i);
    mOffset = sectors.offset;
    capacity = -sectors.offset;
    return kOk;
}

/// `move(blocks, statuses)` moves the blocks of one sector.
template <typename Move>
int BlockRun::walk(OpRecords& records, Move move) {
    records = OpRecords(mBlockCount);
    bool anyFailed = false;
    int current = kOk;  // of the wake-up after the last call that failed
    for (Walk walk(*this); !walk.atEnd(); walk.next()) {
        int statuses[kMostBlocksInCall] = {};
        const SectorBlocks blocks = walk.blocks();
        const int status = move(blocks, statuses);
        for (int i = 0; i < blocks.count; ++i)
            records.add(walk.numberOf(i), statuses[i]);
        if (status == kOk) continue;
        anyFailed = true;
        current = mTag.wake();
    }
    mTag.leaveSelected(current == kOk);
    return anyFailed ? kPartial : kOk;
}

int BlockRun::read(const KeyUse& key, std::uint8_t* out, OpRecords& records) {
    return walk(records, [&](const SectorBlocks& blocks, int* statuses) {
        const int status = mTag.read(blocks, key, Login::anew, out, statuses);
        out += static_cast<std::size_t>(blocks.count) * mTag.blockSize();
        return status;
    });
}

int BlockRun::write(const KeyUse& key, std::span<const std::uint8_t> data, OpRecords& records) {
    return walk(records, [&](const SectorBlocks& blocks, int* statuses) {
        const std::size_t bytes = std::min(static_cast<std::size_t>(blocks.count) * mTag.blockSize(), data.size());
        const int status = mTag.write(blocks, key, Login::anew, data.first(bytes), statuses);
        data = data.subspan(bytes);
        return status;
    });
}

// Runs of data blocks, read and written sector by sector, so that each sector is authenticated once; reported block by
// block, so that a run can half succeed.

#include "BlockRuns.h"
#include "LogService.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "TagArguments.h"
#include "TagGeometry.h"

#include <algorithm>
#include <memory>

namespace {

constexpr int kBlockSize = 16;
constexpr int kMostBlocksInCall = 15;

int checkRun(TagAppType appType, const TagUID& tag, short appId, int startBlock) {
    if (appType != TagAppNone) return checkAppId(appType, appId);
    const int status = checkUserBlock(tag.getTagType(), startBlock);
    return status == kMemoryOk ? kOk : status;
}

// How many blocks one call may move: to the end of the sector, on a tag of pages up to three.
int roomIn(std::uint32_t type, int sector, int offset) {
    return (isLargeSector(type, sector) ? kLargeTrailer : kSmallTrailer) - offset;
}

/// Walks the sectors of a run, one call a step.
class RunWalk {
  public:
    RunWalk(const ResolvedRun& run, std::uint32_t type)
        : mRun(run), mType(type), mIndex(run.firstListIndex), mSector(run.sectors[run.firstListIndex]),
          mOffset(run.offset), mLeft(run.blockCount) {}

    bool atEnd() const { return mLeft <= 0 || mIndex >= mRun.sectors.count; }
    int sector() const { return mSector; }
    int offset() const { return mOffset; }
    int room() const { return std::min(roomIn(mType, mSector, mOffset), mLeft); }
    /// What stands in the record of a block: its absolute number, or its place in an application's run.
    short numberOf(int block) const {
        if (mRun.appType != TagAppNone) return static_cast<short>(mRun.blockCount - mLeft + block);
        return static_cast<std::uint8_t>(firstBlockOfSector(mType, mSector) + mOffset + block);
    }
    void next() {
        const int moved = room();
        mLeft -= moved;
        mOffset = 0;
        ++mIndex;
        if (mType == kTagUltralight)
            mSector += moved;
        else if (mIndex < mRun.sectors.count)
            mSector = mRun.sectors[mIndex];
    }

  private:
    const ResolvedRun& mRun;
    std::uint32_t mType;
    int mIndex;
    int mSector;
    int mOffset;
    int mLeft;
};

BlockResults resultsFor(const ResolvedRun& run) {
    BlockResults out;
    out.count = run.blockCount;
    out.records = std::make_unique<OpResultCode[]>(static_cast<std::size_t>(run.blockCount));
    return out;
}

void record(const RunWalk& walk, const int* statuses, BlockResults& out) {
    for (int i = 0; i < walk.room(); ++i)
        out.records[static_cast<std::size_t>(out.filled++)] = {walk.numberOf(i), statuses[i]};
}

int unresolved(const RunRequest& request, int status) {
    QVL_LOG(kLogFailure, "%s failed %d", request.isWrite ? "setBlockData" : "getBlockData", status);
    return status;
}

// The status forms: one entry a block from the records of the record form.
void copyStatuses(int* statuses, int count, const OpResultCode* records) {
    if (statuses == nullptr) return;
    for (int i = 0; i < count; ++i)
        statuses[i] = records[i].status;
}

}  // namespace

int QvlMf500ReaderImpl::resolveRun(const RunRequest& request, TagUID& tag, ResolvedRun& run) {
    run.appType = request.appType;
    int capacity = 0;
    if (request.appType != TagAppNone) {
        if (request.isWrite && tag.getTagType() == kTag4K) return kNotAllowedHere;
        if (request.isWrite && !hasTrailers(tag.getTagType())) return kNotAllowedHere;
        if (const int status = locateAppRange(static_cast<std::uint16_t>(request.appId), tag, request.madKey,
                                              request.startBlock, run.sectors, run.firstListIndex, run.offset);
            status != kOk) {
            QVL_LOG(kLogFailure, request.isWrite ? "setBlockData failed %d" : "getBlockData failed: %d", status);
            return unresolved(request, status);
        }
        capacity = -request.startBlock;
    } else {
        // The test before the lock saw the type that the caller's TagUID held.
        if (const int status = checkUserBlock(tag.getTagType(), request.startBlock); status != kMemoryOk)
            return unresolved(request, status);
        SectorRun sectors;
        if (const int status = blockRangeToSectors(tag.getTagType(), request.startBlock, request.blockCount, sectors);
            status != kOk)
            return unresolved(request, status);
        for (int i = 0; i < sectors.count; ++i)
            run.sectors.add(sectors.sector + i);
        run.offset = sectors.offset;
        capacity = -sectors.offset;
    }
    for (int i = 0; i < run.sectors.count; ++i)
        capacity += dataBlocksOf(tag.getTagType(), run.sectors[i]);
    run.blockCount = request.blockCount == kToTheEnd ? capacity : request.blockCount;
    return capacity < 0 || capacity < run.blockCount ? kTooFew : kOk;
}

int QvlMf500ReaderImpl::getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, int& resultCount, OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkRun(appType, tag, appId, startBlock); status != kOk) return status;
    if (blockCount < 0) return kOutOfRange;
    return operateOn("getBlockData", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        ResolvedRun run;
        const RunRequest request{appType, appId, startBlock, blockCount, directoryKey(madKey, madKeyMode), false};
        if (const int status = resolveRun(request, known, run); status != kOk) return frame.finish(status);
        const std::size_t size = static_cast<std::size_t>(run.blockCount) * tagInfoByType(known.getTagType()).blockSize;
        BlockResults out = resultsFor(run);
        auto bytes = std::make_unique<std::uint8_t[]>(size);
        const int status = readRun(run, known, {key, keyMode}, out, bytes.get());
        data = bytes.release();
        dataLength = static_cast<int>(size);
        resultCount = out.count;
        results = out.records.release();
        return frame.finish(status, out.current == kOk);
    });
}

int QvlMf500ReaderImpl::readRun(const ResolvedRun& run, TagUID& tag, const KeyUse& key, BlockResults& out,
                                std::uint8_t* data) {
    const std::size_t blockSize = tagInfoByType(tag.getTagType()).blockSize;
    for (RunWalk walk(run, tag.getTagType()); !walk.atEnd(); walk.next()) {
        int statuses[kMostBlocksInCall] = {};
        const int status = getBlock(tag, walk.sector(), key, walk.offset(), walk.room(), data, true, statuses);
        record(walk, statuses, out);
        data += static_cast<std::size_t>(walk.room()) * blockSize;
        if (status == kOk) continue;
        out.anyFailed = true;
        out.current = waitForTag(kWakeUpRequest, tag);
    }
    return out.anyFailed ? kPartial : kOk;
}

int QvlMf500ReaderImpl::setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, const std::uint8_t* fillBlock, int& resultCount,
                                     OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (dataLength < 0 || dataLength > blockCount * kBlockSize) return blockCount < 0 ? kOutOfRange : kDataTooLong;
    if (startBlock < 0 || blockCount < 0) return kOutOfRange;
    if (const int status = checkRun(appType, tag, appId, startBlock); status != kOk) return status;
    if (data == nullptr && dataLength > 0) return kReaderFailed;
    return operateOn("setBlockData", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        ResolvedRun run;
        const RunRequest request{appType, appId, startBlock, blockCount, directoryKey(madKey, madKeyMode), true};
        int status = resolveRun(request, known, run);
        const int size = run.blockCount * static_cast<int>(tagInfoByType(known.getTagType()).blockSize);
        if (status == kOk && dataLength > size) status = kDataTooLong;
        if (status != kOk) return frame.finish(status);
        std::unique_ptr<std::uint8_t[]> filled;
        if (fillBlock != nullptr) {
            filled = std::make_unique<std::uint8_t[]>(static_cast<std::size_t>(size));
            for (int i = 0; i < size; ++i)
                filled[static_cast<std::size_t>(i)] = fillBlock[i % kBlockSize];
            if (dataLength > 0) std::copy_n(data, dataLength, filled.get());
        }
        BlockResults out = resultsFor(run);
        status = writeRun(run, known, {key, keyMode}, out, filled ? filled.get() : data, filled ? size : dataLength);
        resultCount = out.count;
        results = out.records.release();
        return frame.finish(status, out.current == kOk);
    });
}

int QvlMf500ReaderImpl::writeRun(const ResolvedRun& run, TagUID& tag, const KeyUse& key, BlockResults& out,
                                 const std::uint8_t* data, int dataLength) {
    const int blockSize = static_cast<int>(tagInfoByType(tag.getTagType()).blockSize);
    int budget = dataLength;
    for (RunWalk walk(run, tag.getTagType()); !walk.atEnd(); walk.next()) {
        int statuses[kMostBlocksInCall] = {};
        const int bytes = std::min(walk.room() * blockSize, budget);
        const int status = setBlock(tag, walk.sector(), key, walk.offset(), walk.room(), data, bytes, true, statuses);
        record(walk, statuses, out);
        budget -= bytes;
        if (bytes > 0) data += bytes;
        if (status == kOk) continue;
        out.anyFailed = true;
        out.current = waitForTag(kWakeUpRequest, tag);
    }
    return out.anyFailed ? kPartial : kOk;
}

int QvlMf500ReaderImpl::getBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t*& data, int& dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, int* statuses) {
    int count = 0;
    OpResultCode* records = nullptr;
    const int status = getBlockData(readerId, appType, tag, appId, keyMode, key, startBlock, blockCount, data,
                                    dataLength, madKeyMode, madKey, count, records);
    copyStatuses(statuses, count, records);
    freeMemory(records);
    return status;
}

int QvlMf500ReaderImpl::setBlockData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                     AuthKeyMode keyMode, const std::uint8_t* key, short startBlock, short blockCount,
                                     std::uint8_t* data, int dataLength, AuthKeyMode madKeyMode,
                                     const std::uint8_t* madKey, int* statuses) {
    int count = 0;
    OpResultCode* records = nullptr;
    const int status = setBlockData(readerId, appType, tag, appId, keyMode, key, startBlock, blockCount, data,
                                    dataLength, madKeyMode, madKey, nullptr, count, records);
    copyStatuses(statuses, count, records);
    freeMemory(records);
    return status;
}

// Applications as a whole: created, extended, reduced, read and written. Without a directory the same operations act on
// a run of sectors by number.

#include "Guarded.h"
#include "LogService.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "SectorAccessBits.h"
#include "SectorChanges.h"
#include "TagArguments.h"
#include "TagGeometry.h"

#include <array>

namespace {

constexpr int kBlockSize = 16;

bool fits(const TagUID& tag, int first, int count) {
    return first >= 0 && isSectorInRange(tag.getTagType(), false, first + count);
}

}  // namespace

int QvlMf500ReaderImpl::initApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                const std::uint8_t* sectorKey, short, short sectorCount, const TagUID& tag,
                                const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access,
                                int& done, int& resultCount, OpResultCode*& results) {
    done = resultCount = 0;
    results = nullptr;
    if (appType == TagAppNone) return kNotAllowedHere;
    return changeApp(true, readerId, appType, refreshable(tag),
                     {appId, madKey, sectorKey, sectorCount, newKeyA, newKeyB, access}, done, resultCount, results);
}

int QvlMf500ReaderImpl::addAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                     const std::uint8_t* sectorKey, short, short sectorCount, const TagUID& tag,
                                     const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access,
                                     int& done, int& resultCount, OpResultCode*& results) {
    return changeApp(false, readerId, appType, refreshable(tag),
                     {appId, madKey, sectorKey, sectorCount, newKeyA, newKeyB, access}, done, resultCount, results);
}

int QvlMf500ReaderImpl::changeApp(bool isNew, int readerId, TagAppType appType, TagUID& tag,
                                  const AppSectorChange& change, int& done, int& resultCount, OpResultCode*& results) {
    done = resultCount = 0;
    results = nullptr;
    if (tag.getTagType() == kTag4K && appType != TagAppNone) return kNotAllowedHere;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (change.count < 0) return kTooFew;
    if (change.newKeyA == nullptr || change.newKeyB == nullptr) return kReaderFailed;
    return guarded(isNew ? "initApp" : "addAppSector", int{kReaderFailed}, [&]() -> int {
        OperationFrame frame(*this, readerId, tag);
        if (!frame.entered()) return frame.status();
        if (!hasTrailers(tag.getTagType())) return frame.finish(kNotAllowedHere);
        SectorResults out;
        const int status =
            appType == TagAppNone ? addPlainSectors(change, tag, out) : addMADAppSector(change, tag, isNew, out);
        const bool tagIsSelected = status == kOk || (status == kPartial && out.lastStatus() == kOk);
        done = out.done;
        resultCount = out.tried;
        results = out.records.release();
        return frame.finish(status, tagIsSelected);
    });
}

int QvlMf500ReaderImpl::addPlainSectors(const AppSectorChange& change, TagUID& tag, SectorResults& out) {
    if (!fits(tag, change.appId, change.count)) return kTooFew;
    out.records = std::make_unique<OpResultCode[]>(static_cast<std::size_t>(change.count));
    for (int i = 0; i < change.count; ++i) {
        const int sector = change.appId + i;
        const int status = addPlainSector(change, tag, sector, i + 1 == change.count);
        out.add(sector, status);
        if (status == kOk) ++out.done;
    }
    return out.done == change.count ? kOk : kPartial;
}

int QvlMf500ReaderImpl::addPlainSector(const AppSectorChange& change, TagUID& tag, int sector, bool isLast) {
    const KeyUse key{change.sectorKey != nullptr ? change.sectorKey : FactoryKey.data(), AuthKeyB};
    const int offset = trailerOffsetOf(tag.getTagType(), sector);
    int lastCleared = kOk;
    const int cleared = clearDataBlocks(tag, sector, key, lastCleared);
    Trailer old;
    if (const int status = getBlock(tag, sector, key, offset, 1, old.data(), true, nullptr); status != kOk)
        return status;
    if (!SectorAccessBits(old.access()).isValid()) return kAccessRefused;
    setDataConditions(old.access(), change.access);
    const Trailer trailer(change.newKeyA, {old.access()[0], old.access()[1], old.access()[2]}, kPlainGeneralPurpose,
                          change.newKeyB);
    const int status = setBlock(tag, sector, key, offset, 1, trailer.data(), kBlockSize, false, nullptr);
    if (status != kOk && !isLast) waitForTag(kWakeUpRequest, tag);
    return status != kOk ? status : cleared;
}

// Each block by itself and without authenticating first: the retry of the first one wakes the tag and authenticates.
// @return the status of the last block that failed; `lastStatus` is that of the last block.
int QvlMf500ReaderImpl::clearDataBlocks(TagUID& tag, int sector, const KeyUse& key, int& lastStatus) {
    constexpr std::uint8_t kZero[kBlockSize] = {};
    int failure = kOk;
    const int end = trailerOffsetOf(tag.getTagType(), sector);
    for (int block = sector == 0 ? 1 : 0; block < end; ++block) {
        lastStatus = setBlock(tag, sector, key, block, 1, kZero, kBlockSize, false, nullptr);
        if (lastStatus != kOk) failure = lastStatus;
    }
    return failure;
}

int QvlMf500ReaderImpl::removeAppSector(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                        short, short startIndex, short sectorCount, const TagUID& tag,
                                        AuthKeyMode keyMode, const std::uint8_t* key, const std::uint8_t* newKeyA,
                                        const std::uint8_t* newKeyB, int* statuses) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (sectorCount < 0) return kTooFew;
    if (appType != TagAppNone && startIndex < 0) return kOutOfRange;
    return guarded("removeAppSector", int{kReaderFailed}, [&]() -> int {
        TagUID& known = refreshable(tag);
        OperationFrame frame(*this, readerId, known);
        if (!frame.entered()) return frame.status() == kReaderNotReady ? kReaderNotReady : kNoTag;
        if (!hasTrailers(known.getTagType())) return frame.finish(kNotAllowedHere);
        const AppSectorRemoval removal{appId,          madKey,  startIndex, sectorCount,
                                       {key, keyMode}, newKeyA, newKeyB,    statuses};
        int last = kReaderFailed;
        const int status =
            appType == TagAppNone ? removePlainSectors(removal, known, last) : removeMADAppSector(removal, known, last);
        return frame.finish(status, status == kOk || (status == kPartial && last == kOk));
    });
}

int QvlMf500ReaderImpl::removePlainSectors(const AppSectorRemoval& removal, TagUID& tag, int& lastStatus) {
    if (!fits(tag, removal.appId, removal.count)) return kTooFew;
    if (removal.newKeyB == nullptr) return kNewKeyMissing;
    const Trailer trailer(removal.newKeyA != nullptr ? removal.newKeyA : FactoryKey.data(), accessbits::kFormatted,
                          kPlainGeneralPurpose, removal.newKeyB);
    bool anyFailed = false;
    for (int i = 0; i < removal.count; ++i) {
        const int sector = removal.appId + i;
        int lastCleared = kOk;
        clearDataBlocks(tag, sector, removal.key, lastCleared);
        const int offset = trailerOffsetOf(tag.getTagType(), sector);
        lastStatus = setBlock(tag, sector, removal.key, offset, 1, trailer.data(), kBlockSize, true, nullptr);
        if (removal.statuses != nullptr) removal.statuses[i] = lastStatus;
        if (lastStatus == kOk) continue;
        anyFailed = true;
        if (i + 1 < removal.count) waitForTag(kWakeUpRequest, tag);
    }
    return anyFailed ? kPartial : kOk;
}

int QvlMf500ReaderImpl::resetApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                 short spareShort, short sectorCount, const TagUID& tag, AuthKeyMode keyMode,
                                 const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                                 int* statuses) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return removeAppSector(readerId, appType, appId, madKey, spareShort, 0, sectorCount, tag, keyMode, key, newKeyA,
                           newKeyB, statuses);
}

int QvlMf500ReaderImpl::getAppData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, std::uint8_t*& data, int& dataLength,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                                   OpResultCode*& results) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return getBlockData(readerId, appType, tag, appId, keyMode, key, 0, kToTheEnd, data, dataLength, madKeyMode, madKey,
                        resultCount, results);
}

int QvlMf500ReaderImpl::setAppData(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                   AuthKeyMode keyMode, const std::uint8_t* key, std::uint8_t* data, int dataLength,
                                   AuthKeyMode madKeyMode, const std::uint8_t* madKey, const std::uint8_t* fillBlock,
                                   int& resultCount, OpResultCode*& results) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return setBlockData(readerId, appType, tag, appId, keyMode, key, 0, kToTheEnd, data, dataLength, madKeyMode, madKey,
                        fillBlock, resultCount, results);
}

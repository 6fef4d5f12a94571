// Who may do what on a tag: access conditions of blocks and sectors, and keys. Every change of a trailer writes all of
// it, and key A cannot be read back, so it comes from the caller each time.

#include "BlockRuns.h"
#include "LogService.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "SectorAccessBits.h"
#include "SectorChanges.h"
#include "TagArguments.h"
#include "TagGeometry.h"
#include "ValueBlock.h"

#include <algorithm>
#include <array>
#include <memory>

namespace {

constexpr int kBlockSize = 16;
constexpr int kMostSectorNumbers = 256;  // they are bytes

constexpr short kRefusedKind = 2050;
constexpr short kDataKind = 2051;
constexpr short kValueKind = 2052;

int checkKind(short blockKind, DataAccControl access, unsigned value) {
    switch (blockKind) {
    case kRefusedKind:
        return kBlockKindRefused;
    case kDataKind:
        return access > AccData000 || access < AccData010 ? kNoDataCondition : kOk;
    case kValueKind:
        if (!isValueCode(access)) return kNoValueBlock;
        return access == AccData001 && value == 0 ? kZeroValue : kOk;
    default:
        return kOk;
    }
}

// The bytes that a whole sector gets by setTrailerBlockType.
const std::array<std::uint8_t, accessbits::kSize>* trailerBytesOf(DataAccControl access) {
    if (access == AccTrailer001) return &accessbits::kFactory;
    return access == AccTrailer011 ? &accessbits::kFormatted : nullptr;
}

}  // namespace

/// What setDataBlockType does to one block.
struct BlockTypeChange {
    const std::uint8_t* newKeyA;
    const std::uint8_t* keyB;
    short blockKind;
    DataAccControl access;
    std::int32_t value;
};

int QvlMf500ReaderImpl::setDataBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                         const std::uint8_t* newKeyA, const std::uint8_t* keyB, short block,
                                         short blockKind, DataAccControl access, unsigned int value,
                                         AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    if (const int status = checkKind(blockKind, access, value); status != kOk) return status;
    if (appType == TagAppNone) {
        if (const int status = checkUserBlock(tag.getTagType(), block); status != kMemoryOk) return status;
    }
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkAppId(appType, appId); status != kOk) return status;
    if (newKeyA == nullptr || keyB == nullptr) return kReaderFailed;
    return operateOn("setDataBlockType", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        int sector = 0, blockInSector = 0;
        int status =
            locateBlock({appType, appId, block, directoryKey(madKey, madKeyMode)}, known, sector, blockInSector);
        if (status != kOk && status != kNotAllowedHere && appType != TagAppNone) {
            QVL_LOG(kLogFailure, "setDataBlockType failed %d", status);
            status = kApplicationMissing;
        }
        if (status != kOk) return frame.finish(status);
        const int address = appType == TagAppNone ? 0 : firstBlockOfSector(known.getTagType(), sector) + blockInSector;
        const BlockTypeChange change{newKeyA, keyB, blockKind, access, static_cast<std::int32_t>(value)};
        return frame.finish(changeBlockType(change, known, sector, blockInSector, static_cast<std::uint8_t>(address)));
    });
}

int QvlMf500ReaderImpl::changeBlockType(const BlockTypeChange& change, TagUID& tag, int sector, int blockInSector,
                                        std::uint8_t addressByte) {
    const KeyUse key{change.keyB, AuthKeyB};
    const int offset = trailerOffsetOf(tag.getTagType(), sector);
    const auto writeTrailer = [&](const Trailer& trailer) {
        return setBlock(tag, sector, key, offset, 1, trailer.data(), kBlockSize, false, nullptr);
    };
    Trailer trailer;
    if (const int status = getBlock(tag, sector, key, offset, 1, trailer.data(), true, nullptr); status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed: reading trailer block err=%d", status);
        return kTrailerNotRead;
    }
    const SectorAccessBits present(trailer.access());
    if (!present.isValid()) return kAccessRefused;
    trailer.setKeyA(change.newKeyA);
    trailer.setKeyB(change.keyB);
    const int group = accessGroupOf(tag.getTagType(), sector, blockInSector);
    if (isClosedToKeyB(present.getBlockCondition(tag.getTagType(), sector, blockInSector))) {
        setBlockCondition(trailer.access(), group, AccData100);
        if (const int status = writeTrailer(trailer); status != kOk) {
            QVL_LOG(kLogFailure, "setDataBlockType failed: writing trailer block error=%d", status);
            return kBlockNotOpened;
        }
    }
    std::uint8_t content[kBlockSize] = {};
    if (change.blockKind == kValueKind) encodeValueBlock(change.value, addressByte, content);
    if (const int status = setBlock(tag, sector, key, blockInSector, 1, content, kBlockSize, false, nullptr);
        status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed %d", status);
        return kTypeNotWritten;
    }
    setBlockCondition(trailer.access(), group, change.access);
    if (const int status = writeTrailer(trailer); status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed: %d", status);
        return kTypeNotWritten;
    }
    return kOk;
}

int QvlMf500ReaderImpl::listSectors(TagAppType appType, short appId, TagUID& tag, const KeyUse& madKey, int sectorCount,
                                    SectorList& list) {
    if (appType != TagAppNone) return findAppSectors(static_cast<std::uint16_t>(appId), tag, madKey, list);
    for (int i = 0; i < sectorCount; ++i)
        list.add(appId + i);
    return kOk;
}

template <typename Change>
int QvlMf500ReaderImpl::changeTrailers(const TrailerChange& change, TagUID& tag, int& resultCount,
                                       OpResultCode*& results, bool& tagIsSelected, Change changeOne) {
    SectorList list;
    if (const int status = listSectors(change.appType, change.appId, tag, change.madKey, change.sectorCount, list);
        status != kOk) {
        QVL_LOG(kLogFailure, "%s failed: %d", change.operation, status);
        return status;
    }
    auto records = std::make_unique<OpResultCode[]>(static_cast<std::size_t>(list.count));
    bool anyFailed = false;
    int current = kOk;
    for (int i = 0; i < list.count; ++i) {
        const int sector = list[i];
        current = isSectorInRange(tag.getTagType(), true, sector)
                      ? changeOne(sector, trailerOffsetOf(tag.getTagType(), sector))
                      : int{kOutOfRange};
        records[static_cast<std::size_t>(i)] = {static_cast<short>(sector), current};
        if (current == kOk) continue;
        anyFailed = true;
        if (i + 1 < list.count) current = waitForTag(kWakeUpRequest, tag);
    }
    resultCount = list.count;
    results = records.release();
    tagIsSelected = current == kOk;
    return anyFailed ? kPartial : kOk;
}

int QvlMf500ReaderImpl::setTrailerBlockType(int readerId, TagAppType appType, short appId, const TagUID& tag,
                                            AuthKeyMode keyMode, const std::uint8_t* keyA, const std::uint8_t* keyB,
                                            DataAccControl access, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                            short sectorCount, int& resultCount, OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkAppId(appType, appId); status != kOk) return status;
    const auto* bytes = trailerBytesOf(access);
    if (bytes == nullptr) return kAccessRefused;
    if (keyA == nullptr || keyB == nullptr) return kReaderFailed;
    const int count = std::max<int>(sectorCount, 1);
    // What is no sector of the tag fails by itself, with a record; only what no list can hold is refused.
    if (appType == TagAppNone && (appId < 0 || count > kSectors4K || appId + count > kMostSectorNumbers))
        return kTooFew;
    return operateOn("setTrailerBlockType", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        if (!hasTrailers(known.getTagType())) return frame.finish(kNotAllowedHere);
        const KeyUse key{keyMode == AuthKeyA ? keyA : keyB, keyMode};
        const Trailer trailer(keyA, *bytes, kPlainGeneralPurpose, keyB);
        bool tagIsSelected = false;
        const int status = changeTrailers(
            {"setTrailerBlockType", appType, appId, count, directoryKey(madKey, madKeyMode)}, known, resultCount,
            results, tagIsSelected, [&](int sector, int offset) {
                return setBlock(known, sector, key, offset, 1, trailer.data(), kBlockSize, true, nullptr);
            });
        return frame.finish(status, tagIsSelected);
    });
}

int QvlMf500ReaderImpl::setKey(int readerId, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
                               const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                               short sectorCount, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                               OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    const int count = std::max<int>(sectorCount, 1);
    if (appType == TagAppNone && (appId < 0 || !isSectorInRange(tag.getTagType(), false, appId + count)))
        return kTooFew;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkAppId(appType, appId); status != kOk) return status;
    if (newKeyA == nullptr || newKeyB == nullptr) return kReaderFailed;
    return operateOn("setKey", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        if (!hasTrailers(known.getTagType())) return frame.finish(kNotAllowedHere);
        const KeyUse use{key, keyMode};
        bool tagIsSelected = false;
        const int status = changeTrailers(
            {"setKey", appType, appId, count, directoryKey(madKey, madKeyMode)}, known, resultCount, results,
            tagIsSelected, [&](int sector, int offset) {
                Trailer trailer;
                int read = getBlock(known, sector, use, offset, 1, trailer.data(), true, nullptr);
                if (read == kOk && !SectorAccessBits(trailer.access()).isValid()) read = kAccessRefused;
                if (read != kOk) return read;
                trailer.setKeyA(newKeyA);
                trailer.setKeyB(newKeyB);
                return setBlock(known, sector, use, offset, 1, trailer.data(), kBlockSize, false, nullptr);
            });
        return frame.finish(status, tagIsSelected);
    });
}

int QvlMf500ReaderImpl::getBlockAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                           AuthKeyMode keyMode, const std::uint8_t* key, int block,
                                           DataAccControl& access, AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkAppId(appType, appId); status != kOk) return status;
    return operateOn("getBlockAccessMode", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        int sector = 0, blockInSector = 0;
        int status =
            locateBlock({appType, appId, block, directoryKey(madKey, madKeyMode), true}, known, sector, blockInSector);
        if (status != kOk && status != kNotAllowedHere && appType != TagAppNone) {
            QVL_LOG(kLogFailure, "getAccessMode failed %d", status);
            status = kDirectoryNotRead;
        }
        if (status == kOk) status = getAccessCode(known, sector, {key, keyMode}, blockInSector, access);
        return frame.finish(status);
    });
}

int QvlMf500ReaderImpl::getSectorAccessMode(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                            AuthKeyMode keyMode, const std::uint8_t* key, short sectorIndex,
                                            DataAccControl* conditions, AuthKeyMode madKeyMode,
                                            const std::uint8_t* madKey) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (const int status = checkAppId(appType, appId); status != kOk) return status;
    if (conditions == nullptr) return kReaderFailed;
    if (appType != TagAppNone && sectorIndex < 0) return kOutOfRange;
    return operateOn("getSectorAccessMode", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        if (!hasTrailers(known.getTagType())) return frame.finish(kNotAllowedHere);
        int sector = appId;
        if (appType == TagAppNone) {
            if (!isSectorInRange(known.getTagType(), false, sector)) return frame.finish(kOutOfRange);
        } else {
            SectorList list;
            if (const int status =
                    findAppSectors(static_cast<std::uint16_t>(appId), known, directoryKey(madKey, madKeyMode), list);
                status != kOk) {
                QVL_LOG(kLogFailure, "getSectorAccessMode failed %d", status);
                return frame.finish(kDirectoryNotRead);
            }
            if (sectorIndex >= list.count) return frame.finish(kOutOfRange);
            sector = list[sectorIndex];
        }
        Trailer trailer;
        int offset = 0;
        if (getTrailerOffset(known.getTagType(), sector, offset) == kNoSuchSector) return frame.finish(kOutOfRange);
        offset = trailerOffsetOf(known.getTagType(), sector);
        if (getBlock(known, sector, {key, keyMode}, offset, 1, trailer.data(), true, nullptr) != kOk)
            return frame.finish(kTrailerNotRead);
        const SectorAccessBits bits(trailer.access());
        if (!bits.isValid()) return frame.finish(kAccessRefused);
        bits.getSectorConditions(conditions);
        return frame.finish(kOk);
    });
}

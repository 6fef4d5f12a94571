// Value blocks, access conditions and keys: what the host asks for is checked here and done in tagops/.

#include "AccessRules.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"
#include "TagOperation.h"
#include "Values.h"

#include <algorithm>
#include <array>

namespace {

constexpr int kMostSectorNumbers = 256;  // they are bytes

constexpr short kRefusedKind = 2050;
constexpr short kDataKind = 2051;
constexpr short kValueKind = 2052;

int checkBlock(TagAppType appType, const TagUID& tag, short appId, int block) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (appType != TagAppNone) return checkAppId(appType, appId);
    const int status = checkUserBlock(tag.getTagType(), block);
    return status == kMemoryOk ? kOk : status;
}

int checkSectors(TagAppType appType, const TagUID& tag, short appId) {
    const int status = checkTag(tag);
    return status != kOk ? status : checkAppId(appType, appId);
}

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

int QvlMf500ReaderImpl::getValue(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                 const std::uint8_t* key, int block, int& value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey) {
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    return operateOn("getValue", tag, [&](SelectedTag& selected) {
        return Values(selected).get({appType, appId, block, directoryKey(madKey, madKeyMode)}, {key, keyMode}, value);
    });
}

int QvlMf500ReaderImpl::setValue(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                 const std::uint8_t* key, int block, int value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey) {
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    return operateOn("setValue", tag, [&](SelectedTag& selected) {
        return Values(selected).set({appType, appId, block, directoryKey(madKey, madKeyMode)}, {key, keyMode}, value);
    });
}

int QvlMf500ReaderImpl::adjustValue(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                    const std::uint8_t* key, int block, ValueBlockOper operation, unsigned int amount,
                                    int transferBlock, AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    if (operation != ValueIncrement && operation != ValueDecrement) return kNotAllowedHere;
    return operateOn("adjustValue", tag, [&](SelectedTag& selected) {
        return Values(selected).adjust({appType, appId, block, directoryKey(madKey, madKeyMode)}, {key, keyMode},
                                       operation, amount, transferBlock);
    });
}

int QvlMf500ReaderImpl::initDecrementOnlyBlock(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                               const std::uint8_t* newKeyA, const std::uint8_t* keyB, int block,
                                               int value, AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    // No tag has a block beyond 16 bits, and none at their ends.
    const int narrowed = std::clamp<int>(block, INT16_MIN, INT16_MAX);
    return setDataBlockType(readerId, appType, appId, tag, newKeyA, keyB, static_cast<short>(narrowed), kValueKind,
                            AccData001, static_cast<unsigned>(value), madKeyMode, madKey);
}

int QvlMf500ReaderImpl::setDataBlockType(int, TagAppType appType, short appId, const TagUID& tag,
                                         const std::uint8_t* newKeyA, const std::uint8_t* keyB, short block,
                                         short blockKind, DataAccControl access, unsigned int value,
                                         AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    if (const int status = checkKind(blockKind, access, value); status != kOk) return status;
    if (appType == TagAppNone) {
        if (const int status = checkUserBlock(tag.getTagType(), block); status != kMemoryOk) return status;
    }
    if (const int status = checkSectors(appType, tag, appId); status != kOk) return status;
    if (newKeyA == nullptr || keyB == nullptr) return kReaderFailed;
    return operateOn("setDataBlockType", tag, [&](SelectedTag& selected) {
        return AccessRules(selected).setBlockType(
            {appType, appId, block, directoryKey(madKey, madKeyMode)},
            {newKeyA, keyB, access, blockKind == kValueKind, static_cast<std::int32_t>(value)});
    });
}

int QvlMf500ReaderImpl::setTrailerBlockType(int, TagAppType appType, short appId, const TagUID& tag,
                                            AuthKeyMode keyMode, const std::uint8_t* keyA, const std::uint8_t* keyB,
                                            DataAccControl access, AuthKeyMode madKeyMode, const std::uint8_t* madKey,
                                            short sectorCount, int& resultCount, OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    if (const int status = checkSectors(appType, tag, appId); status != kOk) return status;
    const auto* bytes = trailerBytesOf(access);
    if (bytes == nullptr) return kAccessRefused;
    if (keyA == nullptr || keyB == nullptr) return kReaderFailed;
    const int count = std::max<int>(sectorCount, 1);
    // What is no sector of the tag fails by itself, with a record; only what no list can hold is refused.
    if (appType == TagAppNone && (appId < 0 || count > kSectors4K || appId + count > kMostSectorNumbers))
        return kTooFew;
    return operateOn("setTrailerBlockType", tag, [&](SelectedTag& selected) {
        const TrailerChange change{"setTrailerBlockType",
                                   appType,
                                   appId,
                                   count,
                                   directoryKey(madKey, madKeyMode),
                                   {keyMode == AuthKeyA ? keyA : keyB, keyMode}};
        OpRecords records;
        const int status = AccessRules(selected).setTrailers(change, keyA, keyB, *bytes, records);
        records.release(resultCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::setKey(int, TagAppType appType, short appId, const TagUID& tag, AuthKeyMode keyMode,
                               const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                               short sectorCount, AuthKeyMode madKeyMode, const std::uint8_t* madKey, int& resultCount,
                               OpResultCode*& results) {
    resultCount = 0;
    results = nullptr;
    const int count = std::max<int>(sectorCount, 1);
    if (appType == TagAppNone && (appId < 0 || !isSectorInRange(tag.getTagType(), false, appId + count)))
        return kTooFew;
    if (const int status = checkSectors(appType, tag, appId); status != kOk) return status;
    if (newKeyA == nullptr || newKeyB == nullptr) return kReaderFailed;
    return operateOn("setKey", tag, [&](SelectedTag& selected) {
        const TrailerChange change{"setKey", appType, appId, count, directoryKey(madKey, madKeyMode), {key, keyMode}};
        OpRecords records;
        const int status = AccessRules(selected).setKeys(change, newKeyA, newKeyB, records);
        records.release(resultCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::getBlockAccessMode(int, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                           const std::uint8_t* key, int block, DataAccControl& access,
                                           AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    if (const int status = checkSectors(appType, tag, appId); status != kOk) return status;
    return operateOn("getBlockAccessMode", tag, [&](SelectedTag& selected) {
        return AccessRules(selected).conditionOf({appType, appId, block, directoryKey(madKey, madKeyMode), true},
                                                 {key, keyMode}, access);
    });
}

int QvlMf500ReaderImpl::getSectorAccessMode(int, TagAppType appType, const TagUID& tag, short appId,
                                            AuthKeyMode keyMode, const std::uint8_t* key, short sectorIndex,
                                            DataAccControl* conditions, AuthKeyMode madKeyMode,
                                            const std::uint8_t* madKey) {
    if (const int status = checkSectors(appType, tag, appId); status != kOk) return status;
    if (conditions == nullptr) return kReaderFailed;
    if (appType != TagAppNone && sectorIndex < 0) return kOutOfRange;
    return operateOn("getSectorAccessMode", tag, [&](SelectedTag& selected) {
        return AccessRules(selected).sectorConditions(appType, appId, sectorIndex, directoryKey(madKey, madKeyMode),
                                                      {key, keyMode}, conditions);
    });
}

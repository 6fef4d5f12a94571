// Value blocks: a signed number that the tag itself counts up and down. The tag's own commands are never repeated: when
// the answer is lost, nobody knows whether the change took place.

#include "BlockRuns.h"
#include "ByteHelpers.h"
#include "LogService.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "SectorAccessBits.h"
#include "SectorChanges.h"
#include "TagArguments.h"
#include "TagGeometry.h"
#include "ValueBlock.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr int kBlockSize = 16;
constexpr short kValueBlockKind = 2052;
constexpr int kSameBlock = -1;

constexpr std::uint8_t kIncrement = 0xC1;
constexpr std::uint8_t kDecrement = 0xC0;

int checkBlock(TagAppType appType, const TagUID& tag, short appId, int block) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (appType != TagAppNone) return checkAppId(appType, appId);
    const int status = checkUserBlock(tag.getTagType(), block);
    return status == kMemoryOk ? kOk : status;
}

std::uint8_t addressOf(const TagUID& tag, int sector, int blockInSector) {
    return static_cast<std::uint8_t>(firstBlockOfSector(tag.getTagType(), sector) + blockInSector);
}

int logged(const char* operation, int status) {
    if (status != kOk) QVL_LOG(kLogFailure, "%s failed %d", operation, status);
    return status;
}

}  // namespace

int QvlMf500ReaderImpl::locateBlock(const BlockAddress& address, TagUID& tag, int& sector, int& blockInSector) {
    if (!hasTrailers(tag.getTagType())) return kNotAllowedHere;
    if (address.appType == TagAppNone) {
        // The test before the lock saw the type that the caller's TagUID held.
        const int status = address.mayBeTrailer ? int{kMemoryOk} : checkUserBlock(tag.getTagType(), address.block);
        if (status != kMemoryOk) return status;
        return blockToSector(tag.getTagType(), address.block, sector, blockInSector);
    }
    return locateAppBlock(static_cast<std::uint16_t>(address.appId), tag, address.madKey, address.block, sector,
                          blockInSector);
}

int QvlMf500ReaderImpl::getAccessCode(TagUID& tag, int sector, const KeyUse& key, int blockInSector,
                                      DataAccControl& code) {
    code = AccInvalid;
    Trailer trailer;
    const int offset = trailerOffsetOf(tag.getTagType(), sector);
    if (getBlock(tag, sector, key, offset, 1, trailer.data(), true, nullptr) != kOk) return kTrailerNotRead;
    const SectorAccessBits bits(trailer.access());
    if (!bits.isValid()) return kAccessRefused;
    code = bits.getBlockCondition(tag.getTagType(), sector, blockInSector);
    return kOk;
}

int QvlMf500ReaderImpl::checkHoldsValue(TagUID& tag, int sector, const KeyUse& key, int blockInSector) {
    DataAccControl code = AccInvalid;
    if (const int status = getAccessCode(tag, sector, key, blockInSector, code); status != kOk) return status;
    return isValueCode(code) ? kOk : kNoValueBlock;
}

int QvlMf500ReaderImpl::getValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                 const std::uint8_t* key, int block, int& value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey) {
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    return operateOn("getValue", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        const KeyUse dataKey{key, keyMode};
        int sector = 0, blockInSector = 0;
        int status =
            locateBlock({appType, appId, block, directoryKey(madKey, madKeyMode)}, known, sector, blockInSector);
        if (status != kOk && status != kNotAllowedHere && appType != TagAppNone) {
            logged("getValue", status);
            status = kDirectoryNotRead;
        }
        if (status == kOk) status = checkHoldsValue(known, sector, dataKey, blockInSector);
        if (status != kOk) return frame.finish(logged("getValue", status));

        std::uint8_t bytes[kBlockSize] = {};
        if (getBlock(known, sector, dataKey, blockInSector, 1, bytes, false, nullptr) != kOk)
            return frame.finish(kValueNotRead);
        value = decodeValue(bytes);
        return frame.finish(isSoundValueBlock(bytes) ? kOk : kValueInconsistent);
    });
}

int QvlMf500ReaderImpl::setValue(int readerId, TagAppType appType, const TagUID& tag, short appId, AuthKeyMode keyMode,
                                 const std::uint8_t* key, int block, int value, AuthKeyMode madKeyMode,
                                 const std::uint8_t* madKey) {
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    return operateOn("setValue", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        const KeyUse dataKey{key, keyMode};
        int sector = 0, blockInSector = 0;
        int status =
            locateBlock({appType, appId, block, directoryKey(madKey, madKeyMode)}, known, sector, blockInSector);
        if (status == kOk) status = checkHoldsValue(known, sector, dataKey, blockInSector);
        if (status == kOk) {
            std::uint8_t bytes[kBlockSize];
            encodeValueBlock(value, addressOf(known, sector, blockInSector), bytes);
            status = setBlock(known, sector, dataKey, blockInSector, 1, bytes, kBlockSize, false, nullptr);
        }
        return frame.finish(logged("setValue", status));
    });
}

int QvlMf500ReaderImpl::adjustValue(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                    AuthKeyMode keyMode, const std::uint8_t* key, int block, ValueBlockOper operation,
                                    unsigned int amount, int transferBlock, AuthKeyMode madKeyMode,
                                    const std::uint8_t* madKey) {
    constexpr const char* kName = "incrementValue";  // of both directions
    if (const int status = checkBlock(appType, tag, appId, block); status != kOk) return status;
    if (operation != ValueIncrement && operation != ValueDecrement) return kNotAllowedHere;
    return operateOn("adjustValue", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        const KeyUse directory = directoryKey(madKey, madKeyMode);
        int sector = 0, blockInSector = 0;
        if (const int status = locateBlock({appType, appId, block, directory}, known, sector, blockInSector);
            status != kOk)
            return frame.finish(logged(kName, status));
        const std::uint8_t address = addressOf(known, sector, blockInSector);
        std::uint8_t transfer = address;
        if (transferBlock != kSameBlock && appType == TagAppNone) {
            transfer = static_cast<std::uint8_t>(transferBlock);
        } else if (transferBlock != kSameBlock) {
            if (const int status =
                    locateBlock({appType, appId, transferBlock, directory}, known, sector, blockInSector);
                status != kOk) {
                QVL_LOG(kLogFailure, "incrementValue failed with transfer address %d", status);
                return frame.finish(status);
            }
            transfer = addressOf(known, sector, blockInSector);
        }
        if (const int status = authenticateKey(known, address, {key, keyMode}); status != kOk)
            return frame.finish(status);
        std::uint8_t bytes[4];
        valueToBytes(static_cast<std::int32_t>(amount), bytes);
        const std::uint8_t command = operation == ValueIncrement ? kIncrement : kDecrement;
        if (const short status = driver()->piccValue(command, address, bytes, transfer); status != kBflOk) {
            logged(kName, status);
            return frame.finish(kValueFailed);
        }
        return frame.finish(kOk);
    });
}

int QvlMf500ReaderImpl::initDecrementOnlyBlock(int readerId, TagAppType appType, const TagUID& tag, short appId,
                                               const std::uint8_t* newKeyA, const std::uint8_t* keyB, int block,
                                               int value, AuthKeyMode madKeyMode, const std::uint8_t* madKey) {
    // No tag has a block beyond 16 bits, and none at their ends.
    const int narrowed = std::clamp<int>(block, INT16_MIN, INT16_MAX);
    return setDataBlockType(readerId, appType, appId, tag, newKeyA, keyB, static_cast<short>(narrowed), kValueBlockKind,
                            AccData001, static_cast<unsigned>(value), madKeyMode, madKey);
}

#include "Values.h"

#include "AccessRules.h"
#include "ByteHelpers.h"
#include "LogService.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"
#include "TagSizes.h"
#include "ValueBlock.h"

namespace {

constexpr int kSameBlock = -1;
constexpr std::uint8_t kIncrement = 0xC1;
constexpr std::uint8_t kDecrement = 0xC0;

int logged(const char* operation, int status) {
    if (status != kOk) QVL_LOG(kLogFailure, "%s failed %d", operation, status);
    return status;
}

}  // namespace

std::uint8_t Values::addressOf(int sector, int blockInSector) const {
    return static_cast<std::uint8_t>(firstBlockOfSector(mTag.type(), sector) + blockInSector);
}

int Values::checkHoldsValue(const KeyUse& key, int sector, int blockInSector) {
    DataAccControl code = AccInvalid;
    const int status = AccessRules(mTag).conditionOf(key, sector, blockInSector, code);
    if (status != kOk) return status;
    return isValueCode(code) ? kOk : kNoValueBlock;
}

int Values::get(const BlockAddress& address, const KeyUse& key, int& value) {
    int sector = 0, blockInSector = 0;
    int status = locateBlock(mTag, address, sector, blockInSector);
    if (status != kOk && status != kNotAllowedHere && address.appType != TagAppNone) {
        logged("getValue", status);
        status = kDirectoryNotRead;
    }
    if (status == kOk) status = checkHoldsValue(key, sector, blockInSector);
    if (status != kOk) return logged("getValue", status);

    std::uint8_t bytes[kBlockSize] = {};
    if (mTag.read({sector, blockInSector, 1}, key, Login::asIs, bytes) != kOk) return kValueNotRead;
    value = decodeValue(bytes);
    return isSoundValueBlock(bytes) ? kOk : kValueInconsistent;
}

int Values::set(const BlockAddress& address, const KeyUse& key, int value) {
    int sector = 0, blockInSector = 0;
    int status = locateBlock(mTag, address, sector, blockInSector);
    if (status == kOk) status = checkHoldsValue(key, sector, blockInSector);
    if (status == kOk) {
        std::uint8_t bytes[kBlockSize];
        encodeValueBlock(value, addressOf(sector, blockInSector), bytes);
        status = mTag.write({sector, blockInSector, 1}, key, Login::asIs, bytes);
    }
    return logged("setValue", status);
}

// The log names one direction for both.
int Values::adjust(const BlockAddress& address, const KeyUse& key, ValueBlockOper operation, unsigned amount,
                   int transferBlock) {
    int sector = 0, blockInSector = 0;
    if (const int status = locateBlock(mTag, address, sector, blockInSector); status != kOk)
        return logged("incrementValue", status);
    const std::uint8_t block = addressOf(sector, blockInSector);
    std::uint8_t transfer = block;
    if (transferBlock != kSameBlock) {
        if (const int status = locateTransfer(address, transferBlock, transfer); status != kOk) return status;
    }
    if (const int status = mTag.authenticate(block, key); status != kOk) return status;
    return mTag.changeValue(operation == ValueIncrement ? kIncrement : kDecrement, block,
                            static_cast<std::int32_t>(amount), transfer);
}

int Values::locateTransfer(const BlockAddress& address, int transferBlock, std::uint8_t& transfer) {
    if (address.appType == TagAppNone) {
        transfer = static_cast<std::uint8_t>(transferBlock);
        return kOk;
    }
    int sector = 0, blockInSector = 0;
    const int status =
        locateBlock(mTag, {address.appType, address.appId, transferBlock, address.madKey}, sector, blockInSector);
    if (status != kOk)
        QVL_LOG(kLogFailure, "incrementValue failed with transfer address %d", status);
    else
        transfer = addressOf(sector, blockInSector);
    return status;
}

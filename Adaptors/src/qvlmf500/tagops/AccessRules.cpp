#include "AccessRules.h"

#include "LogService.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"
#include "TagSizes.h"
#include "ValueBlock.h"

// 3100, 3124, 3127.
int AccessRules::readConditions(const KeyUse& key, int sector, Trailer& trailer) {
    if (mTag.readTrailer(sector, key, trailer) != kOk) return kTrailerNotRead;
    return SectorAccessBits(trailer.access()).isValid() ? kOk : kAccessRefused;
}

int AccessRules::conditionOf(const KeyUse& key, int sector, int blockInSector, DataAccControl& code) {
    code = AccInvalid;
    Trailer trailer;
    if (const int status = readConditions(key, sector, trailer); status != kOk) return status;
    code = SectorAccessBits(trailer.access()).getBlockCondition(mTag.type(), sector, blockInSector);
    return kOk;
}

int AccessRules::conditionOf(const BlockAddress& address, const KeyUse& key, DataAccControl& code) {
    int sector = 0, blockInSector = 0;
    const int status = locateBlock(mTag, address, sector, blockInSector);
    if (status == kOk) return conditionOf(key, sector, blockInSector, code);
    if (status == kNotAllowedHere || address.appType == TagAppNone) return status;
    QVL_LOG(kLogFailure, "getAccessMode failed %d", status);
    return kDirectoryNotRead;
}

int AccessRules::sectorConditions(TagAppType appType, short appId, int sectorIndex, const KeyUse& madKey,
                                  const KeyUse& key, DataAccControl* conditions) {
    if (!hasTrailers(mTag.type())) return kNotAllowedHere;
    int sector = appId;
    if (appType == TagAppNone) {
        int offset = 0;  // of no use here: a number one past the last sector counts as outside where it has none
        if (!isSectorInRange(mTag.type(), false, sector)) return kOutOfRange;
        if (getTrailerOffset(mTag.type(), sector, offset) == kNoSuchSector) return kOutOfRange;
    } else {
        SectorList list;
        const int status = TagDirectory(mTag, madKey).findSectors(static_cast<std::uint16_t>(appId), list);
        if (status != kOk) {
            QVL_LOG(kLogFailure, "getSectorAccessMode failed %d", status);
            return kDirectoryNotRead;
        }
        if (sectorIndex >= list.count) return kOutOfRange;
        sector = list[sectorIndex];
    }
    Trailer trailer;
    if (const int status = readConditions(key, sector, trailer); status != kOk) return status;
    SectorAccessBits(trailer.access()).getSectorConditions(conditions);
    return kOk;
}

int AccessRules::setBlockType(const BlockAddress& address, const BlockTypeChange& change) {
    int sector = 0, blockInSector = 0;
    const int status = locateBlock(mTag, address, sector, blockInSector);
    const bool isPlain = address.appType == TagAppNone;
    if (status != kOk) {
        if (status == kNotAllowedHere || isPlain) return status;
        QVL_LOG(kLogFailure, "setDataBlockType failed %d", status);
        return kApplicationMissing;
    }
    const int addressByte = isPlain ? 0 : firstBlockOfSector(mTag.type(), sector) + blockInSector;
    return changeBlock(change, sector, blockInSector, static_cast<std::uint8_t>(addressByte));
}

int AccessRules::changeBlock(const BlockTypeChange& change, int sector, int blockInSector, std::uint8_t addressByte) {
    const KeyUse key{change.keyB, AuthKeyB};
    Trailer trailer;
    if (const int status = mTag.readTrailer(sector, key, trailer); status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed: reading trailer block err=%d", status);
        return kTrailerNotRead;
    }
    const SectorAccessBits present(trailer.access());
    if (!present.isValid()) return kAccessRefused;
    trailer.setKeyA(change.newKeyA);
    trailer.setKeyB(change.keyB);
    const int group = accessGroupOf(mTag.type(), sector, blockInSector);
    if (isClosedToKeyB(present.getBlockCondition(mTag.type(), sector, blockInSector))) {
        setBlockCondition(trailer.access(), group, AccData100);
        if (const int status = mTag.writeTrailer(sector, key, Login::asIs, trailer); status != kOk) {
            QVL_LOG(kLogFailure, "setDataBlockType failed: writing trailer block error=%d", status);
            return kBlockNotOpened;
        }
    }
    std::uint8_t content[kBlockSize] = {};
    if (change.isValue) encodeValueBlock(change.value, addressByte, content);
    if (const int status = mTag.write({sector, blockInSector, 1}, key, Login::asIs, content); status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed %d", status);
        return kTypeNotWritten;
    }
    setBlockCondition(trailer.access(), group, change.access);
    if (const int status = mTag.writeTrailer(sector, key, Login::asIs, trailer); status != kOk) {
        QVL_LOG(kLogFailure, "setDataBlockType failed: %d", status);
        return kTypeNotWritten;
    }
    return kOk;
}

template <typename ChangeOne>
int AccessRules::changeTrailers(const TrailerChange& change, OpRecords& records, ChangeOne changeOne) {
    if (!hasTrailers(mTag.type())) return kNotAllowedHere;
    SectorList list;
    if (const int status = listSectors(mTag, change.appType, change.appId, change.madKey, change.sectorCount, list);
        status != kOk) {
        QVL_LOG(kLogFailure, "%s failed: %d", change.operation, status);
        return status;
    }
    records = OpRecords(list.count);
    bool anyFailed = false;
    int current = kOk;
    for (int i = 0; i < list.count; ++i) {
        current = isSectorInRange(mTag.type(), true, list[i]) ? changeOne(list[i]) : int{kOutOfRange};
        records.add(list[i], current);
        if (current == kOk) continue;
        anyFailed = true;
        if (i + 1 < list.count) current = mTag.wake();
    }
    mTag.leaveSelected(current == kOk);
    return anyFailed ? kPartial : kOk;
}

int AccessRules::setTrailers(const TrailerChange& change, const std::uint8_t* keyA, const std::uint8_t* keyB,
                             const std::array<std::uint8_t, 3>& access, OpRecords& records) {
    const Trailer trailer(keyA, access, kPlainGeneralPurpose, keyB);
    return changeTrailers(change, records,
                          [&](int sector) { return mTag.writeTrailer(sector, change.key, Login::anew, trailer); });
}

int AccessRules::setKeys(const TrailerChange& change, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                         OpRecords& records) {
    return changeTrailers(change, records, [&](int sector) {
        Trailer trailer;
        if (const int status = mTag.readTrailer(sector, change.key, trailer); status != kOk) return status;
        if (!SectorAccessBits(trailer.access()).isValid()) return int{kAccessRefused};
        trailer.setKeyA(newKeyA);
        trailer.setKeyB(newKeyB);
        return mTag.writeTrailer(sector, change.key, Login::asIs, trailer);
    });
}

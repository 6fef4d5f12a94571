// Sectors by number, on a tag without a directory: given new keys and conditions, emptied, taken back.

#include "AppSectors.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"

bool PlainSectors::fits(int first, int count) const {
    return first >= 0 && isSectorInRange(mTag.type(), false, first + count);
}

int PlainSectors::add(const SectorsToAdd& wanted, int& done, OpRecords& records) {
    if (!fits(wanted.appId, wanted.count)) return kTooFew;
    records = OpRecords(wanted.count);
    for (int i = 0; i < wanted.count; ++i) {
        const int sector = wanted.appId + i;
        const int status = addSector(wanted, sector, i + 1 == wanted.count);
        records.add(sector, status);
        if (status == kOk) ++done;
    }
    return done == wanted.count ? kOk : kPartial;
}

int PlainSectors::addSector(const SectorsToAdd& wanted, int sector, bool isLast) {
    const KeyUse key{wanted.sectorKey != nullptr ? wanted.sectorKey : FactoryKey.data(), AuthKeyB};
    const int cleared = clearData(sector, key);
    Trailer trailer;
    if (const int status = mTag.readTrailer(sector, key, trailer); status != kOk) return status;
    if (!SectorAccessBits(trailer.access()).isValid()) return kAccessRefused;
    setDataConditions(trailer.access(), wanted.access);
    trailer.setKeyA(wanted.newKeyA);
    trailer.setKeyB(wanted.newKeyB);
    trailer.generalPurpose() = kPlainGeneralPurpose;
    const int status = mTag.writeTrailer(sector, key, Login::asIs, trailer);
    if (status != kOk && !isLast) mTag.wake();
    return status != kOk ? status : cleared;
}

// Each block by itself and without authenticating first: the retry of the first one wakes the tag and authenticates.
// @return the status of the last block that failed.
int PlainSectors::clearData(int sector, const KeyUse& key) {
    constexpr std::uint8_t kZero[16] = {};
    int failure = kOk;
    const int end = trailerOffsetOf(mTag.type(), sector);
    for (int block = sector == 0 ? 1 : 0; block < end; ++block) {
        const int status = mTag.write({sector, block, 1}, key, Login::asIs, kZero);
        if (status != kOk) failure = status;
    }
    return failure;
}

// The record of a sector tells of its trailer: blocks that could not be emptied have got the new keys with it.
int PlainSectors::remove(const SectorsToRemove& wanted) {
    if (!fits(wanted.appId, wanted.count)) return kTooFew;
    if (wanted.newKeyB == nullptr) return kNewKeyMissing;
    const Trailer trailer(wanted.newKeyA != nullptr ? wanted.newKeyA : FactoryKey.data(), accessbits::kFormatted,
                          kPlainGeneralPurpose, wanted.newKeyB);
    bool anyFailed = false;
    int status = kReaderFailed;
    for (int i = 0; i < wanted.count; ++i) {
        const int sector = wanted.appId + i;
        clearData(sector, wanted.key);
        status = mTag.writeTrailer(sector, wanted.key, Login::anew, trailer);
        if (wanted.statuses != nullptr) wanted.statuses[i] = status;
        if (status == kOk) continue;
        anyFailed = true;
        if (i + 1 < wanted.count) mTag.wake();
    }
    mTag.leaveSelected(!anyFailed || status == kOk);
    return anyFailed ? kPartial : kOk;
}

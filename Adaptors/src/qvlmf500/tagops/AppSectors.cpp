#include "AppSectors.h"

#include "ByteHelpers.h"
#include "LogService.h"
#include "SectorAccessBits.h"
#include "TagDirectory.h"
#include "TagGeometry.h"
#include "TagSizes.h"

#include <algorithm>

namespace {

constexpr std::size_t kSectorSize = 64;
constexpr int kMostRecords = 39;

// Refused before anything is read: a tag whose directory is never written, and what can be no application.
int checkDirectoryChange(std::uint32_t type, int appId) {
    if (type == kTag4K || !hasTrailers(type)) return kNotAllowedHere;
    std::uint8_t aid[2];
    return aidToBytes(static_cast<std::uint16_t>(appId), aid) ? kOk : kNoApplicationId;
}

int failed(const char* operation, int status) {
    QVL_LOG(kLogFailure, "%s failed: %d", operation, status);
    return status;
}

KeyUse keyB(const std::uint8_t* key) { return {key, AuthKeyB}; }

}  // namespace

/// The sectors that the directory names already, and what of it has to be written in the end.
struct AppSectors::Claim {
    SectorList sectors;
    int start;
    DirectoryImage& image;
    DirtyBlocks dirty = {};
};

int AppSectors::add(const SectorsToAdd& wanted, bool isNew, int& done, OpRecords& records) {
    constexpr const char* kName = "addMADAppSector";
    if (const int status = checkDirectoryChange(mTag.type(), wanted.appId); status != kOk) return status;
    const auto appId = static_cast<std::uint16_t>(wanted.appId);
    TagDirectory directory(mTag, keyB(wanted.madKey));
    DirectoryImage image;
    if (directory.read(Login::anew, image) != kOk) return kDirectoryNotRead;
    const bool exists = image.collectAppSectors(appId).count > 0;
    if (isNew && exists) return failed(kName, kApplicationExists);
    if (!isNew && !exists) return failed(kName, kApplicationMissing);
    // New sectors always lie above the application's highest one.
    const int start = isNew ? 0 : image.lastAppEntry(appId);

    DirtyBlocks dirty{.block1 = true};  // it holds the CRC
    Claim claim{image.claimFreeEntries(appId, wanted.count, start, dirty), start, image};
    if (claim.sectors.count < wanted.count) return failed(kName, kTooFew);
    image.updateDirectoryCrc();
    OpRecords room(kMostRecords);
    if (directory.write(image, dirty, Login::asIs) != kOk) return failed(kName, kDirectoryNotWritten);
    records = std::move(room);

    // From here the image holds what the tag has to hold in the end: only sectors that were prepared.
    for (int i = 0; i < claim.sectors.count; ++i)
        image.setWord(claim.sectors[i], mad::kFree);
    prepare(wanted, claim, done, records);
    image.updateDirectoryCrc();
    if (claim.dirty.any()) {
        claim.dirty.block1 = true;
        if (directory.write(image, claim.dirty, Login::anew) != kOk) return kRepairFailed;
    }
    return done == wanted.count ? kOk : kPartial;
}

// The first attempts meet exactly the claimed sectors, in order; the free ones after them stand in for sectors that
// failed.
void AppSectors::prepare(const SectorsToAdd& wanted, Claim& claim, int& done, OpRecords& records) {
    int current = kOk;
    for (int cursor = claim.start; done < wanted.count; ++cursor) {
        if (!claim.image.nextFreeEntry(cursor, cursor)) {
            QVL_LOG(kLogFailure, "addMADAppSector no more sector");
            current = kPartial;
            break;
        }
        current = prepareSector(wanted, cursor);
        records.add(cursor, current);
        if (current == kOk) {
            claim.image.setWord(cursor, static_cast<std::uint16_t>(wanted.appId));
            ++done;
            if (!claim.sectors.holds(cursor)) claim.dirty.touch(cursor);
        } else {
            if (claim.sectors.holds(cursor)) claim.dirty.touch(cursor);
            current = mTag.wake();
        }
    }
    if (current != kOk) mTag.wake();
}

int AppSectors::prepareSector(const SectorsToAdd& wanted, int sector) {
    const KeyUse sectorKey = keyB(wanted.sectorKey != nullptr ? wanted.sectorKey : wanted.madKey);
    Trailer trailer;
    if (const int status = mTag.readTrailer(sector, sectorKey, trailer); status != kOk) return status;
    if (!SectorAccessBits(trailer.access()).isValid()) return kAccessRefused;
    setDataConditions(trailer.access(), wanted.access);
    trailer.setKeyA(wanted.newKeyA);
    trailer.setKeyB(wanted.newKeyB);
    trailer.generalPurpose() = kPlainGeneralPurpose;

    SecretBytes<kSectorSize> image;
    image.fill(0);
    std::ranges::copy(trailer, image.end() - static_cast<std::ptrdiff_t>(trailer.size()));
    return mTag.write({sector, 0, kSmallTrailer + 1}, sectorKey, Login::asIs, image);
}

int AppSectors::remove(const SectorsToRemove& wanted) {
    if (const int status = checkDirectoryChange(mTag.type(), wanted.appId); status != kOk) return status;
    TagDirectory directory(mTag, keyB(wanted.madKey));
    DirectoryImage image;
    if (directory.read(Login::anew, image) != kOk) {
        QVL_LOG(kLogFailure, "removeMADAppSector failed %d", kDirectoryNotRead);
        return kDirectoryNotRead;
    }
    DirtyBlocks dirty{.block1 = true};
    const SectorList sectors = image.clearAppSectors(static_cast<std::uint16_t>(wanted.appId), dirty);
    if (sectors.count < wanted.count) return failed("removeAppSector", kTooFew);
    if (wanted.start >= sectors.count) {
        QVL_LOG(kLogFailure, "removeAppSector failed: starting offset out of bound");
        return kOutOfRange;
    }
    if (wanted.start + wanted.count > sectors.count) return failed("removeAppSector", kTooFew);

    int last = kReaderFailed;
    const int failures = resetChosen(wanted, sectors, image, last);
    image.updateDirectoryCrc();
    const Login login = wanted.count > 0 ? Login::anew : Login::asIs;
    if (directory.write(image, dirty, login) != kOk) return failed("removeAppSector", kDirectoryNotWritten);
    if (failures == 0) return kOk;
    mTag.leaveSelected(last == kOk);
    return kPartial;
}

// Sectors that were not reset stay the application's. @return how many of the chosen ones; `last` is the status of the
// last one.
int AppSectors::resetChosen(const SectorsToRemove& wanted, const SectorList& sectors, DirectoryImage& image,
                            int& last) {
    int failures = 0;
    for (int i = 0; i < sectors.count; ++i) {
        const int place = i - wanted.start;
        const bool chosen = place >= 0 && place < wanted.count;
        if (chosen) {
            last = resetSector(wanted, sectors[i]);
            if (wanted.statuses != nullptr) wanted.statuses[place] = last;
            if (last == kOk) continue;
            ++failures;
        }
        image.setWord(sectors[i], static_cast<std::uint16_t>(wanted.appId));
        if (chosen) mTag.wake();
    }
    return failures;
}

// The trailer goes first, because the keys that open the data afterwards are the new ones.
int AppSectors::resetSector(const SectorsToRemove& wanted, int sector) {
    const std::uint8_t* newKeyA = wanted.newKeyA != nullptr ? wanted.newKeyA : MadKeyA.data();
    const std::uint8_t* newKeyB = wanted.newKeyB != nullptr ? wanted.newKeyB : wanted.madKey;
    const Trailer trailer(newKeyA, accessbits::kFormatted, kPlainGeneralPurpose, newKeyB);
    if (const int status = mTag.writeTrailer(sector, wanted.key, Login::anew, trailer); status != kOk) return status;
    const std::uint8_t zero[kSmallTrailer * kBlockSize] = {};
    return mTag.write({sector, 0, kSmallTrailer}, keyB(newKeyB), Login::anew, zero);
}

// Giving sectors to an application and taking them back. The directory is two blocks that cannot be written as one, so
// the order of writes is what keeps a tag safe: on adding, the directory names the new owner before a sector is
// touched; on removing, a sector is reset before the directory gives it up. At no moment is a sector that holds an
// application's data listed as free.

#include "ByteHelpers.h"
#include "DirectoryImage.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "SectorAccessBits.h"
#include "SectorChanges.h"
#include "TagGeometry.h"

#include <algorithm>

namespace {

constexpr std::size_t kSectorSize = 64;
constexpr int kMostRecords = 39;

// Refused before anything is read: a tag whose directory is never written, and what can be no application.
int checkDirectoryChange(const TagUID& tag, int appId) {
    if (tag.getTagType() == kTag4K || !hasTrailers(tag.getTagType())) return kNotAllowedHere;
    std::uint8_t aid[2];
    return aidToBytes(static_cast<std::uint16_t>(appId), aid) ? kOk : kNoApplicationId;
}

int failed(const char* operation, int status) {
    QVL_LOG(kLogFailure, "%s failed: %d", operation, status);
    return status;
}

KeyUse keyB(const std::uint8_t* key) { return {key, AuthKeyB}; }

}  // namespace

int QvlMf500ReaderImpl::addMADAppSector(const AppSectorChange& change, TagUID& tag, bool isNew, SectorResults& out) {
    constexpr const char* kName = "addMADAppSector";
    if (const int status = checkDirectoryChange(tag, change.appId); status != kOk) return status;
    const auto appId = static_cast<std::uint16_t>(change.appId);
    const KeyUse madKey = keyB(change.madKey);
    DirectoryImage image;
    if (readDirectory(tag, madKey, true, image) != kOk) return kDirectoryNotRead;
    const bool exists = image.collectAppSectors(appId).count > 0;
    if (isNew && exists) return failed(kName, kApplicationExists);
    if (!isNew && !exists) return failed(kName, kApplicationMissing);
    // New sectors always lie above the application's highest one.
    const int start = isNew ? 0 : image.lastAppEntry(appId);

    DirtyBlocks dirty{.block1 = true};  // it holds the CRC
    const SectorList claimed = image.claimFreeEntries(appId, change.count, start, dirty);
    if (claimed.count < change.count) return failed(kName, kTooFew);
    image.updateDirectoryCrc();
    out.records = std::make_unique<OpResultCode[]>(kMostRecords);
    if (writeDirectory(tag, madKey, image, dirty, false) != kOk) {
        out = {};
        return failed(kName, kDirectoryNotWritten);
    }

    // From here the image holds what the tag has to hold in the end: only sectors that were prepared.
    for (int i = 0; i < claimed.count; ++i)
        image.setWord(claimed[i], mad::kFree);
    dirty = {};
    prepareSectors(change, tag, image, claimed, start, dirty, out);
    image.updateDirectoryCrc();
    if (dirty.any()) {
        dirty.block1 = true;
        if (writeDirectory(tag, madKey, image, dirty, true) != kOk) return kRepairFailed;
    }
    return out.done == change.count ? kOk : kPartial;
}

// The first attempts meet exactly the claimed sectors, in order; the free ones behind them stand in for sectors that
// failed.
void QvlMf500ReaderImpl::prepareSectors(const AppSectorChange& change, TagUID& tag, DirectoryImage& image,
                                        const SectorList& claimed, int start, DirtyBlocks& dirty, SectorResults& out) {
    int current = kOk;
    for (int cursor = start; out.done < change.count; ++cursor) {
        if (!image.nextFreeEntry(cursor, cursor)) {
            QVL_LOG(kLogFailure, "addMADAppSector no more sector");
            current = kPartial;
            break;
        }
        current = prepareSector(change, tag, cursor);
        out.add(cursor, current);
        if (current == kOk) {
            image.setWord(cursor, static_cast<std::uint16_t>(change.appId));
            ++out.done;
            if (!claimed.holds(cursor)) dirty.touch(cursor);
        } else {
            if (claimed.holds(cursor)) dirty.touch(cursor);
            current = waitForTag(kWakeUpRequest, tag);
        }
    }
    if (current != kOk) waitForTag(kWakeUpRequest, tag);
}

int QvlMf500ReaderImpl::prepareSector(const AppSectorChange& change, TagUID& tag, int sector) {
    const KeyUse sectorKey = keyB(change.sectorKey != nullptr ? change.sectorKey : change.madKey);
    Trailer old;
    const int offset = trailerOffsetOf(tag.getTagType(), sector);
    if (const int status = getBlock(tag, sector, sectorKey, offset, 1, old.data(), true, nullptr); status != kOk)
        return status;
    if (!SectorAccessBits(old.access()).isValid()) return kAccessRefused;
    setDataConditions(old.access(), change.access);

    SecretBytes<kSectorSize> image;
    image.fill(0);
    const Trailer trailer(change.newKeyA, {old.access()[0], old.access()[1], old.access()[2]}, kPlainGeneralPurpose,
                          change.newKeyB);
    std::ranges::copy(trailer, image.end() - static_cast<std::ptrdiff_t>(trailer.size()));
    return setBlock(tag, sector, sectorKey, 0, kSmallTrailer + 1, image.data(), kSectorSize, false, nullptr);
}

int QvlMf500ReaderImpl::removeMADAppSector(const AppSectorRemoval& removal, TagUID& tag, int& lastStatus) {
    if (const int status = checkDirectoryChange(tag, removal.appId); status != kOk) return status;
    const auto appId = static_cast<std::uint16_t>(removal.appId);
    const KeyUse madKey = keyB(removal.madKey);
    DirectoryImage image;
    if (readDirectory(tag, madKey, true, image) != kOk) {
        QVL_LOG(kLogFailure, "removeMADAppSector failed %d", kDirectoryNotRead);
        return kDirectoryNotRead;
    }
    DirtyBlocks dirty{.block1 = true};
    const SectorList sectors = image.clearAppSectors(appId, dirty);
    if (sectors.count < removal.count) return failed("removeAppSector", kTooFew);
    if (removal.start >= sectors.count) {
        QVL_LOG(kLogFailure, "removeAppSector failed: starting offset out of bound");
        return kOutOfRange;
    }
    if (removal.start + removal.count > sectors.count) return failed("removeAppSector", kTooFew);

    int failures = 0;
    for (int i = 0; i < sectors.count; ++i) {
        const bool chosen = i >= removal.start && i < removal.start + removal.count;
        const int status = chosen ? resetSector(removal, tag, sectors[i]) : int{kNotAllowedHere};
        if (chosen) lastStatus = status;
        if (chosen && removal.statuses != nullptr) removal.statuses[i - removal.start] = status;
        if (status == kOk) continue;
        image.setWord(sectors[i], appId);  // it stays the application's
        if (!chosen) continue;
        ++failures;
        waitForTag(kWakeUpRequest, tag);
    }
    image.updateDirectoryCrc();
    if (const int status = writeDirectory(tag, madKey, image, dirty, removal.count > 0); status != kOk)
        return failed("removeAppSector", kDirectoryNotWritten);
    return failures == 0 ? kOk : kPartial;
}

// The trailer goes first, because the keys that open the data afterwards are the new ones.
int QvlMf500ReaderImpl::resetSector(const AppSectorRemoval& removal, TagUID& tag, int sector) {
    const std::uint8_t* newKeyA = removal.newKeyA != nullptr ? removal.newKeyA : MadKeyA.data();
    const std::uint8_t* newKeyB = removal.newKeyB != nullptr ? removal.newKeyB : removal.madKey;
    const Trailer trailer(newKeyA, accessbits::kFormatted, kPlainGeneralPurpose, newKeyB);
    const int offset = trailerOffsetOf(tag.getTagType(), sector);
    if (const int status = setBlock(tag, sector, removal.key, offset, 1, trailer.data(),
                                    static_cast<int>(trailer.size()), true, nullptr);
        status != kOk)
        return status;
    constexpr int kDataSize = kSmallTrailer * 16;
    const std::uint8_t zero[kDataSize] = {};
    return setBlock(tag, sector, keyB(newKeyB), 0, kSmallTrailer, zero, kDataSize, true, nullptr);
}

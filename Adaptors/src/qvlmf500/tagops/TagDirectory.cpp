// Reading and writing the application directory of a tag, and turning an application into sectors and blocks.

#include "TagDirectory.h"

#include "LogService.h"
#include "TagGeometry.h"
#include "TagSizes.h"

namespace {

constexpr int kDirectoryBlock = 1;
constexpr int kDirectoryBlocks = 2;

}  // namespace

int TagDirectory::readKind(int& kind) {
    Trailer trailer;
    if (const int status = mTag.read({0, kSmallTrailer, 1}, mKey, Login::anew, trailer.data()); status != kOk) {
        QVL_LOG(kLogFailure, "checkAppType failed %d", status);
        return kDirectoryNotRead;
    }
    kind = directoryKind(trailer.generalPurpose());
    return kOk;
}

int TagDirectory::readKnown(Login login, DirectoryImage& image) {
    int kind = 0;
    if (const int status = readKind(kind); status != kOk) return status;
    return kind == 0 ? int{kNoDirectory} : read(login, image);
}

int TagDirectory::read(Login login, DirectoryImage& image) {
    // Block by block: a tag with pages delivers less than a block, and what is missing reads as free.
    for (int block = 0; block < kDirectoryBlocks; ++block) {
        std::uint8_t* place = image.data() + static_cast<std::size_t>(block) * kBlockSize;
        const Login each = block == 0 ? login : Login::asIs;
        if (mTag.read({0, kDirectoryBlock + block, 1}, mKey, each, place) != kOk) return kDirectoryNotRead;
    }
    return kOk;
}

int TagDirectory::write(const DirectoryImage& image, const DirtyBlocks& dirty, Login login) {
    const int first = dirty.block1 ? 1 : 2;
    const int count = dirty.block1 && dirty.block2 ? 2 : 1;
    return mTag.write({0, first, count}, mKey, login,
                      {image.block(first), static_cast<std::size_t>(count) * kBlockSize});
}

int TagDirectory::findSectors(std::uint16_t appId, SectorList& list) {
    DirectoryImage image;
    if (const int status = read(Login::anew, image); status != kOk) return status;
    list = image.collectAppSectors(appId);
    return list.count > 0 ? kOk : kApplicationMissing;
}

int TagDirectory::locateBlock(std::uint16_t appId, int blockIndex, int& sector, int& blockInSector) {
    SectorList list;
    if (const int status = findSectors(appId, list); status != kOk) return status;
    if (blockIndex < 0 || blockIndex >= list.count * kSmallTrailer) return kApplicationMissing;
    sector = list[blockIndex / kSmallTrailer];
    blockInSector = blockIndex % kSmallTrailer;
    return kOk;
}

int TagDirectory::locateRange(std::uint16_t appId, int firstIndex, SectorList& list, int& firstListIndex, int& offset) {
    if (const int status = findSectors(appId, list); status != kOk) return status;
    const int blocks = list.count * kSmallTrailer;
    if (firstIndex < 0 || firstIndex > blocks) return kOutOfRange;
    firstListIndex = firstIndex == blocks ? 0 : firstIndex / kSmallTrailer;
    offset = firstIndex == blocks ? 0 : firstIndex % kSmallTrailer;
    return kOk;
}

int locateBlock(SelectedTag& tag, const BlockAddress& address, int& sector, int& blockInSector) {
    if (!hasTrailers(tag.type())) return kNotAllowedHere;
    if (address.appType != TagAppNone) {
        TagDirectory directory(tag, address.madKey);
        return directory.locateBlock(static_cast<std::uint16_t>(address.appId), address.block, sector, blockInSector);
    }
    // A test before the lock saw the type that the caller's TagUID held.
    const int status = address.mayBeTrailer ? int{kMemoryOk} : checkUserBlock(tag.type(), address.block);
    return status == kMemoryOk ? blockToSector(tag.type(), address.block, sector, blockInSector) : status;
}

int listSectors(SelectedTag& tag, TagAppType appType, short appId, const KeyUse& madKey, int sectorCount,
                SectorList& list) {
    if (appType != TagAppNone) return TagDirectory(tag, madKey).findSectors(static_cast<std::uint16_t>(appId), list);
    for (int i = 0; i < sectorCount; ++i)
        list.add(appId + i);
    return kOk;
}

// Reading and writing the application directory of a tag, and turning an application into sectors and blocks.

#include "DirectoryImage.h"
#include "KeyUse.h"
#include "LogService.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "TagArguments.h"
#include "TagGeometry.h"

#include <algorithm>
#include <memory>

namespace {

constexpr int kDirectoryBlock = 1;
constexpr int kDirectoryBlocks = 2;

// The applications of a directory, each at the place of its first sector.
int collectApps(const DirectoryImage& image, short* ids) {
    int count = 0;
    for (int word = 1; word < mad::kWords; ++word) {
        const std::uint16_t id = image.word(word);
        if (id == mad::kFree || id == mad::kDefect) continue;
        const auto value = static_cast<short>(id);
        if (std::find(ids, ids + count, value) == ids + count) ids[count++] = value;
    }
    return count;
}

}  // namespace

int QvlMf500ReaderImpl::checkAppType(TagUID& tag, const KeyUse& key, bool authenticate, int& kind) {
    Trailer trailer;
    if (const int status = getBlock(tag, 0, key, kSmallTrailer, 1, trailer.data(), authenticate, nullptr);
        status != kOk) {
        QVL_LOG(kLogFailure, "checkAppType failed %d", status);
        return kDirectoryNotRead;
    }
    kind = directoryKind(trailer.generalPurpose());
    return kOk;
}

int QvlMf500ReaderImpl::readDirectory(TagUID& tag, const KeyUse& key, bool authenticate, DirectoryImage& image) {
    // Block by block: a tag with pages delivers less than a block, and what is missing reads as free.
    for (int block = 0; block < kDirectoryBlocks; ++block) {
        std::uint8_t* place = image.data() + static_cast<std::size_t>(block) * mad::kBlockSize;
        const int status =
            getBlock(tag, 0, key, kDirectoryBlock + block, 1, place, authenticate && block == 0, nullptr);
        if (status != kOk) return kDirectoryNotRead;
    }
    return kOk;
}

int QvlMf500ReaderImpl::writeDirectory(TagUID& tag, const KeyUse& key, const DirectoryImage& image,
                                       const DirtyBlocks& dirty, bool authenticate) {
    const int first = dirty.block1 ? 1 : 2;
    const int count = dirty.block1 && dirty.block2 ? 2 : 1;
    return setBlock(tag, 0, key, first, count, image.block(first), count * static_cast<int>(mad::kBlockSize),
                    authenticate, nullptr);
}

int QvlMf500ReaderImpl::findAppSectors(std::uint16_t appId, TagUID& tag, const KeyUse& key, SectorList& list) {
    DirectoryImage image;
    if (const int status = readDirectory(tag, key, true, image); status != kOk) return status;
    list = image.collectAppSectors(appId);
    return list.count > 0 ? kOk : kApplicationMissing;
}

int QvlMf500ReaderImpl::locateAppBlock(std::uint16_t appId, TagUID& tag, const KeyUse& key, int blockIndex, int& sector,
                                       int& blockInSector) {
    SectorList list;
    if (const int status = findAppSectors(appId, tag, key, list); status != kOk) return status;
    if (blockIndex < 0 || blockIndex >= list.count * kSmallTrailer) return kApplicationMissing;
    sector = list[blockIndex / kSmallTrailer];
    blockInSector = blockIndex % kSmallTrailer;
    return kOk;
}

int QvlMf500ReaderImpl::locateAppRange(std::uint16_t appId, TagUID& tag, const KeyUse& key, int firstIndex,
                                       SectorList& list, int& firstListIndex, int& offset) {
    if (const int status = findAppSectors(appId, tag, key, list); status != kOk) return status;
    const int blocks = list.count * kSmallTrailer;
    if (firstIndex < 0 || firstIndex > blocks) return kOutOfRange;
    firstListIndex = firstIndex == blocks ? 0 : firstIndex / kSmallTrailer;
    offset = firstIndex == blocks ? 0 : firstIndex % kSmallTrailer;
    return kOk;
}

int QvlMf500ReaderImpl::getAllAppId(int readerId, TagAppType, const TagUID& tag, short& count, short*& appIds,
                                    AuthKeyMode keyMode, const std::uint8_t* key) {
    count = 0;
    appIds = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    return operateOn("getAllAppId", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        const KeyUse directory = directoryKey(key, keyMode);
        int kind = 0;
        if (const int status = checkAppType(known, directory, true, kind); status != kOk) return frame.finish(status);
        if (kind == 0) return frame.finish(kNoDirectory);
        DirectoryImage image;
        if (const int status = readDirectory(known, directory, false, image); status != kOk)
            return frame.finish(status);
        short ids[mad::kWords];
        const int found = collectApps(image, ids);
        auto list = std::make_unique<short[]>(static_cast<std::size_t>(found));
        std::copy_n(ids, found, list.get());
        appIds = list.release();
        count = static_cast<short>(found);
        return frame.finish(kOk);
    });
}

int QvlMf500ReaderImpl::getAppIdDir(int readerId, TagAppType appType, const TagUID& tag, short* directory,
                                    AuthKeyMode keyMode, const std::uint8_t* key) {
    if (appType == TagAppNone) return kNotAllowedHere;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (directory == nullptr) return kReaderFailed;
    return operateOn("getAppIdDir", *this, readerId, tag, [&](TagUID& known, OperationFrame& frame) -> int {
        const KeyUse madKey = directoryKey(key, keyMode);
        int kind = 0;
        if (const int status = checkAppType(known, madKey, true, kind); status != kOk) return frame.finish(status);
        if (kind == 0) return frame.finish(kNoDirectory);
        DirectoryImage image;
        if (const int status = readDirectory(known, madKey, true, image); status != kOk) return frame.finish(status);
        for (int word = 0; word < mad::kWords; ++word)
            directory[word] = static_cast<short>(image.word(word));
        return frame.finish(kOk);
    });
}

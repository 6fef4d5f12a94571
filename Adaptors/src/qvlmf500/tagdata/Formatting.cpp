// A factory tag gets the trailers of this system, or gives them back. Both operations work on whatever tag lies in the
// field, report per sector, and go on past a bad sector where they can.

#include "Clock.h"
#include "DirectoryImage.h"
#include "Guarded.h"
#include "KeyUse.h"
#include "OpResultCode.h"
#include "OperationFrame.h"
#include "QvlMf500ReaderImpl.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"

#include <algorithm>
#include <memory>

namespace {

constexpr std::uint32_t kSettleMs = 10;
constexpr int kFirstWritable = 1;  // block 0 is the maker's
constexpr int kTrailerSize = 16;

/// Blocks 1 to 3 of sector 0: the directory and the trailer.
using Sector0Image = SecretBytes<mad::kSize + kTrailerSize>;

Sector0Image makeSector0(bool withCrc, const Trailer& trailer) {
    DirectoryImage empty;
    if (withCrc) empty.updateDirectoryCrc();
    Sector0Image image;
    std::copy_n(empty.data(), mad::kSize, image.begin());
    std::ranges::copy(trailer, image.begin() + mad::kSize);
    return image;
}

std::uint8_t generalPurposeOf(TagAppType appType) {
    switch (appType) {
    case TagAppNone:
        return kPlainGeneralPurpose;
    case TagAppMad1:
        return 0xC1;
    case TagAppMad2:
        return 0xC2;
    }
    return 0;
}

/// Which sectors could not be written, for the directory.
class BadSectors {
  public:
    void note(int sector) {
        mAny = true;
        if (sector >= 1 && sector < mad::kWords) mImage.setWord(sector, mad::kDefect);
    }
    bool any() const { return mAny; }
    const DirectoryImage& image() {
        mImage.updateDirectoryCrc();
        return mImage;
    }

  private:
    bool mAny = false;
    DirectoryImage mImage;
};

}  // namespace

int QvlMf500ReaderImpl::formatTag(int readerId, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag,
                                  std::uint8_t* newKeyA, int& sectorCount, OpResultCode*& results) {
    sectorCount = 0;
    results = nullptr;
    if (newKeyB == nullptr) {
        tag = nullptr;
        return kReaderFailed;
    }
    return guarded("formatTag", int{kReaderFailed}, [&]() -> int {
        OperationFrame frame(*this);
        tag = nullptr;
        if (!frame.entered()) return frame.status();
        if (const int found = getTagId(readerId, TagAppNone, 0, tag, AuthKeyA, nullptr, false); found != kOk)
            return frame.finish(found);
        frame.holdType(*tag);
        if (!hasTrailers(tag->getTagType())) return frame.finish(kNotAllowedHere);
        if (tag->getTagType() == kTag4K && appType != TagAppNone) return frame.finish(kNotAllowedHere);
        platform::Clock::current().pauseMs(kSettleMs);
        frame.showPrompt();

        const std::uint8_t* keyA = newKeyA;
        if (keyA == nullptr) keyA = appType == TagAppNone ? FactoryKey.data() : MadKeyA.data();
        const int sectors = static_cast<int>(tagInfoByType(tag->getTagType()).sectorCount);
        auto records = std::make_unique<OpResultCode[]>(static_cast<std::size_t>(sectors));
        bool tagIsSelected = false;
        const int status = formatSectors({appType, keyA, newKeyB}, *tag, sectors, records.get(), tagIsSelected);
        if (status != kDirectoryNotWritten) {
            sectorCount = sectors;
            results = records.release();
        }
        return frame.finish(status, tagIsSelected);
    });
}

int QvlMf500ReaderImpl::formatSectors(const FormatKeys& keys, TagUID& tag, int sectors, OpResultCode* records,
                                      bool& tagIsSelected) {
    const KeyUse factory{FactoryKey.data(), AuthKeyA};
    const bool withDirectory = keys.appType != TagAppNone;
    const Sector0Image sector0 =
        makeSector0(withDirectory, {keys.keyA, withDirectory ? accessbits::kDirectory : accessbits::kFormatted,
                                    generalPurposeOf(keys.appType), keys.keyB});
    const Trailer trailer(keys.keyA, accessbits::kFormatted, kPlainGeneralPurpose, keys.keyB);
    BadSectors bad;
    int current = kOk;
    for (int sector = 0; sector < sectors; ++sector) {
        const int offset = trailerOffsetOf(tag.getTagType(), sector);
        current = sector == 0 ? setBlock(tag, 0, factory, kFirstWritable, 3, sector0.data(),
                                         static_cast<int>(sector0.size()), true, nullptr)
                              : setBlock(tag, sector, factory, offset, 1, trailer.data(), kTrailerSize, true, nullptr);
        records[sector] = {static_cast<short>(sector), current};
        if (current == kOk) continue;
        if (sector == 0 && withDirectory) return kDirectoryNotWritten;
        bad.note(sector);
        current = waitForTag(kWakeUpRequest, tag);
    }
    if (bad.any() && withDirectory)
        current =
            setBlock(tag, 0, {keys.keyB, AuthKeyB}, kFirstWritable, 2, bad.image().data(), mad::kSize, true, nullptr);
    tagIsSelected = current == kOk;
    return bad.any() ? kPartial : kOk;
}

int QvlMf500ReaderImpl::unformatTag(int readerId, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* statuses) {
    return guarded("unformatTag", int{kReaderFailed}, [&]() -> int {
        OperationFrame frame(*this);
        tag = nullptr;
        if (!frame.entered()) return frame.status();
        frame.showPrompt();
        if (const int found = getTagId(readerId, TagAppNone, 0, tag, AuthKeyA, nullptr, false); found != kOk)
            return frame.finish(found);
        frame.holdType(*tag);
        if (!hasTrailers(tag->getTagType())) return frame.finish(kNotAllowedHere);
        int last = kOk;
        const int status = unformatSectors(appType, {key, AuthKeyB}, *tag, statuses, last);
        return frame.finish(status, last == kOk);
    });
}

int QvlMf500ReaderImpl::unformatSectors(TagAppType appType, const KeyUse& key, TagUID& tag, int* statuses, int& last) {
    const Trailer factory(FactoryKey.data(), accessbits::kFactory, kPlainGeneralPurpose, FactoryKey.data());
    const Sector0Image sector0 = makeSector0(true, factory);
    const int sectors = static_cast<int>(tagInfoByType(tag.getTagType()).sectorCount);
    bool anyFailed = false;
    for (int sector = 0; sector < sectors; ++sector) {
        if (last != kOk) waitForTag(kWakeUpRequest, tag);
        const int offset = trailerOffsetOf(tag.getTagType(), sector);
        last = sector == 0 ? setBlock(tag, 0, key, kFirstWritable, 3, sector0.data(), static_cast<int>(sector0.size()),
                                      true, nullptr)
                           : setBlock(tag, sector, key, offset, 1, factory.data(), kTrailerSize, true, nullptr);
        if (statuses != nullptr) statuses[sector] = last;
        if (last == kOk) continue;
        if (sector == 0 && appType != TagAppNone) return kDirectoryNotWritten;
        anyFailed = true;
    }
    return anyFailed ? kPartial : kOk;
}

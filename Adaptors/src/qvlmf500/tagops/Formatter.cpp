#include "Formatter.h"

#include "DirectoryImage.h"
#include "SectorAccessBits.h"
#include "TagGeometry.h"
#include "TagSizes.h"

#include <algorithm>

namespace {

constexpr int kFirstWritable = 1;  // block 0 is the maker's
constexpr int kDirectoryBlocks = 2;

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

int sectorCountOf(const SelectedTag& tag) { return static_cast<int>(tagInfoByType(tag.type()).sectorCount); }

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

// Blocks 1 to 3: an empty directory and the trailer.
int Formatter::writeSector0(const KeyUse& key, bool withCrc, const Trailer& trailer) {
    DirectoryImage empty;
    if (withCrc) empty.updateDirectoryCrc();
    SecretBytes<mad::kSize + kBlockSize> image;
    std::copy_n(empty.data(), mad::kSize, image.begin());
    std::ranges::copy(trailer, image.begin() + mad::kSize);
    return mTag.write({0, kFirstWritable, kDirectoryBlocks + 1}, key, Login::anew, image);
}

int Formatter::format(TagAppType appType, const std::uint8_t* keyA, const std::uint8_t* keyB, OpRecords& records) {
    const KeyUse factory{FactoryKey.data(), AuthKeyA};
    const bool withDirectory = appType != TagAppNone;
    const Trailer first(keyA, withDirectory ? accessbits::kDirectory : accessbits::kFormatted,
                        generalPurposeOf(appType), keyB);
    const Trailer other(keyA, accessbits::kFormatted, kPlainGeneralPurpose, keyB);
    const int sectors = sectorCountOf(mTag);
    OpRecords all(sectors);
    BadSectors bad;
    int current = kOk;
    for (int sector = 0; sector < sectors; ++sector) {
        current = sector == 0 ? writeSector0(factory, withDirectory, first)
                              : mTag.writeTrailer(sector, factory, Login::anew, other);
        all.add(sector, current);
        if (current == kOk) continue;
        if (sector == 0 && withDirectory) return kDirectoryNotWritten;
        bad.note(sector);
        current = mTag.wake();
    }
    if (bad.any() && withDirectory)
        current = mTag.write({0, kFirstWritable, kDirectoryBlocks}, {keyB, AuthKeyB}, Login::anew,
                             {bad.image().data(), mad::kSize});
    records = std::move(all);
    mTag.leaveSelected(current == kOk);
    return bad.any() ? kPartial : kOk;
}

int Formatter::unformat(TagAppType appType, const std::uint8_t* key, int* statuses) {
    const KeyUse use{key, AuthKeyB};
    const Trailer factory(FactoryKey.data(), accessbits::kFactory, kPlainGeneralPurpose, FactoryKey.data());
    const int sectors = sectorCountOf(mTag);
    bool anyFailed = false;
    int last = kOk;
    for (int sector = 0; sector < sectors; ++sector) {
        if (last != kOk) mTag.wake();
        last = sector == 0 ? writeSector0(use, true, factory) : mTag.writeTrailer(sector, use, Login::anew, factory);
        if (statuses != nullptr) statuses[sector] = last;
        if (last == kOk) continue;
        if (sector == 0 && appType != TagAppNone) return kDirectoryNotWritten;
        anyFailed = true;
    }
    mTag.leaveSelected(last == kOk);
    return anyFailed ? kPartial : kOk;
}

#include "DirectoryImage.h"

#include "HostCalcCrc.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kMadCrcMode = 0x80;
constexpr int kFirstEntry = 1;

}  // namespace

bool SectorList::holds(int sector) const {
    return std::find(sectors.begin(), sectors.begin() + count, sector) != sectors.begin() + count;
}

std::uint16_t DirectoryImage::word(int word) const {
    const auto at = static_cast<std::size_t>(2 * word);
    return static_cast<std::uint16_t>(mBytes[at] | mBytes[at + 1] << 8);
}

void DirectoryImage::setWord(int word, std::uint16_t value) {
    const auto at = static_cast<std::size_t>(2 * word);
    mBytes[at] = static_cast<std::uint8_t>(value);
    mBytes[at + 1] = static_cast<std::uint8_t>(value >> 8);
}

SectorList DirectoryImage::collectAppSectors(std::uint16_t id) const {
    SectorList found;
    for (int w = kFirstEntry; w < mad::kWords; ++w)
        if (word(w) == id) found.add(w);
    return found;
}

SectorList DirectoryImage::clearAppSectors(std::uint16_t id, DirtyBlocks& dirty) {
    const SectorList found = collectAppSectors(id);
    for (int i = 0; i < found.count; ++i) {
        setWord(found[i], mad::kFree);
        dirty.touch(found[i]);
    }
    return found;
}

SectorList DirectoryImage::claimFreeEntries(std::uint16_t id, int wanted, int start, DirtyBlocks& dirty) {
    SectorList assigned;
    int w = start;
    while (assigned.count < wanted && nextFreeEntry(w, w)) {
        setWord(w, id);
        dirty.touch(w);
        assigned.add(w);
    }
    return assigned;
}

int DirectoryImage::lastAppEntry(std::uint16_t id) const {
    for (int w = mad::kWords - 1; w >= 0; --w)
        if (word(w) == id) return w;
    return 1;
}

bool DirectoryImage::nextFreeEntry(int from, int& word) const {
    for (int w = std::max(from, kFirstEntry); w < mad::kWords; ++w) {
        if (this->word(w) != mad::kFree) continue;
        word = w;
        return true;
    }
    return false;
}

void DirectoryImage::updateDirectoryCrc() {
    mBytes[0] = 0;
    HostCalcCrc(kMadCrcMode, mad::kSize - 1, mBytes.data() + 1, mBytes.data());
}

int directoryKind(std::uint8_t generalPurposeByte) {
    if ((generalPurposeByte & 0x81) == 0x81) return 1;
    return (generalPurposeByte & 0x82) == 0x82 ? 2 : 0;
}

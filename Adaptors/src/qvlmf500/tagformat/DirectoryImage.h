#pragma once

#include "TagSizes.h"

#include <array>
#include <cstdint>

/// The application directory of a tag of 16 sectors, as AN10787 (MIFARE application directory) publishes it: the 32
/// bytes of blocks 1 and 2 of sector 0. Pure.
///
///   0          CRC of bytes 1 to 31
///   1          info byte, carried along
///   2s, 2s+1   entry of sector s, 1 to 15: a 16-bit value, low byte first
///
/// 0 is free, 1 defect, 2 to 5 administration, 6 and above an application.

namespace mad {
inline constexpr std::uint16_t kFree = 0x0000;
inline constexpr std::uint16_t kDefect = 0x0001;
inline constexpr std::uint16_t kFirstApplication = 0x0006;
inline constexpr int kWords = 16;
inline constexpr std::size_t kSize = 32;
}  // namespace mad

/// Sector numbers in order; a tag has at most 40 sectors.
struct SectorList {
    std::array<std::uint8_t, 40> sectors{};
    int count = 0;

    void add(int sector) { sectors[static_cast<std::size_t>(count++)] = static_cast<std::uint8_t>(sector); }
    bool holds(int sector) const;
    int operator[](int index) const { return sectors[static_cast<std::size_t>(index)]; }
};

/// Which of the two directory blocks have to be written.
struct DirtyBlocks {
    bool block1 = false;
    bool block2 = false;

    void touch(int word) { (word < mad::kWords / 2 ? block1 : block2) = true; }
    bool any() const { return block1 || block2; }
};

class DirectoryImage {
  public:
    std::uint8_t* data() { return mBytes.data(); }
    const std::uint8_t* data() const { return mBytes.data(); }
    const std::uint8_t* block(int number) const { return mBytes.data() + (number - 1) * static_cast<int>(kBlockSize); }
    /// `word` 0 to 15; word 0 is CRC and info byte and never an entry.
    std::uint16_t word(int word) const;
    void setWord(int word, std::uint16_t value);

    /// Sectors whose entry equals `id`, ascending.
    SectorList collectAppSectors(std::uint16_t id) const;
    /// The same, and each such entry becomes free.
    SectorList clearAppSectors(std::uint16_t id, DirtyBlocks& dirty);
    /// Gives up to `wanted` free entries, from `start` upwards, to `id`.
    SectorList claimFreeEntries(std::uint16_t id, int wanted, int start, DirtyBlocks& dirty);
    /// The highest word equal to `id`; 1 when there is none.
    int lastAppEntry(std::uint16_t id) const;
    /// The first free entry from word `from` on. @return false when none is left.
    bool nextFreeEntry(int from, int& word) const;
    void updateDirectoryCrc();

  private:
    std::array<std::uint8_t, mad::kSize> mBytes{};
};

/// Kind of directory by the general purpose byte (byte 9 of the trailer of sector 0): 1, 2, or 0 for none.
int directoryKind(std::uint8_t generalPurposeByte);

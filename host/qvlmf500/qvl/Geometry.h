#pragma once

#include "TagTypes.h"

#include <cstddef>
#include <cstdint>
#include <optional>

namespace qvl {

/// Where the blocks of a tag are, by type, as in the data sheets MF1S50yyX, MF1S70yyX and MF0ICU1. A page of an
/// Ultralight is a block of 4 bytes.
struct Geometry {
    int sectors;
    int blocks;
    int blockSize;  ///< Bytes.
    bool hasTrailers;

    /// By the type code of a tag (TagTypes.h); none for types without memory of this kind.
    static constexpr std::optional<Geometry> of(std::uint32_t tagType) {
        switch (tagType) {
        case kTagStandard:
        case kTagProX:
            return Geometry{16, 64, 16, true};
        case kTag4K:
            return Geometry{40, 256, 16, true};
        case kTagUltralight:
            return Geometry{1, 16, 4, false};
        default:
            return std::nullopt;
        }
    }

    constexpr int firstBlock(int sector) const {
        return sector < kSmallSectors ? sector * kSmall : kSmallSectors * kSmall + (sector - kSmallSectors) * kLarge;
    }
    /// Blocks of the sector, its trailer included.
    constexpr int blocksOf(int sector) const {
        if (!hasTrailers) return blocks;
        return sector < kSmallSectors ? kSmall : kLarge;
    }
    constexpr int trailerOf(int sector) const { return firstBlock(sector) + blocksOf(sector) - 1; }
    constexpr int sectorOf(int block) const {
        if (!hasTrailers) return 0;
        constexpr int kFirstLargeBlock = kSmallSectors * kSmall;
        return block < kFirstLargeBlock ? block / kSmall : kSmallSectors + (block - kFirstLargeBlock) / kLarge;
    }
    constexpr bool isTrailer(int block) const { return hasTrailers && trailerOf(sectorOf(block)) == block; }
    /// Data blocks, which trailers are not, from this block to the end.
    constexpr int dataBlocksFrom(int block) const {
        int count = 0;
        for (int each = block; each < blocks; ++each)
            count += isTrailer(each) ? 0 : 1;
        return count;
    }
    /// Data blocks that share an access condition, and the group of one, 0 to 2.
    constexpr int groupSize(int sector) const { return (blocksOf(sector) - 1) / 3; }
    constexpr int groupOf(int block) const {
        const int sector = sectorOf(block);
        return (block - firstBlock(sector)) / groupSize(sector);
    }
    constexpr std::size_t bytes() const {
        return static_cast<std::size_t>(blocks) * static_cast<std::size_t>(blockSize);
    }

    friend bool operator==(const Geometry&, const Geometry&) = default;

  private:
    static constexpr int kSmallSectors = 32, kSmall = 4, kLarge = 16;
};

}  // namespace qvl

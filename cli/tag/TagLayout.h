#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

/// Where the blocks of a tag lie, by type and after the published data sheets. A page of an Ultralight is a block of 4
/// bytes.
struct TagLayout {
    int sectors;
    int blocks;
    int blockSize;
    bool hasTrailers;

    /// None for types whose memory cannot be shown.
    static std::optional<TagLayout> of(std::uint32_t tagType);

    int firstBlock(int sector) const;
    /// Blocks of the sector, its trailer included.
    int blocksOf(int sector) const;
    int trailerOf(int sector) const { return firstBlock(sector) + blocksOf(sector) - 1; }
    /// Data blocks that share an access condition, and the group of one, 0 to 2.
    int groupSize(int sector) const { return (blocksOf(sector) - 1) / 3; }
    int groupOf(int sector, int block) const { return (block - firstBlock(sector)) / groupSize(sector); }
    std::size_t bytes() const { return static_cast<std::size_t>(blocks) * static_cast<std::size_t>(blockSize); }
};

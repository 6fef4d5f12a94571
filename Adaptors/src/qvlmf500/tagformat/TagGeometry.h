#pragma once

#include "TagTypes.h"

#include <cstdint>

/// Where blocks, sectors and trailers lie on a tag of a type. Pure. Sectors and blocks in a sector count from 0; an
/// absolute block number counts from the start of the tag. On an Ultralight a page is a sector of one block. Statuses
/// are those of ServiceStatus.h.

inline constexpr int kSectors1K = 16;
inline constexpr int kSectors4K = 40;
inline constexpr int kPagesUltralight = 16;
inline constexpr int kFirstLargeSector = 32;
inline constexpr int kSmallTrailer = 3;  ///< Block in sector of the trailer, and the number of data blocks.
inline constexpr int kLargeTrailer = 15;
/// As a count of blocks: up to the end of the tag or application.
inline constexpr int kToTheEnd = 999;

/// A sector of sixteen blocks: the upper eight of a 4K tag.
bool isLargeSector(std::uint32_t type, int sector);
/// False for the types whose sectors end in no trailer that this system knows.
bool hasTrailers(std::uint32_t type);
/// Data blocks of a sector: 3, 15, or 1 for a page.
int dataBlocksOf(std::uint32_t type, int sector);

/// Absolute block number of block 0 of the sector.
int firstBlockOfSector(std::uint32_t type, int sector);
/// With `exact`, whether this is a sector number; without, whether it can be the end of a range, one past its last
/// sector.
bool isSectorInRange(std::uint32_t type, bool exact, int number);
/// Block in sector of the trailer. 3204 for a sector outside a 4K tag, 3205 for types without, and then `offset` stays.
int getTrailerOffset(std::uint32_t type, int sector, int& offset);
/// The same for the types that hasTrailers knows, whatever the sector: a type that only a caller can set counts as
/// well, since a trailer must never be taken for a data block.
int trailerOffsetOf(std::uint32_t type, int sector);
/// 3113 for a block outside the tag.
int blockToSector(std::uint32_t type, int block, int& sector, int& blockInSector);
/// 3000 when user data may start at this block; 3113 outside the tag, 3131 reserved, 3119 for an unknown type.
int checkUserBlock(std::uint32_t type, int block);

/// Sectors that hold a run of data blocks.
struct SectorRun {
    int sector = 0;
    int offset = 0;  ///< Block in the first sector.
    int count = 0;   ///< Of sectors.
};
/// Turns a first absolute block and a count of data blocks, trailers in between not counted, into sectors.
/// 3113 for a run that does not fit the tag.
int blockRangeToSectors(std::uint32_t type, int firstBlock, int blockCount, SectorRun& run);

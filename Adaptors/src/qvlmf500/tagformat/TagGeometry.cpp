#include "TagGeometry.h"

#include "ServiceStatus.h"

namespace {

constexpr int kSmallSectorSize = 4;
constexpr int kLargeSectorSize = 16;
constexpr int kFirstLargeBlock = kFirstLargeSector * kSmallSectorSize;
constexpr int kBlocks1K = kSectors1K * kSmallSectorSize;
constexpr int kBlocks4K = 256;
constexpr int kReservedPages = 2;

// Smallest number of sectors of `size` data blocks that hold `blocks`.
int sectorsFor(int blocks, int size) { return (blocks + size - 1) / size; }

int range4K(int firstBlock, int blockCount, SectorRun& run) {
    if (firstBlock + blockCount >= kBlocks4K) return kOutOfRange;
    if (const int status = blockToSector(kTag4K, firstBlock, run.sector, run.offset); status != kOk) return status;
    const int blocks = blockCount + run.offset;
    const int small = run.sector < kFirstLargeSector ? kFirstLargeSector - run.sector : 0;
    const int inSmall = sectorsFor(blocks, kSmallTrailer);
    run.count = inSmall <= small ? inSmall : small + sectorsFor(blocks - small * kSmallTrailer, kLargeTrailer);
    return run.sector + run.count > kSectors4K ? kOutOfRange : kOk;
}

int rangeUltralight(int firstPage, int pageCount, SectorRun& run) {
    if (pageCount != kToTheEnd && firstPage + pageCount > kPagesUltralight + 1) return kOutOfRange;
    if (firstPage >= kPagesUltralight) return kOutOfRange;
    run = {firstPage, 0, pageCount == kToTheEnd ? kPagesUltralight - firstPage : pageCount};
    return kOk;
}

int range1K(int firstBlock, int blockCount, SectorRun& run) {
    run.sector = firstBlock / kSmallSectorSize;
    run.offset = firstBlock % kSmallSectorSize;
    const int blocks = run.offset + blockCount;
    if (blockCount == kToTheEnd)
        run.count = kSectors1K - run.sector;
    else
        run.count = blocks <= kSmallTrailer ? 1 : sectorsFor(blocks, kSmallTrailer);
    return run.sector + run.count > kSectors1K ? kOutOfRange : kOk;
}

bool isTrailer(std::uint32_t type, int block) {
    if (type == kTag4K && block >= kFirstLargeBlock) return (block - kFirstLargeBlock + 1) % kLargeSectorSize == 0;
    return (block + 1) % kSmallSectorSize == 0;
}

}  // namespace

bool isLargeSector(std::uint32_t type, int sector) { return type == kTag4K && sector >= kFirstLargeSector; }

bool hasTrailers(std::uint32_t type) { return type == kTagStandard || type == kTagProX || type == kTag4K; }

int dataBlocksOf(std::uint32_t type, int sector) {
    if (type == kTagUltralight) return 1;
    return sector < kFirstLargeSector ? kSmallTrailer : kLargeTrailer;
}

int firstBlockOfSector(std::uint32_t type, int sector) {
    if (type == kTagUltralight) return sector;
    if (isLargeSector(type, sector)) return kFirstLargeBlock + (sector - kFirstLargeSector) * kLargeSectorSize;
    return sector * kSmallSectorSize;
}

bool isSectorInRange(std::uint32_t type, bool exact, int number) {
    if (number < 0) return false;
    if (type == kTag4K) return number < kSectors4K + (exact ? 0 : 1);
    if (type == kTagUltralight) return number < kPagesUltralight;
    return number < kSectors1K + (exact ? 0 : 1);
}

int getTrailerOffset(std::uint32_t type, int sector, int& offset) {
    if (type != kTag4K && type != kTagStandard) return kNoTrailers;
    if (type == kTag4K && (sector < 0 || sector >= kSectors4K)) return kNoSuchSector;
    offset = isLargeSector(type, sector) ? kLargeTrailer : kSmallTrailer;
    return kOk;
}

int trailerOffsetOf(std::uint32_t type, int sector) {
    return isLargeSector(type, sector) ? kLargeTrailer : kSmallTrailer;
}

int blockToSector(std::uint32_t type, int block, int& sector, int& blockInSector) {
    if (block < 0) return kOutOfRange;
    if (type == kTagUltralight) {
        sector = block;
        blockInSector = 0;
        return kOk;
    }
    if (block >= (type == kTag4K ? kBlocks4K : kBlocks1K)) return kOutOfRange;
    if (block < kFirstLargeBlock) {
        sector = block / kSmallSectorSize;
        blockInSector = block % kSmallSectorSize;
    } else {
        sector = (block - kFirstLargeBlock) / kLargeSectorSize + kFirstLargeSector;
        blockInSector = (block - kFirstLargeBlock) % kLargeSectorSize;
    }
    return kOk;
}

int checkUserBlock(std::uint32_t type, int block) {
    if (block < 0) return kOutOfRange;
    switch (type) {
    case kTagUltralight:
        if (block < kReservedPages) return kReservedBlock;
        return block < kPagesUltralight ? kMemoryOk : kOutOfRange;
    case kTagStandard:
    case kTagProX:
        if (block >= kBlocks1K) return kOutOfRange;
        break;
    case kTag4K:
        if (block >= kBlocks4K) return kOutOfRange;
        break;
    default:
        return kNotAllowedHere;
    }
    return isTrailer(type, block) ? kReservedBlock : kMemoryOk;
}

int blockRangeToSectors(std::uint32_t type, int firstBlock, int blockCount, SectorRun& run) {
    if (firstBlock < 0 || blockCount < 0) return kOutOfRange;
    switch (type) {
    case kTag4K:
        return range4K(firstBlock, blockCount, run);
    case kTagUltralight:
        return rangeUltralight(firstBlock, blockCount, run);
    default:
        return range1K(firstBlock, blockCount, run);
    }
}

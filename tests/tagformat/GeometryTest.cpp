// Where blocks, sectors and trailers lie, checked against a walk over the whole tag.

#include "TagGeometry.h"

#include "ServiceStatus.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Place {
    int sector, offset;
    bool trailer;
};

/// The blocks of a tag, laid out one by one.
std::vector<Place> layOut(std::uint32_t type) {
    std::vector<Place> places;
    for (int sector = 0; sector < (type == kTag4K ? 40 : 16); ++sector) {
        const int size = type == kTagUltralight ? 1 : sector < 32 ? 4 : 16;
        for (int offset = 0; offset < size; ++offset)
            places.push_back({sector, offset, size > 1 && offset == size - 1});
    }
    return places;
}

TEST(Geometry, EveryBlockHasItsPlace) {
    for (const std::uint32_t type : {kTagStandard, kTagProX, kTag4K, kTagUltralight}) {
        const std::vector<Place> places = layOut(type);
        for (std::size_t b = 0; b < places.size(); ++b) {
            const int block = static_cast<int>(b);
            const Place& p = places[b];
            int sector = -1, offset = -1;
            EXPECT_EQ(blockToSector(type, block, sector, offset), kOk);
            EXPECT_EQ(sector, p.sector);
            EXPECT_EQ(offset, p.offset);
            EXPECT_EQ(firstBlockOfSector(type, p.sector) + p.offset, block);
            const bool reserved = p.trailer || (type == kTagUltralight && block < 2);
            EXPECT_EQ(checkUserBlock(type, block), reserved ? int{kReservedBlock} : int{kMemoryOk}) << block;
            int trailer = -1;
            const int status = getTrailerOffset(type, p.sector, trailer);
            if (p.trailer && type != kTagProX) {
                EXPECT_EQ(status, kOk);
                EXPECT_EQ(trailer, p.offset);
            }
        }
        const int end = static_cast<int>(places.size());
        EXPECT_EQ(checkUserBlock(type, end), kOutOfRange);
        EXPECT_EQ(checkUserBlock(type, -1), kOutOfRange);
        int sector = 0, offset = 0;
        EXPECT_EQ(blockToSector(type, -1, sector, offset), kOutOfRange);
        EXPECT_EQ(blockToSector(type, end, sector, offset), type == kTagUltralight ? int{kOk} : int{kOutOfRange});
        const int last = type == kTag4K ? 40 : 16;
        EXPECT_TRUE(isSectorInRange(type, true, last - 1));
        EXPECT_FALSE(isSectorInRange(type, true, last));
        EXPECT_EQ(isSectorInRange(type, false, last), type != kTagUltralight);
        for (const int beyond : {last + 1, 64, 256, 260, -1})
            EXPECT_FALSE(isSectorInRange(type, false, beyond)) << beyond;
    }
    EXPECT_EQ(checkUserBlock(kTagDesFire, 5), kNotAllowedHere);
    int offset = 7;
    EXPECT_EQ(getTrailerOffset(kTag4K, 40, offset), kNoSuchSector);
    EXPECT_EQ(getTrailerOffset(kTag4K, -1, offset), kNoSuchSector);
    EXPECT_EQ(getTrailerOffset(kTagUltralight, 0, offset), kNoTrailers);
    EXPECT_EQ(getTrailerOffset(kTagProX, 0, offset), kNoTrailers);
    EXPECT_EQ(offset, 7);
}

/// Sectors that hold `count` data blocks from `first` on, found by walking; none if they do not fit.
int sectorsByWalk(std::uint32_t type, int first, int count) {
    const std::vector<Place> places = layOut(type);
    int left = count, last = places[static_cast<std::size_t>(first)].sector;
    for (std::size_t b = static_cast<std::size_t>(first); b < places.size() && left > 0; ++b) {
        if (places[b].trailer) continue;
        last = places[b].sector;
        --left;
    }
    return left > 0 ? -1 : last - places[static_cast<std::size_t>(first)].sector + 1;
}

TEST(Geometry, ARunCoversExactlyItsSectors) {
    for (const std::uint32_t type : {kTagStandard, kTag4K})
        for (int first = 0; first < (type == kTag4K ? 256 : 64); ++first) {
            if (checkUserBlock(type, first) != kMemoryOk) continue;
            for (int count = 1; count < 220; ++count) {
                SectorRun run;
                const int status = blockRangeToSectors(type, first, count, run);
                const int expected = type == kTag4K && first + count >= 256 ? -1 : sectorsByWalk(type, first, count);
                ASSERT_EQ(status, expected < 0 ? int{kOutOfRange} : int{kOk}) << first << "+" << count;
                if (expected >= 0) {
                    ASSERT_EQ(run.count, expected) << first << "+" << count;
                }
            }
        }
}

TEST(Geometry, RunsAtTheEdges) {
    struct Case {
        std::uint32_t type;
        int first, count;
        const char* run;  // sector.offset*sectors, or a status
    };
    const Case cases[] = {
        {kTagStandard, 4, 3, "1.0*1"},    {kTagStandard, 6, 2, "1.2*2"},      {kTagStandard, 60, 4, "3113"},
        {kTagStandard, 4, 999, "1.0*15"}, {kTagStandard, 4, -1, "3113"},      {kTagStandard, -4, 1, "3113"},
        {kTag4K, 4, 999, "3113"},         {kTag4K, 124, 4, "31.0*2"},         {kTag4K, 240, 15, "39.0*1"},
        {kTag4K, 240, 16, "3113"},        {kTagUltralight, 4, 999, "4.0*12"}, {kTagUltralight, 14, 3, "14.0*3"},
        {kTagUltralight, 14, 4, "3113"},  {kTagUltralight, 16, 1, "3113"}};
    for (const Case& c : cases) {
        SectorRun run;
        const int status = blockRangeToSectors(c.type, c.first, c.count, run);
        const std::string told = status != kOk ? std::to_string(status)
                                               : std::to_string(run.sector) + "." + std::to_string(run.offset) + "*" +
                                                     std::to_string(run.count);
        EXPECT_EQ(told, c.run) << c.type << ": " << c.first << "+" << c.count;
    }
}

}  // namespace

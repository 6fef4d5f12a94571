// Where blocks, sectors and trailers lie, checked against a walk over the whole tag.

#include "ServiceStatus.h"
#include "TagGeometry.h"

#include <gtest/gtest.h>

#include <array>
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
            EXPECT_EQ(std::pair(sector, offset), std::pair(p.sector, p.offset));
            EXPECT_EQ(firstBlockOfSector(type, p.sector) + p.offset, block);
            const bool reserved = p.trailer || (type == kTagUltralight && block < 2);
            EXPECT_EQ(checkUserBlock(type, block), reserved ? int{kReservedBlock} : int{kMemoryOk}) << block;
            int trailer = -1;
            if (!p.trailer || type == kTagProX) continue;
            EXPECT_EQ(getTrailerOffset(type, p.sector, trailer), kOk);
            EXPECT_EQ(trailer, p.offset);
        }
        const int end = static_cast<int>(places.size());
        int sector = 0, offset = 0;
        EXPECT_EQ(blockToSector(type, -1, sector, offset), kOutOfRange);
        for (const int outside : {-1, end})
            EXPECT_EQ(checkUserBlock(type, outside), kOutOfRange);
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
    for (const int sector : {40, -1})
        EXPECT_EQ(getTrailerOffset(kTag4K, sector, offset), kNoSuchSector);
    for (const std::uint32_t type : {kTagUltralight, kTagProX})
        EXPECT_EQ(getTrailerOffset(type, 0, offset), kNoTrailers);
    EXPECT_EQ(offset, 7);
}

TEST(Geometry, ARunCoversExactlyItsSectors) {
    for (const std::uint32_t type : {kTagStandard, kTag4K, kTagUltralight}) {
        const std::vector<Place> places = layOut(type);
        for (std::size_t first = 1; first < places.size(); ++first) {
            if (places[first].trailer) continue;
            int count = 0;
            for (std::size_t last = first; last < places.size(); ++last) {
                if (places[last].trailer || first + static_cast<std::size_t>(count) >= 255) continue;
                SectorRun run;
                ASSERT_EQ(blockRangeToSectors(type, static_cast<int>(first), ++count, run), kOk)
                    << first << "+" << count;
                ASSERT_EQ((std::array{run.sector, run.offset, run.count}),
                          (std::array{places[first].sector, places[first].offset,
                                      places[last].sector - places[first].sector + 1}))
                    << first << "+" << count;
            }
            SectorRun run;
            const int most = count + (type == kTagUltralight ? 1 : 0);  // the page after the last one counts too
            ASSERT_EQ(blockRangeToSectors(type, static_cast<int>(first), most, run), kOk) << first;
            ASSERT_EQ(blockRangeToSectors(type, static_cast<int>(first), most + 1, run), kOutOfRange) << first;
        }
        SectorRun run;
        for (const int count : {1, -1})
            EXPECT_EQ(blockRangeToSectors(type, count < 0 ? 4 : static_cast<int>(places.size()), count, run),
                      kOutOfRange);
    }
}

}  // namespace

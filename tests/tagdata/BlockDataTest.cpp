// Runs of data blocks by absolute number.

#include "TagWorkplace.h"

namespace {

TEST(BlockData, SkipsTrailersAndReportsEachBlock) {
    TagWorkplace place;
    Bytes bytes(48);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i + 1);
    EXPECT_EQ(place.write(TagAppNone, 0, 1, 3, bytes, kFactory, AuthKeyA), kOk);
    EXPECT_EQ(place.told, "1 2 4");
    EXPECT_EQ(place.block(4), Bytes(bytes.begin() + 32, bytes.end()));
    EXPECT_EQ(place.read(TagAppNone, 0, 1, 3, kFactory), kOk);
    EXPECT_EQ(place.data, bytes);
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 999, kFactory), kOk);
    EXPECT_EQ(place.data.size(), 720u);
    EXPECT_EQ(place.count, 45);
    EXPECT_EQ(place.read(TagAppNone, 0, 0, 1, kFactory), kOk);
    EXPECT_EQ(place.data, place.block(0));
}

TEST(BlockData, RefusesRunsThatDoNotFit) {
    struct Case {
        short first, count;
        int length, status;
    };
    const Case cases[] = {{3, 1, 16, kReservedBlock}, {64, 1, 16, kOutOfRange},   {-1, 1, 16, kOutOfRange},
                          {4, -1, 0, kOutOfRange},    {60, 4, 64, kOutOfRange},   {4, 1, 17, kDataTooLong},
                          {4, 1, -1, kDataTooLong},   {4, 32767, 1, kOutOfRange}, {62, 1, 16, kOk}};
    for (const Case& c : cases) {
        TagWorkplace place;
        const std::uint32_t writes = place.virtualTag->memory()->writeCount();
        std::uint8_t bytes[64] = {};
        int count = 0;
        OpResultCode* results = nullptr;
        EXPECT_EQ(place.adaptor->setBlockData(0, TagAppNone, place.tag, 0, AuthKeyA, kFactory.data(), c.first, c.count,
                                              bytes, c.length, AuthKeyA, nullptr, nullptr, count, results),
                  c.status)
            << c.first << "+" << c.count;
        EXPECT_EQ(count, c.status == kOk ? 1 : 0);
        place.adaptor->freeMemory(results);
        if (c.status != kOk) {
            EXPECT_EQ(place.virtualTag->memory()->writeCount(), writes);
        }
    }
    TagWorkplace place;
    int length = 0;
    std::uint8_t* data = nullptr;
    const TagUID empty, longUid(Bytes(11, 1).data(), 11, kTagStandard);
    const auto readOf = [&](const TagUID& tag) {
        return place.adaptor->getBlockData(0, TagAppNone, tag, 0, AuthKeyA, kFactory.data(), 4, 1, data, length,
                                           AuthKeyA, nullptr, nullptr);
    };
    EXPECT_EQ(readOf(empty), kTagWithoutUid);
    EXPECT_EQ(readOf(longUid), kNoTag);
    EXPECT_EQ(place.read(TagAppMad1, 5, 0, 1, kFactory), kNoApplicationId);
    EXPECT_EQ(place.adaptor->setBlockData(0, TagAppNone, place.tag, 0, AuthKeyA, kFactory.data(), 4, 1, nullptr, 16,
                                          AuthKeyA, nullptr, nullptr),
              kReaderFailed);
}

TEST(BlockData, PadsWithZeroesOrAPattern) {
    TagWorkplace place;
    std::uint8_t pattern[16];
    for (std::uint8_t i = 0; i < 16; ++i)
        pattern[i] = static_cast<std::uint8_t>(0xA0 + i);
    EXPECT_EQ(place.write(TagAppNone, 0, 4, 2, Bytes(20, 0x11), kFactory, AuthKeyA, pattern), kOk);
    Bytes expected(pattern, pattern + 16);
    std::fill_n(expected.begin(), 4, std::uint8_t{0x11});
    EXPECT_EQ(place.block(4), Bytes(16, 0x11));
    EXPECT_EQ(place.block(5), expected);
    EXPECT_EQ(place.write(TagAppNone, 0, 4, 2, {}, kFactory, AuthKeyA), kOk);
    EXPECT_EQ(place.block(5), Bytes(16, 0));
}

TEST(BlockData, HalfSucceedsAndSaysWhichHalf) {
    TagWorkplace place;
    for (int block = 4; block < 15; ++block)
        if (block % 4 != 3) place.poke(block, Bytes(16, static_cast<std::uint8_t>(block)));
    Bytes other(16, 0);
    std::copy_n(kC.begin(), 6, other.begin());
    std::copy_n(std::begin(accessbits::kFactory), 3, other.begin() + 6);
    place.poke(11, other);
    EXPECT_EQ(place.read(TagAppNone, 0, 5, 6, kFactory), kPartial);
    EXPECT_EQ(place.told, "5 6 8:3102 9:3102 10:3102 12");
    Bytes expected(16, 5);
    expected.resize(32, 6);
    expected.resize(80, 0);
    expected.resize(96, 12);
    EXPECT_EQ(place.data, expected);
    EXPECT_EQ(place.write(TagAppNone, 0, 5, 6, Bytes(96, 0x42), kFactory, AuthKeyA), kPartial);
    EXPECT_EQ(place.told, "5 6 8:3102 9:3102 10:3102 12");
    EXPECT_EQ(place.block(8), Bytes(16, 8));
    EXPECT_EQ(place.block(12), Bytes(16, 0x42));
    std::vector<int> statuses(6, 0);
    std::uint8_t* data = nullptr;
    int length = 0;
    EXPECT_EQ(place.adaptor->getBlockData(0, TagAppNone, place.tag, 0, AuthKeyA, kFactory.data(), 5, 6, data, length,
                                          AuthKeyA, nullptr, statuses.data()),
              kPartial);
    EXPECT_EQ(statuses, (std::vector<int>{kOk, kOk, kKeyRefused, kKeyRefused, kKeyRefused, kOk}));
    place.adaptor->freeMemory(data);
}

TEST(BlockData, RetriesABlockThreeTimes) {
    for (const char* effect : {"status 01", "status 14", "error", "wrong checksum"}) {
        TagWorkplace place;
        place.poke(5, Bytes(16, 0x31));
        place.reader->addFaults(std::string("40 2 ") + effect);
        EXPECT_EQ(place.read(TagAppNone, 0, 4, 3, kFactory), kOk) << effect;
        EXPECT_EQ(Bytes(place.data.begin() + 16, place.data.begin() + 32), Bytes(16, 0x31));
    }
    TagWorkplace place;
    place.reader->addFaults("40 1 tag gone");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 3, kFactory), kPartial);
    EXPECT_EQ(place.told, "4:3102 5:3102 6:3102");
    EXPECT_EQ(place.data, Bytes(48, 0));
}

TEST(BlockData, OnALargeTagAndOnPages) {
    TagWorkplace place(4096);
    EXPECT_EQ(place.read(TagAppNone, 0, 124, 20, kFactory), kOk);
    EXPECT_EQ(place.told, "124 125 126 128 129 130 131 132 133 134 135 136 137 138 139 140 141 142 144 145");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 999, kFactory), kOutOfRange);
    EXPECT_EQ(place.write(TagAppMad1, 100, 0, 1, Bytes(16, 1), kFactory), kNotAllowedHere);

    place.reader->field().clear();
    Bytes pages(64, 0);
    const Bytes uid{4, 1, 2, 3, 4, 5, 6};
    std::copy_n(uid.begin(), 3, pages.begin());
    pages[3] = 0x88 ^ 4 ^ 1 ^ 2;
    std::copy_n(uid.begin() + 3, 4, pages.begin() + 4);
    pages[8] = 3 ^ 4 ^ 5 ^ 6;
    for (std::uint8_t i = 16; i < 64; ++i)
        pages[i] = i;
    place.reader->field().place(std::make_shared<UltralightTag>(pages));
    place.tag = TagUID(uid.data(), 7, kTagUltralight);
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 999, kFactory), kOk);
    EXPECT_EQ(place.told, "4 5 6 7 8 9 10 11 12 13 14 15");
    EXPECT_EQ(place.data, Bytes(pages.begin() + 16, pages.end()));
    EXPECT_EQ(place.write(TagAppNone, 0, 5, 2, Bytes(8, 0x5A), kFactory), kOk);
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 4, kFactory), kOk);
    EXPECT_EQ(place.data, (Bytes{16, 17, 18, 19, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 28, 29, 30, 31}));
    EXPECT_EQ(place.write(TagAppNone, 0, 5, 2, Bytes(9, 0x5A), kFactory), kDataTooLong);
    EXPECT_EQ(place.read(TagAppNone, 0, 1, 1, kFactory), kReservedBlock);
    EXPECT_EQ(place.read(TagAppMad1, 100, 0, 1, kFactory), kApplicationMissing);
}

TEST(BlockData, NeverGoesToAnotherTag) {
    TagWorkplace place;
    place.reader->addFaults("40 2 tag swapped");
    EXPECT_NE(place.write(TagAppNone, 0, 4, 3, Bytes(48, 0x77), kFactory, AuthKeyA), kOk);
    for (const auto& entry : place.reader->field().list()) {
        if (entry.tag == place.virtualTag) continue;
        EXPECT_EQ(entry.tag->memory()->writeCount(), 0u) << "the stranger is untouched";
    }
}

}  // namespace

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
        std::size_t length;
        int status;
    };
    const Case cases[] = {{3, 1, 16, kReservedBlock},
                          {64, 1, 16, kOutOfRange},
                          {60, 4, 64, kOutOfRange},
                          {4, 1, 17, kDataTooLong},
                          {62, 1, 16, kOk}};
    for (const Case& c : cases) {
        TagWorkplace place;
        EXPECT_EQ(place.write(TagAppNone, 0, c.first, c.count, Bytes(c.length), kFactory, AuthKeyA), c.status);
        EXPECT_EQ(place.count, c.status == kOk ? 1 : 0) << c.first;
        EXPECT_EQ(place.virtualTag->memory()->writeCount(), c.status == kOk ? 1u : 0u) << c.first;
    }
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
    place.poke(11, {1, 1, 1, 1, 1, 1, 0xFF, 0x07, 0x80, 0, 1, 1, 1, 1, 1, 1});
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
}

TEST(BlockData, RetriesABlockThreeTimes) {
    // To a PN531 authentication and read are one command, of which the first read is the second.
    const std::string firstRead = isMf500UnderTest() ? "1 " : "2 ";
    for (const char* effect : {"status 01", "status 14", "error", "wrong checksum"}) {
        if (!Workplace::hasFault(effect)) continue;
        TagWorkplace place;
        place.poke(5, Bytes(16, 0x31));
        ASSERT_EQ(place.spoil(Op::read, firstRead + effect), "");
        EXPECT_EQ(place.read(TagAppNone, 0, 4, 3, kFactory), kOk) << effect;
        EXPECT_EQ(Bytes(place.data.begin() + 16, place.data.begin() + 32), Bytes(16, 0x31));
    }
    TagWorkplace place;
    ASSERT_EQ(place.spoil(Op::authenticate, "1 tag gone"), "");
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
    const Bytes uid{4, 1, 2, 3, 4, 5, 6};
    Bytes pages = UltralightTag::blankImage(uid);
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
    EXPECT_EQ(place.read(TagAppMad1, 0x0605, 2, 999, kFactory), kTooFew)
        << "its UID looks like a directory of one entry";
}

}  // namespace

// Factory state, formatted state, and back.

#include "SweptOperations.h"

namespace {

const Bytes kOpen{0xFF, 0x07, 0x80}, kDirectory{0x69, 0x67, 0x89};

struct FormatCase {
    TagAppType kind;
    const Key* newKeyA;
    Key keyA;
    Bytes access0;
    std::uint8_t gpb, crc;
};

TEST(Formatting, GivesEverySectorItsTrailerAndBringsItBack) {
    const FormatCase cases[] = {{TagAppMad1, nullptr, kMad, kDirectory, 0xC1, 0xCE},
                                {TagAppMad2, nullptr, kMad, kDirectory, 0xC2, 0xCE},
                                {TagAppMad1, &kA, kA, kDirectory, 0xC1, 0xCE},
                                {TagAppNone, nullptr, kFactory, kFormattedBits, 0x69, 0x00}};
    for (const FormatCase& c : cases) {
        TagWorkplace place;
        const Bytes before = place.image();
        ASSERT_EQ(place.format(c.kind, c.newKeyA), kOk);
        EXPECT_EQ(place.told, "0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15");
        EXPECT_EQ(place.block(3), trailerBytes(c.keyA, c.access0, c.gpb, kB));
        EXPECT_EQ(place.block(1)[0], c.crc);
        for (int sector = 1; sector < 16; ++sector)
            EXPECT_EQ(place.block(sector * 4 + 3), trailerBytes(c.keyA, kFormattedBits, 0x69, kB)) << sector;
        ASSERT_EQ(place.unformat(c.kind), kOk);
        Bytes expected = before;
        expected[16] = 0xCE;  // the factory state of this system carries the checksum of an empty directory
        EXPECT_EQ(place.image(), expected);
    }
}

TEST(Formatting, KnowsThe4KTag) {
    TagWorkplace place(4096);
    const Bytes before = place.image();
    EXPECT_EQ(place.format(TagAppMad1), kNotAllowedHere) << "no directory there";
    EXPECT_EQ(place.count, 0);
    EXPECT_EQ(place.image(), before);
    ASSERT_EQ(place.format(TagAppNone), kOk);
    EXPECT_EQ(place.count, 40);
    for (int sector = 32; sector < 40; ++sector)
        EXPECT_EQ(place.block(128 + (sector - 32) * 16 + 15), trailerBytes(kFactory, kFormattedBits, 0x69, kB));
    EXPECT_EQ(place.unformat(TagAppNone), kOk);
}

TEST(Formatting, NamesBadSectorsInTheDirectory) {
    TagWorkplace place;
    place.poke(5 * 4 + 3, trailerBytes(kC, kOpen, 0x69, kC));  // another key: cannot be written
    EXPECT_EQ(place.format(TagAppMad1), kPartial);
    EXPECT_EQ(place.told, "0 1 2 3 4 5:3102 6 7 8 9 10 11 12 13 14 15");
    Bytes directory = place.block(1);
    EXPECT_EQ(directory[10], 1);
    EXPECT_EQ(directory[0], 0x2D) << "its checksum fits";
    EXPECT_EQ(place.block(2), Bytes(16, 0));
    EXPECT_EQ(place.unformat(TagAppMad1), kPartial);
}

TEST(Formatting, StopsWithoutADirectoryOrGoesOnWithoutOne) {
    TagWorkplace place;
    place.poke(3, trailerBytes(kC, kOpen, 0x69, kC));
    const Bytes before = place.image();
    EXPECT_EQ(place.format(TagAppMad1), kDirectoryNotWritten);
    EXPECT_EQ(place.count, 0);
    EXPECT_EQ(place.image(), before);
    EXPECT_EQ(place.format(TagAppNone), kPartial);
    EXPECT_EQ(place.told.substr(0, 8), "0:3102 1");
    EXPECT_EQ(place.unformat(TagAppMad1), kDirectoryNotWritten);
    EXPECT_EQ(place.block(7), trailerBytes(kFactory, kFormattedBits, 0x69, kB)) << "nothing written";
    EXPECT_EQ(place.unformat(TagAppNone), kPartial);
    EXPECT_EQ(place.block(7), trailerBytes(kFactory, kOpen, 0x69, kFactory));
}

TEST(Formatting, RefusesWhatItCannotDo) {
    TagWorkplace place;
    place.reader->field().clear();
    EXPECT_EQ(place.format(TagAppMad1), kCancelled) << "nobody to wait for";
    place.reader->field().place(std::make_shared<UltralightTag>(Bytes(64, 0)));
    EXPECT_EQ(place.format(TagAppNone), kNotAllowedHere);
    EXPECT_EQ(place.unformat(TagAppNone), kNotAllowedHere);
    place.adaptor->stopReader();
    EXPECT_EQ(place.format(TagAppMad1), kReaderNotReady);
    EXPECT_EQ(place.unformat(TagAppMad1), kReaderNotReady);
}

}  // namespace

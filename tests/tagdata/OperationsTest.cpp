// What operations on a tag's memory answer, and what they leave on the tag.

#include "TagCalls.h"

#include <gmock/gmock.h>

namespace {

using ::testing::ElementsAre;

constexpr short kNew = 0x777;

class OnATag : public TagCalls {
  protected:
    std::string valueOf(int block) {
        const int status = value(kPlain, block);
        return (status == kOk ? "" : std::to_string(status) + "/") + std::to_string(number);
    }
};

TEST_F(OnATag, RefusalsWriteNothing) {
    const std::pair<int, std::vector<int>> refused[] = {
        {kApplicationExists, {init(kId, 1)}},
        {kApplicationMissing, {add(kApp, kNew, 1), read(kApp, 0, 1, kA.data(), kNew)}},
        {kTooFew,
         {init(kNew, 8), add(kApp, kId, 8), remove(kApp, kId, 0, 4), remove(kApp, kId, 2, 2), add(kPlain, 15, 2),
          add(kPlain, 250, 10), remove(kPlain, 2, 0, 15), read(kApp, 8, 2), keys(kPlain, 15, 2),
          trailers(kPlain, 1, 41, 13)}},
        {kNoApplicationId, {init(5, 1)}},
        {kOutOfRange,
         {remove(kApp, kId, 3, 1), read(kApp, 10, 1), write(kPlain, 64, 1, 16, buffer),
          write(kPlain, 60, 4, 64, buffer), blockAccess(kPlain, 64), sectorAccess(kPlain, 17, 0, codes.data())}},
        {kNewKeyMissing, {remove(kPlain, 5, 0, 1, kC.data(), nullptr)}},
        {kReservedBlock, {read(kPlain, 3, 1), type(kPlain, 23, 1)}},
        {kDataTooLong, {write(kPlain, 28, 1, 17, buffer), write(kApp, 0, 999, Bytes(145))}},
        {3114, {type(kPlain, 20, 1, kA.data(), 2050)}},
        {3117, {type(kPlain, 20, 6), type(kPlain, 20, 16)}},
        {3116, {type(kPlain, 20, 1, kA.data(), kValue)}},
        {3115, {type(kPlain, 20, 7, kA.data(), kValue, 0)}},
        {kNoValueBlock, {value(kPlain, 20), setValue(kPlain, 20)}},
        {kValueFailed, {adjust(kPlain, 20, -1)}},
        {kNotAllowedHere,
         {adjust(kPlain, 20, -1, 2), adaptor->getAppIdDir(0, kPlain, tag, nullptr, AuthKeyA, nullptr)}},
        {kKeyRefused, {adjust(kPlain, 20, -1, 0, kB.data())}},
        {kDirectoryNotRead, {value(kApp, 11)}},
        {3127, {trailers(kPlain, 5, 2, 5)}}};
    for (const auto& [wanted, given] : refused)
        EXPECT_THAT(given, ::testing::Each(wanted));
    EXPECT_EQ(told(trailers(kPlain, 16, 2, 13)), "3132 16:3113 17:3113") << "no sector number is cut to a byte";
    EXPECT_EQ(image(), layout);
}

TEST_F(OnATag, ApplicationsTakeAndGiveBackSectors) {
    EXPECT_EQ(told(init(kNew, 1)), "3100 6");
    EXPECT_EQ(told(add(kApp, kId, 2)), "3100 10 11") << "above its highest";
    EXPECT_EQ(apps(AuthKeyB), kOk) << "read with the public key A";
    EXPECT_THAT(ids, ElementsAre(8721, 17459, kId, kNew));
    for (const int sector : {12, 14, 15})
        poke(trailerOf(sector), trailerBytes(kFactory, kFormattedBits, 0x69, kFactory));
    EXPECT_EQ(told(add(kApp, kNew, 1)), "3100 12:3102 13");
    EXPECT_EQ(told(add(kApp, kNew, 1)), "3132 14:3102 15:3102");
    EXPECT_EQ(remove(kApp, kId, 1, 1), kOk);
    for (const int sector : {7, 12, 14, 15})
        EXPECT_EQ(entryOf(image(), sector), 0) << "free again: " << sector;
    EXPECT_EQ(block(28), Bytes(16, 0));
    EXPECT_EQ(block(31), trailerBytes(kMad, kFormattedBits, 0x69, kC));
    EXPECT_EQ(block(20), blockOf(layout, 20));
    setImage(MifareClassicTag::blankImage(1024, Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(apps(AuthKeyA, kFactory.data()), kNoDirectory);
    EXPECT_EQ(apps(AuthKeyA), kDirectoryNotRead);
}

TEST_F(OnATag, DataIsAddressedByApplicationAndPadded) {
    Bytes bytes(144), pattern(16);
    for (std::uint8_t i = 0; i < 144; ++i)
        bytes[i] = pattern[i % 16] = i;
    EXPECT_EQ(told(write(kApp, 0, 999, bytes)), "3100 0 1 2 3 4 5 6 7 8");
    EXPECT_EQ(block(28), Bytes(bytes.begin() + 48, bytes.begin() + 64)) << "its second sector is 7";
    EXPECT_EQ(block(24), blockOf(layout, 24));
    EXPECT_EQ(read(kApp, 2, 2), kOk);
    EXPECT_EQ(data, Bytes(bytes.begin() + 32, bytes.begin() + 64));
    const Bytes ten(10, 0x99), twenty(20, 0x99);
    EXPECT_EQ(write(kApp, 0, 2, ten), kOk);
    EXPECT_EQ(told(write(kPlain, 22, 2, twenty, kC.data(), AuthKeyB, pattern.data())), "3132 22 24:3102")
        << "the next sector has another key";
    EXPECT_EQ(write(kPlain, 30, 2, twenty, kC.data(), AuthKeyB, pattern.data()), kOk);
    std::fill_n(pattern.begin(), 4, std::uint8_t{0x99});
    EXPECT_EQ(block(32), pattern);
    EXPECT_EQ(read(kPlain, 20, 4), kPartial);
    Bytes expected(64, 0);
    std::ranges::copy(ten, expected.begin());
    std::fill_n(expected.begin() + 32, 16, std::uint8_t{0x99});
    EXPECT_EQ(data, expected);
    spoil(Op::authenticate, "1 tag gone");
    EXPECT_EQ(told(read(kPlain, 20, 3)), "3132 20:3102 21:3102 22:3102");
}

TEST_F(OnATag, AValueCountsUpAndDown) {
    ASSERT_EQ(type(kPlain, 21, AccData110, kA.data(), kValue, 100), kOk);
    EXPECT_EQ(block(21)[12], 0) << "in plain mode the address byte is 0";
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueIncrement, kC.data(), AuthKeyB, 5), kOk);
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueDecrement, kA.data(), AuthKeyA, 3), kOk);
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueIncrement, kA.data(), AuthKeyA), kValueFailed) << "key A may not";
    ASSERT_EQ(type(kPlain, 22, AccData110, kA.data(), kValue, 1), kOk);
    EXPECT_EQ(adjust(kPlain, 21, 22, ValueIncrement, kC.data(), AuthKeyB, 8), kOk);
    EXPECT_EQ(valueOf(21) + " " + valueOf(22), "102 110");
    EXPECT_EQ(setValue(kPlain, 22, kC.data(), -5), kOk);
    EXPECT_EQ(valueOf(22), "-5");
    Bytes damaged = block(22);
    EXPECT_EQ(damaged[12], 22);
    damaged[8] ^= 1;
    poke(22, damaged);
    EXPECT_EQ(valueOf(22), "3129/-5");
    ASSERT_EQ(type(kApp, 4, AccData110, kA.data(), kValue, 7), kOk);
    EXPECT_EQ(block(29)[12], 29) << "block 4 of the application, with its own address";
    EXPECT_EQ(value(kApp, 4), kOk);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(sectorAccess(kApp, kId, 1, codes.data()), kOk);
    EXPECT_EQ(codes[1], AccData110);
    ASSERT_EQ(adaptor->initDecrementOnlyBlock(0, kPlain, tag, 0, kA.data(), kC.data(), 34, 10, AuthKeyA, nullptr), kOk);
    EXPECT_EQ(adjust(kPlain, 34, -1, ValueDecrement, kA.data(), AuthKeyA, 4), kOk);
    EXPECT_EQ(adjust(kPlain, 34, -1, ValueIncrement), kValueFailed) << "a ticket only goes down";
    EXPECT_EQ(valueOf(34), "6");
}

// A lost answer leaves the change done or not done, never done twice.
TEST_F(OnATag, ALostAnswerIsNeverPaidTwice) {
    ASSERT_EQ(type(kPlain, 21, AccData110, kA.data(), kValue, 100), kOk);
    const std::vector<std::string> tama{"40 1 ", "40 2 ", "40 3 "}, mf500{"18 1 ", "19 1 ", "1B 1 "};
    for (const std::string& step : isMf500UnderTest() ? mf500 : tama)
        for (const char* effect : {"no reply", "no answer", "no ack", "error", "tag gone"}) {
            if (!hasFault(effect)) continue;
            const int before = std::stoi(valueOf(21));
            ASSERT_EQ(reader->addFaults(step + effect), "");
            const int status = adjust(kPlain, 21, -1, ValueDecrement);
            reader->clearFaults();
            reader->field().setPresent(name, true);
            ASSERT_TRUE(adaptor->initReader());
            const int after = std::stoi(valueOf(21));
            EXPECT_TRUE(after == before - 1 || (after == before && status != kOk)) << step << effect;
        }
}

TEST_F(OnATag, ABlocksTypeKeysAndTrailersAreReplaced) {
    EXPECT_EQ(type(kPlain, 21, AccData101), kOk);
    EXPECT_EQ(block(21), Bytes(16, 0)) << "setting the type clears the block";
    const std::uint32_t writes = virtualTag->memory()->writeCount();
    EXPECT_EQ(type(kPlain, 21, AccData100), kOk) << "closed to key B, so it is opened first";
    EXPECT_EQ(virtualTag->memory()->writeCount() - writes, 3u);
    for (int code = 0; code < 8; ++code) {
        EXPECT_EQ(type(kPlain, 22, code, kA.data(), 0, 1), kOk) << code;
        EXPECT_EQ(blockAccess(kPlain, 22, kA.data()), kOk);
        EXPECT_EQ(codes[0], code);
    }
    EXPECT_EQ(told(keys(kPlain, 7, 3)), "3100 7 8 9");
    EXPECT_EQ(told(keys(kPlain, 5, 2)), "3132 5 6:3102");
    EXPECT_EQ(told(keys(kPlain, 5, -3)), "3100 5") << "below 1 counts as 1";
    EXPECT_EQ(block(31), trailerBytes(kA, kFormattedBits, 0x69, kC)) << "access bytes and byte 9 stay";
    EXPECT_EQ(told(trailers(kPlain, 7, 2, 12)), "3100 7 8");
    EXPECT_EQ(block(35)[6], 0xFF);
    for (int bit = 0; bit < 24; ++bit) {
        Bytes garbled = trailerBytes(kA, kFormattedBits, 0x69, kC);
        garbled[static_cast<std::size_t>(6 + bit / 8)] ^= static_cast<std::uint8_t>(1 << bit % 8);
        poke(23, garbled);
        EXPECT_NE(type(kPlain, 21, AccData101), kOk);
        EXPECT_EQ(block(23), garbled) << "never written back";
    }
}

TEST_F(OnATag, FormattingNamesBadSectorsAndComesBack) {
    const Bytes directory{0x69, 0x67, 0x89}, open{0xFF, 0x07, 0x80};
    const Bytes blank = MifareClassicTag::blankImage(1024, Bytes{0xDE, 0xAD, 0xBE, 0xEF});
    const struct {
        TagAppType kind;
        const Key* newKeyA;
        Bytes trailer0;
    } cases[] = {{TagAppMad1, nullptr, trailerBytes(kMad, directory, 0xC1, kB)},
                 {TagAppMad2, nullptr, trailerBytes(kMad, directory, 0xC2, kB)},
                 {TagAppMad1, &kA, trailerBytes(kA, directory, 0xC1, kB)},
                 {TagAppNone, nullptr, trailerBytes(kFactory, kFormattedBits, 0x69, kB)}};
    for (const auto& c : cases) {
        setImage(blank);
        EXPECT_EQ(told(format(c.kind, c.newKeyA)), "3100 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15");
        EXPECT_EQ(block(3), c.trailer0);
        ASSERT_EQ(unformat(c.kind), kOk);
        Bytes expected = blank;
        expected[16] = 0xCE;  // the factory state of this system carries the checksum of an empty directory
        EXPECT_EQ(image(), expected);
    }
    poke(23, trailerBytes(kC, open, 0x69, kC));  // another key: cannot be written
    EXPECT_EQ(told(format(kApp)), "3132 0 1 2 3 4 5:3102 6 7 8 9 10 11 12 13 14 15");
    EXPECT_EQ(block(1)[10] << 8 | block(1)[0], 0x012D) << "defect, and the checksum fits";
    EXPECT_EQ(unformat(kApp), kPartial);
    setImage(blank);
    poke(3, trailerBytes(kC, open, 0x69, kC));
    const Bytes before = image();
    EXPECT_EQ(format(kApp), kDirectoryNotWritten);
    EXPECT_EQ(unformat(kApp), kDirectoryNotWritten);
    EXPECT_EQ(image(), before);
    EXPECT_THAT(told(format(kPlain)), ::testing::StartsWith("3132 0:3102 1 "));
    EXPECT_EQ(unformat(kPlain), kPartial);
    reader->field().clear();
    EXPECT_EQ(format(kApp), kCancelled) << "nobody to wait for";
    reader->field().place(std::make_shared<UltralightTag>(Bytes(64, 0)));
    EXPECT_EQ(format(kPlain), kNotAllowedHere);
    EXPECT_EQ(unformat(kPlain), kNotAllowedHere);
}

TEST(ALargeTag, HasNoDirectory) {
    TagWorkplace place(4096);
    EXPECT_EQ(place.told(place.read(kPlain, 124, 20, kFactory.data())),
              "3100 124 125 126 128 129 130 131 132 133 134 135 136 137 138 139 140 141 142 144 145");
    EXPECT_EQ(place.read(kPlain, 4, 999, kFactory.data()), kOutOfRange);
    EXPECT_EQ(place.write(kApp, 0, 1, Bytes(16, 1), kFactory.data()), kNotAllowedHere);
    EXPECT_EQ(place.format(kApp), kNotAllowedHere);
    ASSERT_EQ(place.format(kPlain), kOk);
    EXPECT_EQ(place.count, 40);
    EXPECT_EQ(place.block(255), trailerBytes(kFactory, kFormattedBits, 0x69, kB));
    EXPECT_EQ(place.unformat(kPlain), kOk);
}

TEST(ATagOfPages, IsReadAndWrittenWithoutKeys) {
    TagWorkplace place;
    place.reader->field().clear();
    const Bytes uid{4, 1, 2, 3, 4, 5, 6};
    Bytes pages = UltralightTag::blankImage(uid);
    for (std::uint8_t i = 16; i < 64; ++i)
        pages[i] = i;
    place.reader->field().place(std::make_shared<UltralightTag>(pages));
    place.tag = TagUID(uid.data(), 7, kTagUltralight);
    EXPECT_EQ(place.told(place.read(kPlain, 4, 999)), "3100 4 5 6 7 8 9 10 11 12 13 14 15");
    EXPECT_EQ(place.data, Bytes(pages.begin() + 16, pages.end()));
    EXPECT_EQ(place.write(kPlain, 5, 2, Bytes(8, 0x5A)), kOk);
    EXPECT_EQ(place.read(kPlain, 4, 4), kOk);
    EXPECT_EQ(place.data, (Bytes{16, 17, 18, 19, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 0x5A, 28, 29, 30, 31}));
    EXPECT_EQ(place.write(kPlain, 5, 2, Bytes(9, 0x5A)), kDataTooLong);
    EXPECT_EQ(place.read(kPlain, 1, 1), kReservedBlock);
    EXPECT_EQ(place.read(kApp, 0, 1, kA.data(), 100), kApplicationMissing);
    EXPECT_EQ(place.read(kApp, 2, 999, kA.data(), 0x0605), kTooFew) << "its UID looks like a directory of one entry";
}

}  // namespace

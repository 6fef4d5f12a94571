// What operations on a tag's memory answer, and what they leave on the tag.

#include "TagCalls.h"

#include <gmock/gmock.h>

namespace {

constexpr short kValue = 2052, kNew = 0x777;

class OnATag : public TagCalls {
  protected:
    OnATag() { place.setImage(layout); }

    std::string apps(AuthKeyMode mode, Pointer key = nullptr) {
        short found = 0;
        short* ids = nullptr;
        std::string text = std::to_string(ai.getAllAppId(0, kApp, tag, found, ids, mode, key));
        for (int i = 0; i < found; ++i)
            text += " " + std::to_string(ids[i]);
        ai.freeMemory(ids);
        return text;
    }
    int entryOf(int sector) { return place.block(1 + sector / 8)[static_cast<std::size_t>(sector % 8 * 2)]; }
    std::string valueOf(int block) {
        count = -77;
        const int status = value(kPlain, block);
        return (status == kOk ? "" : std::to_string(status) + "/") + std::to_string(count);
    }
};

TEST_F(OnATag, RefusalsWriteNothing) {
    const std::pair<int, std::vector<int>> refused[] = {
        {kApplicationExists, {init(kId, 1)}},
        {kApplicationMissing, {add(kApp, kNew, 1), place.read(kApp, kNew, 0, 1, kA)}},
        {kTooFew,
         {init(kNew, 8), add(kApp, kId, 8), remove(kApp, kId, 0, 4), remove(kApp, kId, 2, 2), add(kPlain, 15, 2),
          add(kPlain, 250, 10), remove(kPlain, 2, 0, 15), read(kApp, 8, 2), keys(15, 2), trailers(1, 41, 13)}},
        {kNoApplicationId, {init(5, 1)}},
        {kOutOfRange,
         {remove(kApp, kId, 3, 1), read(kApp, 10, 1), write(kPlain, 64, 1, 16, buffer),
          write(kPlain, 60, 4, 64, buffer), blockAccess(64), sectorAccess(kPlain, 17, 0, codes)}},
        {kNewKeyMissing, {remove(kPlain, 5, 0, 1, kC.data(), nullptr)}},
        {kReservedBlock, {read(kPlain, 3, 1), type(kPlain, 23, 1)}},
        {kDataTooLong, {write(kPlain, 28, 1, 17, buffer), place.write(kApp, kId, 0, 999, Bytes(145), kC)}},
        {3114, {type(kPlain, 20, 1, kA.data(), 2050)}},
        {3117, {type(kPlain, 20, 6), type(kPlain, 20, 16)}},
        {3116, {type(kPlain, 20, 1, kA.data(), kValue)}},
        {3115, {type(kPlain, 20, 7, kA.data(), kValue, 0)}},
        {kNoValueBlock, {value(kPlain, 20), setValue(kPlain, 20)}},
        {kValueFailed, {adjust(kPlain, 20, -1)}},
        {kNotAllowedHere, {adjust(kPlain, 20, -1, 2), ai.getAppIdDir(0, kPlain, tag, nullptr, AuthKeyA, nullptr)}},
        {kKeyRefused, {adjust(kPlain, 20, -1, 0, kB.data())}},
        {kDirectoryNotRead, {value(kApp, 11)}},
        {3127, {trailers(5, 2, 5)}}};
    for (const auto& [wanted, statuses] : refused)
        EXPECT_THAT(statuses, ::testing::Each(wanted));
    EXPECT_EQ(told(trailers(16, 2, 13)), "3132 16:3113 17:3113") << "no sector number is cut to a byte";
    EXPECT_EQ(place.image(), layout);
}

TEST_F(OnATag, ApplicationsTakeAndGiveBackSectors) {
    EXPECT_EQ(told(init(kNew, 1)), "3100 6:3100");
    EXPECT_EQ(told(add(kApp, kId, 2)), "3100 10:3100 11:3100") << "above its highest";
    EXPECT_EQ(apps(AuthKeyB), "3100 8721 17459 " + std::to_string(kId) + " 1911") << "read with the public key A";
    const Bytes foreign = trailerBytes(kFactory, kFormattedBits, 0x69, kFactory);
    for (const int sector : {12, 14, 15})
        place.poke(sector * 4 + 3, foreign);
    EXPECT_EQ(told(add(kApp, kNew, 1)), "3100 12:3102 13:3100");
    EXPECT_EQ(entryOf(12), 0) << "free again";
    EXPECT_EQ(told(add(kApp, kNew, 1)), "3132 14:3102 15:3102");
    EXPECT_EQ(entryOf(14) + entryOf(15), 0);
    EXPECT_EQ(remove(kApp, kId, 1, 1), kOk);
    EXPECT_EQ(entryOf(7), 0);
    EXPECT_EQ(place.block(28), Bytes(16, 0));
    EXPECT_EQ(place.block(31), trailerBytes(kMad, kFormattedBits, 0x69, kC));
    EXPECT_EQ(place.block(20), blockOf(layout, 20));
    place.setImage(MifareClassicTag::blankImage(1024, Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
    EXPECT_EQ(apps(AuthKeyA, kFactory.data()), std::to_string(kNoDirectory));
    EXPECT_EQ(apps(AuthKeyA), std::to_string(kDirectoryNotRead));
}

TEST_F(OnATag, DataIsAddressedByApplicationAndPadded) {
    Bytes bytes(144), pattern(16);
    for (std::uint8_t i = 0; i < 144; ++i)
        bytes[i] = pattern[i % 16] = i;
    EXPECT_EQ(place.write(kApp, kId, 0, 999, bytes, kC), kOk);
    EXPECT_EQ(place.told, "0 1 2 3 4 5 6 7 8");
    EXPECT_EQ(place.block(28), Bytes(bytes.begin() + 48, bytes.begin() + 64)) << "its second sector is 7";
    EXPECT_EQ(place.block(24), blockOf(layout, 24));
    EXPECT_EQ(place.read(kApp, kId, 2, 2, kA), kOk);
    EXPECT_EQ(place.data, Bytes(bytes.begin() + 32, bytes.begin() + 64));
    EXPECT_EQ(place.write(kApp, kId, 0, 2, Bytes(10, 0x99), kC), kOk);
    EXPECT_EQ(place.write(kPlain, 0, 22, 2, Bytes(20, 0x99), kC, AuthKeyB, pattern.data()), kPartial);
    EXPECT_EQ(place.told, "22 24:3102") << "the next sector has another key";
    EXPECT_EQ(place.write(kPlain, 0, 30, 2, Bytes(20, 0x99), kC, AuthKeyB, pattern.data()), kOk);
    std::fill_n(pattern.begin(), 4, std::uint8_t{0x99});
    EXPECT_EQ(place.block(32), pattern);
    EXPECT_EQ(place.read(kPlain, 0, 20, 4, kA), kPartial);
    Bytes expected(64, 0);
    std::fill_n(expected.begin(), 10, std::uint8_t{0x99});
    std::fill_n(expected.begin() + 32, 16, std::uint8_t{0x99});
    EXPECT_EQ(place.data, expected);
    place.spoil(Op::authenticate, "1 tag gone");
    EXPECT_EQ(place.read(kPlain, 0, 20, 3, kA), kPartial);
    EXPECT_EQ(place.told, "20:3102 21:3102 22:3102");
}

TEST_F(OnATag, AValueCountsUpAndDown) {
    ASSERT_EQ(type(kPlain, 21, AccData110, kA.data(), kValue, 100), kOk);
    EXPECT_EQ(place.block(21)[12], 0) << "in plain mode the address byte is 0";
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueIncrement, kC.data(), AuthKeyB, 5), kOk);
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueDecrement, kA.data(), AuthKeyA, 3), kOk);
    EXPECT_EQ(adjust(kPlain, 21, -1, ValueIncrement, kA.data(), AuthKeyA), kValueFailed) << "key A may not";
    ASSERT_EQ(type(kPlain, 22, AccData110, kA.data(), kValue, 1), kOk);
    EXPECT_EQ(adjust(kPlain, 21, 22, ValueIncrement, kC.data(), AuthKeyB, 8), kOk);
    EXPECT_EQ(valueOf(21) + " " + valueOf(22), "102 110");
    EXPECT_EQ(setValue(kPlain, 22, kC.data(), -5), kOk);
    EXPECT_EQ(valueOf(22), "-5");
    EXPECT_EQ(place.block(22)[12], 22);
    Bytes damaged = place.block(22);
    damaged[8] ^= 1;
    place.poke(22, damaged);
    EXPECT_EQ(valueOf(22), "3129/-5");
    ASSERT_EQ(type(kApp, 4, AccData110, kA.data(), kValue, 7), kOk);
    EXPECT_EQ(place.block(29)[12], 29) << "block 4 of the application, with its own address";
    EXPECT_EQ(value(kApp, 4), kOk);
    EXPECT_EQ(count, 7);
    EXPECT_EQ(sectorAccess(kApp, kId, 1, codes), kOk);
    EXPECT_EQ(codes[1], AccData110);
    ASSERT_EQ(ai.initDecrementOnlyBlock(0, kPlain, tag, 0, kA.data(), kC.data(), 34, 10, AuthKeyA, nullptr), kOk);
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
            if (!place.hasFault(effect)) continue;
            const int before = std::stoi(valueOf(21));
            ASSERT_EQ(place.reader->addFaults(step + effect), "");
            const int status = adjust(kPlain, 21, -1, ValueDecrement);
            place.reader->clearFaults();
            place.reader->field().setPresent(place.name, true);
            ASSERT_TRUE(ai.initReader());
            const int after = std::stoi(valueOf(21));
            EXPECT_TRUE(after == before - 1 || (after == before && status != kOk)) << step << effect;
        }
}

TEST_F(OnATag, ABlocksTypeKeysAndTrailersAreReplaced) {
    EXPECT_EQ(type(kPlain, 21, AccData101), kOk);
    EXPECT_EQ(place.block(21), Bytes(16, 0)) << "setting the type clears the block";
    const std::uint32_t writes = place.virtualTag->memory()->writeCount();
    EXPECT_EQ(type(kPlain, 21, AccData100), kOk) << "closed to key B, so it is opened first";
    EXPECT_EQ(place.virtualTag->memory()->writeCount() - writes, 3u);
    for (int code = 0; code < 8; ++code) {
        EXPECT_EQ(type(kPlain, 22, code, kA.data(), 0, 1), kOk) << code;
        EXPECT_EQ(blockAccess(22, kA.data()), kOk);
        EXPECT_EQ(codes[0], code);
    }
    EXPECT_EQ(told(keys(7, 3)), "3100 7:3100 8:3100 9:3100");
    EXPECT_EQ(told(keys(5, 2)), "3132 5:3100 6:3102");
    EXPECT_EQ(told(keys(5, -3)), "3100 5:3100") << "below 1 counts as 1";
    EXPECT_EQ(place.block(31), trailerBytes(kA, kFormattedBits, 0x69, kC)) << "access bytes and byte 9 stay";
    EXPECT_EQ(told(trailers(7, 2, 12)), "3100 7:3100 8:3100");
    EXPECT_EQ(place.block(35)[6], 0xFF);
    for (int bit = 0; bit < 24; ++bit) {
        Bytes garbled = trailerBytes(kA, kFormattedBits, 0x69, kC);
        garbled[static_cast<std::size_t>(6 + bit / 8)] ^= static_cast<std::uint8_t>(1 << bit % 8);
        place.poke(23, garbled);
        EXPECT_NE(type(kPlain, 21, AccData101), kOk);
        EXPECT_EQ(place.block(23), garbled) << "never written back";
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
        place.setImage(blank);
        ASSERT_EQ(place.format(c.kind, c.newKeyA), kOk);
        EXPECT_EQ(place.told, "0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15");
        EXPECT_EQ(place.block(3), c.trailer0);
        ASSERT_EQ(place.unformat(c.kind), kOk);
        Bytes expected = blank;
        expected[16] = 0xCE;  // the factory state of this system carries the
                              // checksum of an empty directory
        EXPECT_EQ(place.image(), expected);
    }
    place.poke(23, trailerBytes(kC, open, 0x69, kC));  // another key: cannot be written
    EXPECT_EQ(place.format(TagAppMad1), kPartial);
    EXPECT_EQ(place.told, "0 1 2 3 4 5:3102 6 7 8 9 10 11 12 13 14 15");
    EXPECT_EQ(place.block(1)[10] << 8 | place.block(1)[0], 0x012D) << "defect, and the checksum fits";
    EXPECT_EQ(place.unformat(TagAppMad1), kPartial);
    place.setImage(blank);
    place.poke(3, trailerBytes(kC, open, 0x69, kC));
    const Bytes before = place.image();
    EXPECT_EQ(place.format(TagAppMad1), kDirectoryNotWritten);
    EXPECT_EQ(place.unformat(TagAppMad1), kDirectoryNotWritten);
    EXPECT_EQ(place.image(), before);
    EXPECT_EQ(place.format(TagAppNone), kPartial);
    EXPECT_EQ(place.told.substr(0, 8), "0:3102 1");
    EXPECT_EQ(place.unformat(TagAppNone), kPartial);
    place.reader->field().clear();
    EXPECT_EQ(place.format(TagAppMad1), kCancelled) << "nobody to wait for";
    place.reader->field().place(std::make_shared<UltralightTag>(Bytes(64, 0)));
    EXPECT_EQ(place.format(TagAppNone), kNotAllowedHere);
    EXPECT_EQ(place.unformat(TagAppNone), kNotAllowedHere);
}

TEST(ALargeTag, HasNoDirectory) {
    TagWorkplace place(4096);
    EXPECT_EQ(place.read(TagAppNone, 0, 124, 20, kFactory), kOk);
    EXPECT_EQ(place.told, "124 125 126 128 129 130 131 132 133 134 135 136 137 "
                          "138 139 140 141 142 144 145");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 999, kFactory), kOutOfRange);
    EXPECT_EQ(place.write(TagAppMad1, 100, 0, 1, Bytes(16, 1), kFactory), kNotAllowedHere);
    EXPECT_EQ(place.format(TagAppMad1), kNotAllowedHere);
    ASSERT_EQ(place.format(TagAppNone), kOk);
    EXPECT_EQ(place.count, 40);
    EXPECT_EQ(place.block(255), trailerBytes(kFactory, kFormattedBits, 0x69, kB));
    EXPECT_EQ(place.unformat(TagAppNone), kOk);
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

// Applications in a tag's directory, and runs of sectors without one.

#include "TagWorkplace.h"

namespace {

class OnADirectory : public ::testing::Test {
  protected:
    OnADirectory() { EXPECT_EQ(place.format(TagAppMad1), kOk); }

    /// "sector=application ..." from the directory's own words.
    std::string directory() {
        short words[16] = {};
        EXPECT_EQ(place.adaptor->getAppIdDir(0, TagAppMad1, place.tag, words, AuthKeyA, nullptr), kOk);
        std::string text;
        for (int word = 1; word < 16; ++word)
            if (words[word] != 0)
                text += (text.empty() ? "" : " ") + std::to_string(word) + "=" + std::to_string(words[word]);
        return text;
    }
    std::string apps() {
        short count = 0;
        short* ids = nullptr;
        const int status = place.adaptor->getAllAppId(0, TagAppMad1, place.tag, count, ids, AuthKeyA, nullptr);
        std::string text = status == kOk ? "" : std::to_string(status);
        for (int i = 0; i < count; ++i)
            text += (i > 0 ? " " : "") + std::to_string(ids[i]);
        place.adaptor->freeMemory(ids);
        return text;
    }
    TagWorkplace place;
};

TEST_F(OnADirectory, AnApplicationIsCreatedOnce) {
    place.poke(4, Bytes(16, 0x77));
    EXPECT_EQ(place.initApp(100, 2), kOk);
    EXPECT_EQ(place.done, 2);
    EXPECT_EQ(place.told, "1 2");
    EXPECT_EQ(directory(), "1=100 2=100");
    EXPECT_EQ(place.block(4), Bytes(16, 0)) << "its data begins as zero";
    const Bytes expected{10, 10, 10, 10, 10, 10, 0x78, 0x77, 0x88, 0x69, 12, 12, 12, 12, 12, 12};
    EXPECT_EQ(place.block(7), expected);
    const Bytes before = place.image();
    EXPECT_EQ(place.initApp(100, 1), kApplicationExists);
    EXPECT_EQ(place.addApp(101, 1), kApplicationMissing);
    EXPECT_EQ(place.initApp(101, 14), kTooFew);
    EXPECT_EQ(place.initApp(5, 1), kNoApplicationId);
    EXPECT_EQ(place.image(), before);
    EXPECT_EQ(place.told, "");
    EXPECT_EQ(place.initApp(101, 1), kOk);
    EXPECT_EQ(apps(), "100 101");
}

TEST_F(OnADirectory, NewSectorsLieAboveTheOldOnes) {
    ASSERT_EQ(place.initApp(100, 1), kOk);
    ASSERT_EQ(place.initApp(101, 8), kOk);
    EXPECT_EQ(place.addApp(100, 2), kOk);
    EXPECT_EQ(directory(), "1=100 2=101 3=101 4=101 5=101 6=101 7=101 8=101 9=101 10=100 11=100");
    EXPECT_EQ(place.removeApp(101, 0, 8), kOk);
    EXPECT_EQ(place.addApp(100, 5), kTooFew) << "the free ones below are not used";
    EXPECT_EQ(place.addApp(100, 4), kOk);
    EXPECT_EQ(place.told, "12 13 14 15");
}

TEST_F(OnADirectory, AFailedSectorIsReplacedAndFreed) {
    const Bytes foreign{1, 1, 1, 1, 1, 1, 0x78, 0x77, 0x88, 0x69, 1, 1, 1, 1, 1, 1};
    place.poke(7, foreign);
    EXPECT_EQ(place.initApp(100, 2), kOk);
    EXPECT_EQ(place.told, "1:3102 2 3");
    EXPECT_EQ(directory(), "2=100 3=100") << "free again, and its stand-in listed";
    for (int sector = 4; sector < 16; ++sector)
        place.poke(sector * 4 + 3, foreign);
    EXPECT_EQ(place.initApp(101, 2), kPartial);
    EXPECT_EQ(place.done, 0);
    EXPECT_EQ(directory(), "2=100 3=100");
}

TEST_F(OnADirectory, SectorsAreTakenBackAfterTheirDataIsGone) {
    ASSERT_EQ(place.initApp(100, 3), kOk);
    ASSERT_EQ(place.write(TagAppMad1, 100, 0, 9, Bytes(144, 0x55), kC), kOk);
    EXPECT_EQ(place.removeApp(100, 3, 1), kOutOfRange);
    EXPECT_EQ(place.removeApp(100, 0, 4), kTooFew);
    EXPECT_EQ(place.removeApp(100, 2, 2), kTooFew);
    EXPECT_EQ(place.removeApp(100, 1, 1), kOk);
    EXPECT_EQ(place.statuses[0], kOk);
    EXPECT_EQ(directory(), "1=100 3=100");
    EXPECT_EQ(place.block(8), Bytes(16, 0));
    EXPECT_EQ(place.block(4), Bytes(16, 0x55));
    const Bytes expected{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0x78, 0x77, 0x88, 0x69, 11, 11, 11, 11, 11, 11};
    EXPECT_EQ(place.block(11), expected);
}

TEST_F(OnADirectory, DataIsAddressedByApplication) {
    ASSERT_EQ(place.initApp(100, 1), kOk);
    ASSERT_EQ(place.initApp(101, 1), kOk);
    ASSERT_EQ(place.addApp(100, 1), kOk);  // sectors 1 and 3
    Bytes bytes(96);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(place.write(TagAppMad1, 100, 0, 999, bytes, kC), kOk);
    EXPECT_EQ(place.told, "0 1 2 3 4 5");
    EXPECT_EQ(place.block(12), Bytes(bytes.begin() + 48, bytes.begin() + 64)) << "its second sector is 3";
    EXPECT_EQ(place.block(8), Bytes(16, 0)) << "the other application is left alone";
    EXPECT_EQ(place.read(TagAppMad1, 100, 2, 2, kA), kOk);
    EXPECT_EQ(place.data, Bytes(bytes.begin() + 32, bytes.begin() + 64));
    EXPECT_EQ(place.read(TagAppMad1, 100, 7, 1, kA), kOutOfRange);
    EXPECT_EQ(place.read(TagAppMad1, 100, 5, 2, kA), kTooFew);
    EXPECT_EQ(place.read(TagAppMad1, 102, 0, 1, kA), kApplicationMissing);
    EXPECT_EQ(place.write(TagAppMad1, 100, 0, 999, Bytes(10, 0x99), kC), kOk);
    Bytes padded(96, 0);
    std::fill_n(padded.begin(), 10, std::uint8_t{0x99});
    EXPECT_EQ(place.read(TagAppMad1, 100, 0, 999, kA), kOk);
    EXPECT_EQ(place.data, padded);
    EXPECT_EQ(place.write(TagAppMad1, 100, 0, 999, Bytes(97, 0x99), kC), kDataTooLong);
}

TEST(APlainTag, HasRunsOfSectorsInPlaceOfApplications) {
    TagWorkplace place;
    ASSERT_EQ(place.format(TagAppNone), kOk);
    const auto add = [&](short first, short sectors) {
        int done = 0, count = 0;
        OpResultCode* results = nullptr;
        const int status = place.adaptor->addAppSector(0, TagAppNone, first, nullptr, kB.data(), 0, sectors, place.tag,
                                                       kA.data(), kC.data(), AccData110, done, count, results);
        place.adaptor->freeMemory(results);
        return std::to_string(status) + " " + std::to_string(done) + "/" + std::to_string(count);
    };
    place.poke(8, Bytes(16, 0x44));
    EXPECT_EQ(add(2, 2), "3100 2/2");
    EXPECT_EQ(place.block(8), Bytes(16, 0));
    const Bytes expected{10, 10, 10, 10, 10, 10, 0x08, 0x77, 0x8F, 0x69, 12, 12, 12, 12, 12, 12};
    EXPECT_EQ(place.block(15), expected);
    EXPECT_EQ(add(15, 2), "3110 0/0");
    EXPECT_EQ(add(250, 10), "3110 0/0") << "no sum is cut to a byte";
    EXPECT_EQ(add(15, 1), "3100 1/1");
    const auto remove = [&](short from, short sectors, const std::uint8_t* newKeyB) {
        return place.adaptor->removeAppSector(0, TagAppNone, from, nullptr, 0, 0, sectors, place.tag, AuthKeyB,
                                              kC.data(), nullptr, newKeyB, nullptr);
    };
    EXPECT_EQ(remove(2, 2, nullptr), kNewKeyMissing);
    EXPECT_EQ(remove(2, 15, kB.data()), kTooFew);
    EXPECT_EQ(remove(2, 2, kB.data()), kOk);
    EXPECT_EQ(place.block(11)[6], 0x78);
    EXPECT_EQ(remove(2, 2, kB.data()), kPartial) << "the key is another one now";
}

TEST(ATagWithoutADirectory, HasNoApplications) {
    TagWorkplace place;
    short count = 5, words[16];
    short* ids = nullptr;
    EXPECT_EQ(place.adaptor->getAllAppId(0, TagAppMad1, place.tag, count, ids, AuthKeyA, kFactory.data()),
              kNoDirectory);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(place.adaptor->getAllAppId(0, TagAppMad1, place.tag, count, ids, AuthKeyA, nullptr), kDirectoryNotRead);
    EXPECT_EQ(place.adaptor->getAppIdDir(0, TagAppNone, place.tag, words, AuthKeyA, nullptr), kNotAllowedHere);
}

}  // namespace

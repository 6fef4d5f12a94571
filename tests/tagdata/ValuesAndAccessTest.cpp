// Value blocks, access conditions and keys.

#include "TagWorkplace.h"

namespace {

constexpr short kDataKind = 2051, kValueKind = 2052;

class ValuesAndAccess : public ::testing::Test {
  protected:
    ValuesAndAccess() { EXPECT_EQ(place.format(TagAppNone), kOk); }

    int setType(short block, short kind, int access, unsigned value = 0) {
        return place.adaptor->setDataBlockType(0, TagAppNone, 0, place.tag, kFactory.data(), kB.data(), block, kind,
                                               static_cast<DataAccControl>(access), value, AuthKeyA, nullptr);
    }
    std::string value(int block, const Key& key = kFactory, AuthKeyMode mode = AuthKeyA) {
        int number = -77;
        const int status =
            place.adaptor->getValue(0, TagAppNone, place.tag, 0, mode, key.data(), block, number, AuthKeyA, nullptr);
        return status == kOk ? std::to_string(number) : std::to_string(status) + "/" + std::to_string(number);
    }
    int adjust(int block, int operation, unsigned amount, int transfer = -1, const Key& key = kB,
               AuthKeyMode mode = AuthKeyB) {
        return place.adaptor->adjustValue(0, TagAppNone, place.tag, 0, mode, key.data(), block,
                                          static_cast<ValueBlockOper>(operation), amount, transfer, AuthKeyA, nullptr);
    }
    int access(int block) {
        DataAccControl code = AccInvalid;
        const int status = place.adaptor->getBlockAccessMode(0, TagAppNone, place.tag, 0, AuthKeyB, kB.data(), block,
                                                             code, AuthKeyA, nullptr);
        return status == kOk ? int{code} : status;
    }
    std::string conditions(short sector) {
        DataAccControl codes[4];
        const int status = place.adaptor->getSectorAccessMode(0, TagAppNone, place.tag, sector, AuthKeyB, kB.data(), 0,
                                                              codes, AuthKeyA, nullptr);
        if (status != kOk) return std::to_string(status);
        std::string text;
        for (const DataAccControl code : codes)
            text += std::to_string(code) + " ";
        return text;
    }
    std::string records(int status) {
        std::string told = std::to_string(status);
        for (int i = 0; i < count; ++i)
            told += " " + std::to_string(results[i].number) + ":" + std::to_string(results[i].status);
        place.adaptor->freeMemory(results);
        return told;
    }
    TagWorkplace place;
    int count = 0;
    OpResultCode* results = nullptr;
};

TEST_F(ValuesAndAccess, AValueBlockCountsUpAndDown) {
    EXPECT_EQ(value(5), "3116/-77") << "no value block yet";
    ASSERT_EQ(setType(5, kValueKind, AccData110, 100), kOk);
    EXPECT_EQ(value(5), "100");
    EXPECT_EQ(place.block(5)[12], 0) << "in plain mode the address byte is 0";
    EXPECT_EQ(adjust(5, ValueIncrement, 5), kOk);
    EXPECT_EQ(adjust(5, ValueDecrement, 3, -1, kFactory, AuthKeyA), kOk);
    EXPECT_EQ(value(5), "102");
    EXPECT_EQ(adjust(5, ValueIncrement, 1, -1, kFactory, AuthKeyA), kValueFailed) << "key A may not";
    EXPECT_EQ(adjust(5, 2, 1), kNotAllowedHere);
    EXPECT_EQ(adjust(5, ValueIncrement, 1, -1, kC), kKeyRefused);
    EXPECT_EQ(adjust(4, ValueIncrement, 1), kValueFailed) << "no value block";
    ASSERT_EQ(setType(6, kValueKind, AccData110, 1), kOk);
    EXPECT_EQ(adjust(5, ValueIncrement, 8, 6), kOk);
    EXPECT_EQ(value(5), "102");
    EXPECT_EQ(value(6), "110");
    const auto set = [&](int block, int number) {
        return place.adaptor->setValue(0, TagAppNone, place.tag, 0, AuthKeyB, kB.data(), block, number, AuthKeyA,
                                       nullptr);
    };
    EXPECT_EQ(set(6, -5), kOk);
    EXPECT_EQ(value(6), "-5");
    EXPECT_EQ(place.block(6)[12], 6);
    EXPECT_EQ(set(4, 1), kNoValueBlock);
    Bytes damaged = place.block(6);
    damaged[8] ^= 1;
    place.poke(6, damaged);
    EXPECT_EQ(value(6), "3129/-5");
}

TEST_F(ValuesAndAccess, ATicketOnlyGoesDown) {
    const auto init = [&](int block, int number) {
        return place.adaptor->initDecrementOnlyBlock(0, TagAppNone, place.tag, 0, kFactory.data(), kB.data(), block,
                                                     number, AuthKeyA, nullptr);
    };
    EXPECT_EQ(init(5, 0), kZeroValue);
    ASSERT_EQ(init(5, 10), kOk);
    EXPECT_EQ(access(5), AccData001);
    EXPECT_EQ(adjust(5, ValueDecrement, 4, -1, kFactory, AuthKeyA), kOk);
    EXPECT_EQ(adjust(5, ValueIncrement, 4), kValueFailed);
    EXPECT_EQ(value(5), "6");
}

// A lost answer leaves the change done or not done, never done twice.
TEST_F(ValuesAndAccess, ALostAnswerIsNeverPaidTwice) {
    ASSERT_EQ(setType(5, kValueKind, AccData110, 100), kOk);
    std::vector<std::string> steps{"40 1 ", "40 2 ", "40 3 "};
    if (isMf500UnderTest()) steps = {"18 1 ", "19 1 ", "1B 1 "};
    for (const std::string& step : steps)
        for (const char* effect : {"no reply", "no answer", "no ack", "error", "tag gone"}) {
            const int before = std::stoi(value(5));
            if (!place.hasFault(effect)) continue;
            ASSERT_EQ(place.reader->addFaults(step + effect), "");
            const int status = adjust(5, ValueDecrement, 1);
            place.reader->clearFaults();
            place.reader->field().setPresent(place.name, true);
            ASSERT_TRUE(place.adaptor->initReader());
            const int after = std::stoi(value(5));
            EXPECT_TRUE(after == before || after == before - 1) << step << effect;
            if (status == kOk) {
                EXPECT_EQ(after, before - 1) << step << effect;
            }
        }
}

TEST_F(ValuesAndAccess, ABlockTypeIsChangedInItsOrder) {
    const struct {
        short kind;
        int access;
        unsigned value;
        int status;
    } refused[] = {{2050, 1, 0, 3114},
                   {kDataKind, 6, 0, 3117},
                   {kDataKind, 16, 0, 3117},
                   {kValueKind, 1, 0, 3116},
                   {kValueKind, 7, 0, 3115}};
    for (const auto& r : refused)
        EXPECT_EQ(setType(5, r.kind, r.access, r.value), r.status);
    EXPECT_EQ(setType(7, kDataKind, 1), kReservedBlock);
    place.poke(5, Bytes(16, 0x99));
    EXPECT_EQ(setType(5, kDataKind, AccData101), kOk);
    EXPECT_EQ(place.block(5), Bytes(16, 0)) << "setting the type clears the block";
    EXPECT_EQ(conditions(1), "1 3 1 13 ");
    const std::uint32_t writes = place.virtualTag->memory()->writeCount();
    EXPECT_EQ(setType(5, kDataKind, AccData100), kOk) << "closed to key B, so it is opened first";
    EXPECT_EQ(place.virtualTag->memory()->writeCount() - writes, 3u);
    for (int code = 0; code < 8; ++code) {
        EXPECT_EQ(setType(6, 0, code, 1), kOk) << code;
        EXPECT_EQ(access(6), code);
    }
    EXPECT_EQ(access(7), 13);
    EXPECT_EQ(access(64), kOutOfRange);
    EXPECT_EQ(conditions(-1), "3113");
    EXPECT_EQ(conditions(17), "3113");
}

TEST_F(ValuesAndAccess, TrailersThatContradictThemselvesAreNeverWrittenBack) {
    for (int bit = 0; bit < 24; ++bit) {
        place.poke(7, Bytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x78, 0x77, 0x88, 0x69, 11, 11, 11, 11, 11, 11});
        Bytes garbled = place.block(7);
        garbled[static_cast<std::size_t>(6 + bit / 8)] ^= static_cast<std::uint8_t>(1 << bit % 8);
        place.poke(7, garbled);
        const std::uint32_t writes = place.virtualTag->memory()->writeCount();
        EXPECT_NE(setType(5, kDataKind, AccData101), kOk);
        EXPECT_EQ(place.virtualTag->memory()->writeCount(), writes) << bit;
    }
}

TEST_F(ValuesAndAccess, KeysAndTrailersOfSectorsAreReplaced) {
    const auto setKey = [&](short first, short sectors, const Key& key) {
        return records(place.adaptor->setKey(0, TagAppNone, first, place.tag, AuthKeyB, key.data(), kA.data(),
                                             kC.data(), sectors, AuthKeyA, nullptr, count, results));
    };
    EXPECT_EQ(setKey(2, 3, kB), "3100 2:3100 3:3100 4:3100");
    const Bytes expected{10, 10, 10, 10, 10, 10, 0x78, 0x77, 0x88, 0x69, 12, 12, 12, 12, 12, 12};
    EXPECT_EQ(place.block(11), expected) << "access bytes and byte 9 stay";
    EXPECT_EQ(setKey(3, 3, kB), "3132 3:3102 4:3102 5:3100");
    EXPECT_EQ(setKey(15, 2, kB), "3110");
    EXPECT_EQ(setKey(15, -3, kB), "3100 15:3100") << "below 1 counts as 1";

    const auto setTrailer = [&](short first, short sectors, int access) {
        return records(place.adaptor->setTrailerBlockType(0, TagAppNone, first, place.tag, AuthKeyB, kA.data(),
                                                          kC.data(), static_cast<DataAccControl>(access), AuthKeyA,
                                                          nullptr, sectors, count, results));
    };
    EXPECT_EQ(setTrailer(2, 2, 5), "3127");
    EXPECT_EQ(setTrailer(2, 2, 12), "3100 2:3100 3:3100");
    EXPECT_EQ(place.block(15)[6], 0xFF);
    const Bytes before = place.image();
    EXPECT_EQ(setTrailer(16, 2, 13), "3132 16:3113 17:3113") << "no sector number is cut to a byte";
    EXPECT_EQ(setTrailer(1, 41, 13), "3110");
    EXPECT_EQ(place.image(), before);
}

TEST_F(ValuesAndAccess, WorkByApplicationToo) {
    EXPECT_EQ(place.unformat(TagAppNone), kOk);
    ASSERT_EQ(place.format(TagAppMad1), kOk);
    ASSERT_EQ(place.initApp(99, 1), kOk);
    ASSERT_EQ(place.initApp(100, 2), kOk);  // sectors 2 and 3
    ASSERT_EQ(place.adaptor->setDataBlockType(0, TagAppMad1, 100, place.tag, kA.data(), kC.data(), 4, kValueKind,
                                              AccData110, 7, AuthKeyA, nullptr),
              kOk);
    EXPECT_EQ(place.block(13)[12], 13) << "block 4 of the application, with its own address";
    int number = 0;
    const auto get = [&](short app, int block) {
        return place.adaptor->getValue(0, TagAppMad1, place.tag, app, AuthKeyA, kA.data(), block, number, AuthKeyA,
                                       nullptr);
    };
    EXPECT_EQ(get(100, 4), kOk);
    EXPECT_EQ(number, 7);
    EXPECT_EQ(get(100, 6), kDirectoryNotRead);
    DataAccControl codes[4];
    EXPECT_EQ(place.adaptor->getSectorAccessMode(0, TagAppMad1, place.tag, 100, AuthKeyA, kA.data(), 1, codes, AuthKeyA,
                                                 nullptr),
              kOk);
    EXPECT_EQ(codes[1], AccData110);
}

}  // namespace

// Numbers and pointers that no host should hand in: refused as documented, and the tag stays as it was.

#include "SweptOperations.h"

#include <climits>

namespace {

class TagCorners : public ::testing::Test {
  protected:
    static constexpr short kId = static_cast<short>(kOwnApp);

    /// The status of an operation that returns records.
    template <typename Call>
    int withRecords(Call call) {
        int count = 0;
        OpResultCode* results = nullptr;
        const int status = call(count, results);
        ai.freeMemory(results);
        return status;
    }
    int add(bool isNew, TagAppType kind, short id, short sectors, const std::uint8_t* newA = kA.data(),
            const std::uint8_t* newB = kC.data(), const std::uint8_t* key = kB.data()) {
        return withRecords([&](int& count, OpResultCode*& results) {
            int done = 0;
            return isNew ? ai.initApp(0, kind, id, key, key, 0, sectors, tag, newA, newB, AccData100, done, count,
                                      results)
                         : ai.addAppSector(0, kind, id, key, key, 0, sectors, tag, newA, newB, AccData100, done, count,
                                           results);
        });
    }
    int remove(TagAppType kind, short id, short start, short sectors, const std::uint8_t* key = kC.data(),
               const std::uint8_t* madKey = kB.data(), const std::uint8_t* newB = kC.data()) {
        int statuses[40];
        return ai.removeAppSector(0, kind, id, madKey, 0, start, sectors, tag, AuthKeyB, key, nullptr, newB, statuses);
    }
    int read(TagAppType kind, short start, short blocks, const std::uint8_t* key = kA.data()) {
        return withRecords([&](int& count, OpResultCode*& results) {
            std::uint8_t* bytes = nullptr;
            int length = 0;
            const int status = ai.getBlockData(0, kind, tag, kId, AuthKeyA, key, start, blocks, bytes, length, AuthKeyA,
                                               nullptr, count, results);
            ai.freeMemory(bytes);
            return status;
        });
    }
    int write(TagAppType kind, short start, short blocks, int length, std::uint8_t* bytes,
              const std::uint8_t* key = kC.data()) {
        return withRecords([&](int& count, OpResultCode*& results) {
            return ai.setBlockData(0, kind, tag, kId, AuthKeyB, key, start, blocks, bytes, length, AuthKeyA, nullptr,
                                   nullptr, count, results);
        });
    }
    int keys(TagAppType kind, short id, short sectors, const std::uint8_t* key = kC.data(),
             const std::uint8_t* a = kA.data(), const std::uint8_t* b = kC.data()) {
        return withRecords([&](int& count, OpResultCode*& results) {
            return ai.setKey(0, kind, id, tag, AuthKeyB, key, a, b, sectors, AuthKeyA, nullptr, count, results);
        });
    }
    int trailers(TagAppType kind, short id, short sectors, int access, const std::uint8_t* a = kA.data(),
                 const std::uint8_t* b = kC.data()) {
        return withRecords([&](int& count, OpResultCode*& results) {
            return ai.setTrailerBlockType(0, kind, id, tag, AuthKeyB, a, b, static_cast<DataAccControl>(access),
                                          AuthKeyA, nullptr, sectors, count, results);
        });
    }
    int type(TagAppType kind, short block, short blockKind, int access, const std::uint8_t* a = kA.data(),
             const std::uint8_t* b = kC.data()) {
        return ai.setDataBlockType(0, kind, kId, tag, a, b, block, blockKind, static_cast<DataAccControl>(access), 5,
                                   AuthKeyA, nullptr);
    }
    int value(TagAppType kind, int block, const std::uint8_t* key = kA.data()) {
        int number = 0;
        return ai.getValue(0, kind, tag, kId, AuthKeyA, key, block, number, AuthKeyA, nullptr);
    }
    int setValue(TagAppType kind, int block, const std::uint8_t* key = kC.data()) {
        return ai.setValue(0, kind, tag, kId, AuthKeyB, key, block, 1, AuthKeyA, nullptr);
    }
    int adjust(TagAppType kind, int block, int transfer, int operation = 0, const std::uint8_t* key = kC.data()) {
        return ai.adjustValue(0, kind, tag, kId, AuthKeyB, key, block, static_cast<ValueBlockOper>(operation), 1,
                              transfer, AuthKeyA, nullptr);
    }
    int blockAccess(TagAppType kind, int block, const std::uint8_t* key = kA.data()) {
        DataAccControl code = AccInvalid;
        return ai.getBlockAccessMode(0, kind, tag, kId, AuthKeyA, key, block, code, AuthKeyA, nullptr);
    }
    int sectorAccess(TagAppType kind, short id, short index, DataAccControl* out, const std::uint8_t* key = kA.data()) {
        return ai.getSectorAccessMode(0, kind, tag, id, AuthKeyA, key, index, out, AuthKeyA, nullptr);
    }

    // Sectors 5, 7 and 8 are the application's; 1, 2, 4 and 9 belong to others, 3 is defect, 0x2211 has 1 and 4.
    const Bytes layout = directoryTag(
        {{1, 0x2211}, {2, 0x4433}, {3, 1}, {4, 0x2211}, {5, kOwnApp}, {7, kOwnApp}, {8, kOwnApp}, {9, 0x4433}});
    TagWorkplace place;
    ReaderImpl& ai = *place.adaptor;
    TagUID& tag = place.tag;
    DataAccControl codes[4] = {};
    std::uint8_t buffer[64] = {};
};

TEST_F(TagCorners, NumbersAreTestedInFullWidth) {
    constexpr TagAppType kPlain = TagAppNone, kApp = TagAppMad1;
    struct Case {
        const char* what;
        std::function<int(int)> call;
        std::set<int> refusals;
        std::set<int> lawful = {};
    };
    const auto s = [](int number) { return static_cast<short>(number); };
    const std::set<int> ids{-32768, -1, 998, 999, 1000, 32767};
    const Case cases[] = {
        {"initApp id", [&](int n) { return add(true, kApp, s(n), 1); }, {kNoApplicationId}, ids},
        {"initApp count", [&](int n) { return add(true, kApp, 0x777, s(n)); }, {kTooFew}, {0}},
        {"addAppSector id", [&](int n) { return add(false, kApp, s(n), 1); }, {kNoApplicationId, kApplicationMissing}},
        {"addAppSector count", [&](int n) { return add(false, kApp, kId, s(n)); }, {kTooFew}, {0}},
        {"addAppSector first", [&](int n) { return add(false, kPlain, s(n), 1); }, {kTooFew}, {0}},
        {"addAppSector run", [&](int n) { return add(false, kPlain, 1, s(n)); }, {kTooFew}, {0}},
        {"removeAppSector id", [&](int n) { return remove(kApp, s(n), 0, 1); }, {kNoApplicationId, kTooFew}},
        {"removeAppSector start", [&](int n) { return remove(kApp, kId, s(n), 1); }, {kOutOfRange, kTooFew}, {0}},
        {"removeAppSector count", [&](int n) { return remove(kApp, kId, 0, s(n)); }, {kTooFew}, {0}},
        {"removeAppSector first", [&](int n) { return remove(kPlain, s(n), 0, 1); }, {kTooFew}, {0}},
        {"removeAppSector run", [&](int n) { return remove(kPlain, 1, 0, s(n)); }, {kTooFew}, {0}},
        {"getBlockData start", [&](int n) { return read(kPlain, s(n), 1); }, {kOutOfRange}, {0}},
        {"getBlockData run", [&](int n) { return read(kPlain, 20, s(n)); }, {kOutOfRange, kTooFew}, {0, 999}},
        {"getBlockData index", [&](int n) { return read(kApp, s(n), 1); }, {kOutOfRange}, {0}},
        {"getBlockData count", [&](int n) { return read(kApp, 0, s(n)); }, {kOutOfRange, kTooFew}, {0, 999}},
        {"setBlockData start", [&](int n) { return write(kPlain, s(n), 1, 16, buffer); }, {kOutOfRange}, {0}},
        {"setBlockData run",
         [&](int n) { return write(kPlain, 20, s(n), 0, buffer); },
         {kOutOfRange, kTooFew},
         {0, 999}},
        {"setBlockData index", [&](int n) { return write(kApp, s(n), 1, 16, buffer); }, {kOutOfRange}, {0}},
        {"setBlockData count",
         [&](int n) { return write(kApp, 0, s(n), 0, buffer); },
         {kOutOfRange, kTooFew},
         {0, 999}},
        {"setBlockData length", [&](int n) { return write(kApp, 0, 4, n, buffer); }, {kDataTooLong}, {0}},
        {"setBlockData all",
         [&](int n) { return write(kApp, 0, 999, n < 0 || n > 64 ? INT_MAX : 64, buffer); },
         {kDataTooLong},
         {0}},
        {"setKey first", [&](int n) { return keys(kPlain, s(n), 1); }, {kTooFew}, {0}},
        {"setKey run", [&](int n) { return keys(kPlain, 5, s(n)); }, {kTooFew}, {-32768, -1, 0}},
        {"setKey id", [&](int n) { return keys(kApp, s(n), 1); }, {kNoApplicationId, kApplicationMissing}},
        {"setTrailerBlockType first", [&](int n) { return trailers(kPlain, s(n), 1, 13); }, {kTooFew}, {0}},
        {"setTrailerBlockType run", [&](int n) { return trailers(kPlain, 5, s(n), 13); }, {kTooFew}, {-32768, -1, 0}},
        {"setTrailerBlockType access", [&](int n) { return trailers(kPlain, 5, 1, n); }, {kAccessRefused}},
        {"setDataBlockType block",
         [&](int n) { return type(kPlain, s(n), 2051, 1); },
         {kOutOfRange, kTypeNotWritten, kTrailerNotRead}},
        {"setDataBlockType index", [&](int n) { return type(kApp, s(n), 2051, 1); }, {kApplicationMissing}, {0}},
        {"setDataBlockType access", [&](int n) { return type(kApp, 0, 2051, n); }, {kNoDataCondition}, {0}},
        {"getValue block", [&](int n) { return value(kPlain, n); }, {kOutOfRange, kTrailerNotRead}},
        {"getValue index", [&](int n) { return value(kApp, n); }, {kDirectoryNotRead, kNoValueBlock}},
        {"setValue block", [&](int n) { return setValue(kPlain, n); }, {kOutOfRange, kTrailerNotRead}},
        {"setValue index", [&](int n) { return setValue(kApp, n); }, {kApplicationMissing, kNoValueBlock}},
        {"adjustValue block", [&](int n) { return adjust(kPlain, n, -1); }, {kOutOfRange, kKeyRefused}},
        {"adjustValue index", [&](int n) { return adjust(kApp, n, -1); }, {kApplicationMissing, kValueFailed}},
        {"adjustValue operation", [&](int n) { return adjust(kPlain, 20, -1, n); }, {kNotAllowedHere, kValueFailed}},
        {"adjustValue transfer", [&](int n) { return adjust(kPlain, 20, n); }, {kValueFailed}},
        {"adjustValue to index", [&](int n) { return adjust(kApp, 0, n); }, {kApplicationMissing, kValueFailed}},
        {"getBlockAccessMode", [&](int n) { return blockAccess(kPlain, n, kMad.data()); }, {kOutOfRange}, {0}},
        {"getBlockAccessMode index", [&](int n) { return blockAccess(kApp, n); }, {kDirectoryNotRead}, {0}},
        {"getSectorAccessMode",
         [&](int n) { return sectorAccess(kPlain, s(n), 0, codes, kMad.data()); },
         {kOutOfRange},
         {0}},
        {"getSectorAccessMode index", [&](int n) { return sectorAccess(kApp, kId, s(n), codes); }, {kOutOfRange}, {0}},
    };
    for (const Case& c : cases)
        for (const int number : {-32768, -1, 0, 998, 999, 1000, 32767}) {
            place.setImage(layout);
            const int status = c.call(number);
            if (c.lawful.count(number) > 0) {
                EXPECT_TRUE(status == kOk || status == kPartial) << c.what << ' ' << number << ": " << status;
                EXPECT_EQ(place.block(0), blockOf(layout, 0)) << c.what;
            } else {
                EXPECT_EQ(c.refusals.count(status), 1u) << c.what << ' ' << number << ": " << status;
                EXPECT_EQ(place.image(), layout) << c.what << ' ' << number;
            }
        }
}

TEST_F(TagCorners, ADecrementOnlyBlockIsTestedInTheOrderOfItsKind) {
    const auto init = [&](TagAppType kind, short id, int block, int number) {
        return ai.initDecrementOnlyBlock(0, kind, tag, id, kA.data(), kC.data(), block, number, AuthKeyA, nullptr);
    };
    place.setImage(layout);
    for (const int block : {INT_MIN, -65532, -1, 32768, 65540, INT_MAX}) {
        EXPECT_EQ(init(TagAppNone, 0, block, 1), kOutOfRange) << block;
        EXPECT_EQ(init(TagAppMad1, kId, block, 1), kApplicationMissing) << block;
        EXPECT_EQ(init(TagAppMad1, 3, block, 1), kNoApplicationId) << block;
        EXPECT_EQ(init(TagAppMad1, kId, block, 0), kZeroValue) << block;
    }
    EXPECT_EQ(place.image(), layout);
}

TEST_F(TagCorners, NullPointersAreRefused) {
    const std::pair<const char*, std::function<int()>> cases[] = {
        {"initApp mad key", [&] { return add(true, TagAppMad1, 0x777, 1, kA.data(), kC.data(), nullptr); }},
        {"initApp key A", [&] { return add(true, TagAppMad1, 0x777, 1, nullptr); }},
        {"initApp key B", [&] { return add(true, TagAppMad1, 0x777, 1, kA.data(), nullptr); }},
        {"addAppSector key A", [&] { return add(false, TagAppNone, 5, 1, nullptr); }},
        {"addAppSector key B", [&] { return add(false, TagAppMad1, kId, 1, kA.data(), nullptr); }},
        {"removeAppSector key", [&] { return remove(TagAppMad1, kId, 0, 3, nullptr); }},
        {"removeAppSector mad key", [&] { return remove(TagAppMad1, kId, 0, 3, kC.data(), nullptr); }},
        {"removeAppSector no key", [&] { return remove(TagAppMad1, kId, 0, 3, kC.data(), nullptr, nullptr); }},
        {"removeAppSector plain", [&] { return remove(TagAppNone, 5, 0, 1, nullptr); }},
        {"removeAppSector key B", [&] { return remove(TagAppNone, 5, 0, 1, kC.data(), nullptr, nullptr); }},
        {"getBlockData key", [&] { return read(TagAppMad1, 0, 1, nullptr); }},
        {"setBlockData data", [&] { return write(TagAppMad1, 0, 1, 16, nullptr); }},
        {"setBlockData key", [&] { return write(TagAppMad1, 0, 1, 16, buffer, nullptr); }},
        {"setKey key", [&] { return keys(TagAppMad1, kId, 1, nullptr); }},
        {"setKey key A", [&] { return keys(TagAppNone, 5, 1, kC.data(), nullptr); }},
        {"setKey key B", [&] { return keys(TagAppNone, 5, 1, kC.data(), kA.data(), nullptr); }},
        {"setTrailerBlockType key A", [&] { return trailers(TagAppNone, 5, 1, 13, nullptr); }},
        {"setTrailerBlockType key B", [&] { return trailers(TagAppNone, 5, 1, 13, kA.data(), nullptr); }},
        {"setDataBlockType key A", [&] { return type(TagAppNone, 20, 2051, 1, nullptr); }},
        {"setDataBlockType key B", [&] { return type(TagAppNone, 20, 2051, 1, kA.data(), nullptr); }},
        {"getValue key", [&] { return value(TagAppMad1, 0, nullptr); }},
        {"setValue key", [&] { return setValue(TagAppMad1, 0, nullptr); }},
        {"adjustValue key", [&] { return adjust(TagAppMad1, 0, -1, 0, nullptr); }},
        {"getBlockAccessMode key", [&] { return blockAccess(TagAppMad1, 0, nullptr); }},
        {"getSectorAccessMode key", [&] { return sectorAccess(TagAppMad1, kId, 0, codes, nullptr); }},
        {"getSectorAccessMode codes", [&] { return sectorAccess(TagAppMad1, kId, 0, nullptr); }},
        {"getAppIdDir", [&] { return ai.getAppIdDir(0, TagAppMad1, tag, nullptr, AuthKeyA, nullptr); }},
    };
    const std::set<int> documented{kReaderFailed,   kKeyRefused, kDirectoryNotRead, kDirectoryNotWritten,
                                   kTrailerNotRead, kPartial,    kNewKeyMissing};
    place.setImage(layout);
    for (const auto& [what, call] : cases) {
        const int status = call();
        EXPECT_EQ(documented.count(status), 1u) << what << ": " << status;
        EXPECT_EQ(place.image(), layout) << what;
    }
}

// Two tags of different type that show the same UID: what was worked out for the one must not reach the other.
TEST(TagOfAnotherType, EndsTheOperation) {
    for (const auto& [first, second] : {std::pair{1024, 4096}, std::pair{4096, 1024}}) {
        TagWorkplace place(static_cast<std::size_t>(first));
        const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
        const auto other = std::make_shared<MifareClassicTag>(
            MifareClassicTag::blankImage(static_cast<std::size_t>(second), uid), uid);
        const std::string away = place.reader->field().place(other);
        place.reader->field().setPresent(away, false);
        // The second sector's authentication meets the other tag, which refuses it.
        ASSERT_EQ(place.reader->addFaults("40 4 tag swapped " + away), "");
        EXPECT_EQ(place.write(TagAppNone, 0, 1, 10, Bytes(160, 0x66), kFactory, AuthKeyA), kPartial) << first;
        EXPECT_EQ(other->memory()->writeCount(), 0u) << first;
        EXPECT_EQ(place.told, "1 2 4:3102 5:3102 6:3102 8:3102 9:3102 10:3102 12:3102 13:3102") << first;
    }
}

// Twice "already awake" leaves the type that the host remembers; the first selection that sees the tag corrects it.
TEST(TagOfAnotherType, IsNoStrangerWhileOnlyTheHostSaysItsType) {
    TagWorkplace place;
    place.poke(4, Bytes(16, 0x44));
    place.tag.setTagType(kTagProX);
    ASSERT_EQ(place.reader->addFaults("4A 1 already awake\n4A 2 already awake\n40 1 status 14"), "");
    EXPECT_EQ(place.read(TagAppNone, 0, 4, 1, kFactory), kOk);
    EXPECT_EQ(place.data, Bytes(16, 0x44));
    EXPECT_EQ(place.tag.getTagType(), kTagStandard);
}

TEST(TagOfAnotherType, IsJudgedByWhatTheSelectionSaw) {
    TagWorkplace place;
    place.tag.setTagType(kTag4K);  // the host remembers another tag
    EXPECT_EQ(place.read(TagAppNone, 0, 64, 1, kFactory), kOutOfRange);
    EXPECT_EQ(place.tag.getTagType(), kTagStandard);
    place.tag.setTagType(kTagUltralight);
    EXPECT_EQ(place.adaptor->setDataBlockType(0, TagAppNone, 0, place.tag, kFactory.data(), kFactory.data(), 7, 2051,
                                              AccData100, 0, AuthKeyA, nullptr),
              kReservedBlock)
        << "a page of data there, a trailer here";
    DataAccControl codes[4];
    TagWorkplace large(4096);
    EXPECT_EQ(large.adaptor->getSectorAccessMode(0, TagAppNone, large.tag, 40, AuthKeyA, kFactory.data(), 0, codes,
                                                 AuthKeyA, nullptr),
              kOutOfRange);
    EXPECT_EQ(large.adaptor->getSectorAccessMode(0, TagAppNone, large.tag, 39, AuthKeyA, kFactory.data(), 0, codes,
                                                 AuthKeyA, nullptr),
              kOk);
}

}  // namespace

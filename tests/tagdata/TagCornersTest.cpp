// Numbers and pointers that no host should hand in: refused, and the tag stays
// as it was.

#include "TagCalls.h"

#include <climits>

namespace {

using TagCorners = TagCalls;

TEST_F(TagCorners, NumbersAreTestedInFullWidth) {
    const auto s = [](int n) { return static_cast<short>(n); };
    // A call with a number, and the numbers that are lawful.
    const std::tuple<const char*, std::function<int(int)>, std::set<int>> cases[] = {
        {"initApp count", [&](int n) { return init(0x777, s(n)); }, {0}},
        {"addAppSector first", [&](int n) { return add(kPlain, s(n), 1); }, {0}},
        {"addAppSector run", [&](int n) { return add(kPlain, 1, s(n)); }, {0}},
        {"removeAppSector id", [&](int n) { return remove(kApp, s(n), 0, 1); }, {}},
        {"removeAppSector start", [&](int n) { return remove(kApp, kId, s(n), 1); }, {0}},
        {"removeAppSector first", [&](int n) { return remove(kPlain, s(n), 0, 1); }, {0}},
        {"removeAppSector run", [&](int n) { return remove(kPlain, 1, 0, s(n)); }, {0}},
        {"getBlockData start", [&](int n) { return read(kPlain, s(n), 1); }, {0}},
        {"getBlockData run", [&](int n) { return read(kPlain, 20, s(n)); }, {0, 999}},
        {"getBlockData count", [&](int n) { return read(kApp, 0, s(n)); }, {0, 999}},
        {"setBlockData start", [&](int n) { return write(kPlain, s(n), 1, 16, buffer); }, {0}},
        {"setBlockData run", [&](int n) { return write(kPlain, 20, s(n), 0, buffer); }, {0, 999}},
        {"setBlockData length", [&](int n) { return write(kApp, 0, 4, n, buffer); }, {0}},
        {"setBlockData all", [&](int n) { return write(kApp, 0, 999, n == 0 ? 64 : INT_MAX, buffer); }, {0}},
        {"setKey first", [&](int n) { return keys(kPlain, s(n), 1); }, {0}},
        {"setKey run", [&](int n) { return keys(kPlain, 5, s(n)); }, {-32768, -1, 0}},
        {"setTrailerBlockType first", [&](int n) { return trailers(kPlain, s(n), 1, 13); }, {0}},
        {"setTrailerBlockType access", [&](int n) { return trailers(kPlain, 5, 1, n); }, {}},
        {"setDataBlockType block", [&](int n) { return type(kPlain, s(n), 1); }, {}},
        {"setDataBlockType access", [&](int n) { return type(kApp, 0, n); }, {0}},
        {"getValue block", [&](int n) { return value(kPlain, n); }, {}},
        {"setValue block", [&](int n) { return setValue(kPlain, n); }, {}},
        {"adjustValue block", [&](int n) { return adjust(kPlain, n, -1); }, {}},
        {"adjustValue operation", [&](int n) { return adjust(kPlain, 20, -1, n); }, {}},
        {"adjustValue transfer", [&](int n) { return adjust(kPlain, 20, n); }, {}},
        {"adjustValue to index", [&](int n) { return adjust(kApp, 0, n); }, {}},
        {"getBlockAccessMode", [&](int n) { return blockAccess(kPlain, n); }, {0}},
        {"getSectorAccessMode", [&](int n) { return sectorAccess(kPlain, s(n), 0, codes.data(), kMad.data()); }, {0}},
        {"getSectorAccessMode index", [&](int n) { return sectorAccess(kApp, kId, s(n), codes.data()); }, {0}},
    };
    for (const auto& [what, call, lawful] : cases)
        for (const int given : {-32768, -1, 0, 998, 999, 1000, 32767}) {
            SCOPED_TRACE(at(what, given));
            setImage(layout);
            const int status = call(given);
            const bool isLawful = lawful.count(given) > 0, isDone = status == kOk || status == kPartial;
            EXPECT_EQ(isDone, isLawful) << status;
            EXPECT_TRUE(isLawful || image() == layout);
            EXPECT_EQ(block(0), blockOf(layout, 0));
        }
}

TEST_F(TagCorners, ADecrementOnlyBlockIsTestedInTheOrderOfItsKind) {
    const auto ticket = [&](TagAppType kind, short id, int block, int value) {
        return adaptor->initDecrementOnlyBlock(0, kind, tag, id, kA.data(), kC.data(), block, value, AuthKeyA, nullptr);
    };
    for (const int block : {INT_MIN, -65532, -1, 32768, 65540, INT_MAX}) {
        EXPECT_EQ(ticket(kPlain, 0, block, 1), kOutOfRange) << block;
        EXPECT_EQ(ticket(kApp, kId, block, 1), kApplicationMissing) << block;
        EXPECT_EQ(ticket(kApp, 3, block, 1), kNoApplicationId) << block;
        EXPECT_EQ(ticket(kApp, kId, block, 0), kZeroValue) << block;
    }
    EXPECT_EQ(image(), layout);
}

TEST_F(TagCorners, NullPointersAreRefused) {
    const std::pair<const char*, std::function<int()>> cases[] = {
        {"initApp mad key", [&] { return init(0x777, 1, nullptr); }},
        {"addAppSector key A", [&] { return add(kPlain, 5, 1, nullptr); }},
        {"addAppSector key B", [&] { return add(kApp, kId, 1, kA.data(), nullptr); }},
        {"removeAppSector key", [&] { return remove(kApp, kId, 0, 3, nullptr); }},
        {"removeAppSector key B", [&] { return remove(kPlain, 5, 0, 1, kC.data(), nullptr); }},
        {"getBlockData key", [&] { return read(kApp, 0, 1, nullptr); }},
        {"setBlockData data", [&] { return write(kApp, 0, 1, 16, nullptr); }},
        {"setBlockData key", [&] { return write(kApp, 0, 1, 16, buffer, nullptr); }},
        {"setKey key", [&] { return keys(kPlain, 5, 1, nullptr); }},
        {"setTrailerBlockType key A", [&] { return trailers(kPlain, 5, 1, 13, nullptr); }},
        {"setDataBlockType key A", [&] { return type(kPlain, 20, 1, nullptr); }},
        {"getValue key", [&] { return value(kApp, 0, nullptr); }},
        {"setValue key", [&] { return setValue(kApp, 0, nullptr); }},
        {"adjustValue key", [&] { return adjust(kApp, 0, -1, 0, nullptr); }},
        {"getSectorAccessMode codes", [&] { return sectorAccess(kApp, kId, 0, nullptr); }},
        {"getAppIdDir", [&] { return adaptor->getAppIdDir(0, kApp, tag, nullptr, AuthKeyA, nullptr); }},
    };
    for (const auto& [what, call] : cases) {
        EXPECT_NE(call(), kOk) << what;
        EXPECT_EQ(image(), layout) << what;
    }
}

// Two tags of different type that show the same UID: what was worked out for
// the one must not reach the other.
TEST(TagOfAnotherType, EndsTheOperation) {
    for (const auto& [first, second] : {std::pair{1024, 4096}, std::pair{4096, 1024}}) {
        TagWorkplace place(static_cast<std::size_t>(first));
        const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
        const auto other = std::make_shared<MifareClassicTag>(
            MifareClassicTag::blankImage(static_cast<std::size_t>(second), uid), uid);
        const std::string away = place.reader->field().place(other);
        place.reader->field().setPresent(away, false);
        // The second sector's authentication meets the other tag, which refuses it.
        ASSERT_EQ(place.spoil(Op::authenticate, (isMf500UnderTest() ? "2" : "4") + (" tag swapped " + away)), "");
        EXPECT_EQ(place.told(place.write(kPlain, 1, 10, Bytes(160, 0x66), kFactory.data(), AuthKeyA)),
                  "3132 1 2 4:3102 5:3102 6:3102 8:3102 9:3102 10:3102 12:3102 13:3102")
            << first;
        EXPECT_EQ(other->memory()->writeCount(), 0u) << first;
    }
}

// Twice "already awake" leaves the type that the host remembers; the first
// selection that sees the tag corrects it.
TEST(TagOfAnotherType, IsNoStrangerWhileOnlyTheHostSaysItsType) {
    if (isMf500UnderTest()) GTEST_SKIP() << "it never reports a tag as awake already";
    TagWorkplace place;
    place.tag.setTagType(kTagProX);
    ASSERT_EQ(place.reader->addFaults("4A 1 already awake\n4A 2 already awake\n40 1 status 14"), "");
    EXPECT_EQ(place.read(kPlain, 4, 1, kFactory.data()), kOk);
    EXPECT_EQ(place.tag.getTagType(), kTagStandard);

    // Pages in the host's memory, blocks on the tag: four pages of room do not hold four blocks.
    place.tag.setTagType(kTagUltralight);
    ASSERT_EQ(place.reader->addFaults("4A 1 already awake\n4A 2 already awake\n40 1 status 14"), "");
    EXPECT_NE(place.read(kPlain, 4, 4, kFactory.data()), kOk);
    EXPECT_EQ(place.tag.getTagType(), kTagUltralight);
}

TEST(TagOfAnotherType, IsJudgedByWhatTheSelectionSaw) {
    TagWorkplace place;
    place.tag.setTagType(kTag4K);  // the host remembers another tag
    EXPECT_EQ(place.read(kPlain, 64, 1, kFactory.data()), kOutOfRange);
    EXPECT_EQ(place.tag.getTagType(), kTagStandard);
    place.tag.setTagType(kTagUltralight);
    EXPECT_EQ(place.read(kPlain, 7, 1, kFactory.data()), kReservedBlock) << "a page of data there, a trailer here";
}

}  // namespace

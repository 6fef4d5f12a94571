// Tag types, tags, lists of tags, and the event that reports one.

#include "EventObject.h"
#include "HexText.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"
#include "TagTypes.h"
#include "TagUID.h"
#include "TagUIDList.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace {

TEST(TagTypes, EveryRowIsFoundByCodeAtqaAndWireCode) {
    const std::array<std::uint32_t, 5> rows[] = {
        {2000, 0x0000, 0, 0, 0},  {2001, 0x4400, 7, 1, 0},  {2002, 0x0400, 4, 16, 1}, {2003, 0x0200, 4, 40, 1},
        {2004, 0x0407, 4, 16, 0}, {2005, 0x4403, 7, 14, 0}, {2006, 0x0001, 8, 1, 0},  {2007, 0x0002, 8, 1, 0}};
    for (const auto& [wireCode, type, uidLength, sectorCount, isClassic] : rows) {
        const std::uint8_t atqa[] = {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type)};
        for (const TagTypeInfo& info : {tagInfoByType(type), tagInfoByAtqa(atqa)})
            EXPECT_EQ(std::tie(info.type, info.uidLength, info.sectorCount, info.isClassic),
                      std::tie(type, uidLength, sectorCount, isClassic))
                << info.name;
        EXPECT_EQ(tagTypeToWire(type), wireCode);
        EXPECT_EQ(wireToTagType(wireCode), type);
    }
    for (std::uint32_t type : {0x0003u, 0x0408u, 0x10400u, 0xFFFFFFFFu}) {
        EXPECT_EQ(tagInfoByType(type).type, 0x0400u) << type;
        EXPECT_EQ(tagTypeToWire(type), 2000u) << type;
    }
    for (std::uint32_t wireCode : {0u, 7u, 1999u, 2008u, 0xFFFFFFFFu})
        EXPECT_EQ(wireToTagType(wireCode), 0u);
}

TEST(TagTypes, EverySakDecidesOneType) {
    const std::map<int, std::uint32_t> known = {{0x00, 0x4400}, {0x08, 0x0400}, {0x28, 0x0400},
                                                {0x38, 0x0400}, {0x18, 0x0200}, {0x20, 0x4403}};
    for (int sak = 0; sak < 256; ++sak) {
        const std::uint32_t expected = known.contains(sak) ? known.at(sak) : 0;
        EXPECT_EQ(tagTypeFromSak(static_cast<std::uint8_t>(sak)), expected) << sak;
        EXPECT_EQ(tagInfoBySak(static_cast<std::uint8_t>(sak)).type, expected) << sak;
    }
}

TEST(TagTypes, CascadeLevelsFollowEachOther) {
    for (const auto& [code, next] : std::map<int, int>{{0x93, 0x95}, {0x95, 0x97}, {0x97, -1}, {0x94, -1}, {-1, -1}})
        EXPECT_EQ(nextCascadeLevel(code), next) << code;
}

std::string text(const TagUID& tag) { return hexText(tag.getUid(), tag.getUidLen()); }

TagUID tagOf(const char* hexUid, std::uint32_t type = kTagStandard) {
    return *std::unique_ptr<TagUID>(TagUID::fromHexString(hexUid, type));
}

TEST(TagUid, IsEmptyAndStandardAtFirst) {
    TagUID tag = tagOf("0405", kTag4K);
    tag.reset();
    for (const TagUID& fresh : {TagUID(), tag}) {
        EXPECT_EQ(fresh.getUid(), nullptr);
        EXPECT_EQ(fresh.getUidLen(), 0u);
        EXPECT_EQ(fresh.getTagType(), 0x0400u);
        EXPECT_EQ(fresh.toHexString(), nullptr);
    }
    const std::uint8_t uid[] = {4, 5};
    for (const TagUID& empty : {TagUID(uid, 0, 7), TagUID(nullptr, 4, 7), tagOf("", 7), tagOf(nullptr, 7)}) {
        EXPECT_EQ(empty.getUidLen(), 0u);
        EXPECT_EQ(empty.getTagType(), 7u);
    }
}

TEST(TagUid, CopiesAreDeepAndEqualityIgnoresTheType) {
    TagUID tag = tagOf("04A1b2c3");
    TagUID copy(tag);
    TagUID assigned;
    assigned = tag;
    tag.setUid(reinterpret_cast<const std::uint8_t*>("\x01"), 1);
    EXPECT_STREQ(std::unique_ptr<char[]>(copy.toHexString()).get(), "04a1b2c3");
    assigned.setTagType(kTagProX);
    EXPECT_TRUE(copy == assigned);
    for (const TagUID& other : {tag, tagOf("04a1b2c4"), tagOf("04a1b2")})
        EXPECT_FALSE(copy == other);
}

TEST(TagUid, TakesItsOwnBytes) {
    TagUID tag = tagOf("04a1b2c3", kTag4K);
    const TagUID& same = tag;
    tag = same;
    EXPECT_EQ(text(tag), "04a1b2c3");
    tag.setUid(tag.getUid() + 1, 3);
    EXPECT_EQ(text(tag), "a1b2c3");
    EXPECT_EQ(tag.getTagType(), 0x0200u);
    TagUID stream = tagOf("050000000211220107d3");
    EXPECT_EQ(stream.deserialize(stream.getUidLen(), stream.getUid()), kMemoryOk);
    EXPECT_EQ(text(stream), "1122");
}

TEST(TagUid, LengthCanOnlyShorten) {
    TagUID tag = tagOf("04a1b2c3");
    const std::pair<std::uint32_t, const char*> steps[] = {{5, "04a1b2c3"}, {2, "04a1"}, {4, "04a1b2c3"}, {0, ""}};
    for (const auto& [length, left] : steps) {
        tag.setUidLen(length);
        EXPECT_EQ(text(tag), left);
        EXPECT_EQ(text(TagUID(tag)), left);
    }
    EXPECT_EQ(tag.getUid(), nullptr);
}

TEST(TagUid, CascadeBytesOfEveryLevel) {
    const std::pair<const char*, std::array<const char*, 3>> cases[] = {
        {"", {"00000000", "00000000", "00000000"}},
        {"0102", {"01020000", "00000000", "00000000"}},
        {"01020304", {"01020304", "04000000", "00000000"}},
        {"0102030405", {"88010203", "04050000", "00000000"}},
        {"01020304050607", {"88010203", "04050607", "07000000"}},
        {"0102030405060708", {"88010203", "88040506", "07080000"}},
        {"0102030405060708090a0b0c", {"88010203", "88040506", "0708090a"}},
    };
    for (const auto& [uid, levels] : cases)
        for (std::size_t level = 0; level < 3; ++level) {
            std::uint8_t out[5] = {0, 0, 0, 0, 0xEE};
            tagOf(uid).getCascadeBytes(static_cast<std::uint8_t>(0x93 + 2 * level), out);
            EXPECT_EQ(hexText(out, 5), std::string(levels[level]) + "ee") << uid << ' ' << level;
        }
}

TEST(TagUid, StreamHasTheDocumentedBytes) {
    QVLParamCollection stream;
    TagUID tag = tagOf("04A1B2C3");
    EXPECT_EQ(stream.addParameter(tag), kMemoryOk);
    EXPECT_EQ(hexText(stream.getData(), stream.getSize()), "050000000c050000000404a1b2c30107d2");

    const std::pair<std::uint32_t, std::uint32_t> types[] = {{0x0407, 0x0407}, {0x4403, 0x4403}, {0x1234, 0}};
    for (const auto& [type, again] : types) {
        TagUID sent = tagOf("04112233445566", type);
        TagUID received;
        QVLParamCollection wire;
        wire.addParameter(sent);
        wire.rewind();
        EXPECT_EQ(wire.getParameter(received), kMemoryOk);
        EXPECT_TRUE(received == sent);
        EXPECT_EQ(received.getTagType(), again);
    }
}

// Whatever is cut off a stream: the tag never claims bytes that it does not have, and can be used.
TEST(TagUid, EveryCutOfAStreamLeavesASoundTag) {
    TagUID tag = tagOf("04a1b2c3", kTag4K);
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    ASSERT_EQ(tag.serialize(length, data), kMemoryOk);
    const std::unique_ptr<std::uint8_t[]> owner(data);
    ASSERT_EQ(length, 12u);
    for (std::uint32_t cut = 0; cut <= length; ++cut) {
        TagUID read = tagOf("1122334455", kTagProX);
        EXPECT_EQ(read.deserialize(cut, data), cut == length ? kMemoryOk : kStreamEnd) << cut;
        EXPECT_EQ(text(read), cut < 9 ? "" : "04a1b2c3") << cut;
        EXPECT_EQ(read.getTagType(), cut == length ? 0x0200u : 0x0407u) << cut;
        std::uint8_t out[4];
        read.getCascadeBytes(0x97, out);
        TagUID copy = read;
        std::unique_ptr<char[]>(copy.toHexString());
    }
    data[0] = 4;
    EXPECT_EQ(tag.deserialize(length, data), kWrongValueType);
    EXPECT_EQ(tag.getUidLen(), 0u);
    EXPECT_EQ(tag.deserialize(7, nullptr), kStreamFull);
}

TEST(TagUidList, KeepsOrderOwnsNodesAndCanBeUsedAgain) {
    TagUIDList list;
    TagUIDListNode stranger(tagOf("ee"), nullptr);
    for (int round = 0; round < 2; ++round) {
        for (const char* uid : {"01", "02", "03"})
            list.append(new TagUIDListNode(tagOf(uid), &stranger));
        list.append(nullptr);
        EXPECT_EQ(list.count(), 3u);
        const std::unique_ptr<TagUIDListIterator> iterator(list.newIterator());
        std::string walked;
        while (!iterator->atEnd())
            walked += text(*iterator->next()->getTag());
        EXPECT_EQ(walked, "010203");
        EXPECT_EQ(iterator->next(), nullptr);
        if (round == 1) break;  // the last ones are released by the list's end
        list.clear();
        EXPECT_EQ(list.count(), 0u);
        EXPECT_TRUE(std::unique_ptr<TagUIDListIterator>(list.newIterator())->atEnd());
    }
}

constexpr std::uint8_t kUid[] = {0x04, 0xA1, 0xB2, 0xC3};
constexpr std::uint8_t kExtra[] = {0x11, 0x22};

/// All fields as one line: kind, code, time, type, UID, extra.
std::string text(const EventObject& event) {
    std::uint32_t length = 99;
    std::uint8_t* bytes = nullptr;
    EXPECT_TRUE(event.getUid(length, bytes));
    const std::unique_ptr<std::uint8_t[]> owner(bytes);
    EXPECT_EQ(length, event.getUidLen());
    return std::to_string(event.getKind()) + ' ' + std::to_string(event.getCode()) + ' ' +
           std::to_string(event.getTime()) + ' ' + std::to_string(event.getType()) + " [" + hexText(bytes, length) +
           "] [" + hexText(event.getExtra(), event.getExtraLen()) + ']';
}

TEST(EventObject, EveryConstructorFillsItsFields) {
    EXPECT_EQ(text(EventObject()), "1 103 0 2002 [] []");
    EXPECT_EQ(text(EventObject(1, 5, 77, kTag4K, kUid, 4, 2, kExtra)), "1 5 77 2003 [04a1b2c3] [1122]");
    EXPECT_EQ(text(EventObject(2, 5, 77, kTag4K, kUid, 4, 0, kExtra)), "2 5 77 512 [04a1b2c3] []");
    EXPECT_EQ(text(EventObject(1, 5, 77, 0x9999, nullptr, 4, 2, nullptr)), "1 5 77 2000 [] []");
    EXPECT_EQ(text(EventObject(103, 8, TagUID(kUid, 4, kTagUltralight))), "1 103 8 2001 [04a1b2c3] []");
    EXPECT_EQ(text(EventObject(103, 8, TagUID(nullptr, 0, kTagUltralight))), "1 103 8 2002 [] []");
}

TEST(EventObject, SetReplacesEverythingAndCopiesAreDeep) {
    EventObject event(2, 5, 77, 9, kUid, 4, 2, kExtra);
    const EventObject copy(event);
    EventObject assigned(103, 1, TagUID(kUid, 3, kTag4K));
    assigned = event;
    event.set(103, 8, TagUID(kExtra, 2, kTagDesFire), 3, kUid);
    EXPECT_EQ(text(event), "1 103 8 2005 [1122] [04a1b2]");
    event.set(103, 9, TagUID(kUid, 4, kTagDesFire), event.getExtraLen() - 1, event.getExtra() + 1);
    EXPECT_EQ(text(event), "1 103 9 2005 [04a1b2c3] [a1b2]");
    event.set(104, 0, TagUID(), 0, nullptr);
    EXPECT_EQ(text(event), "1 104 0 2002 [] []");
    EXPECT_EQ(event.getExtra(), nullptr);

    const EventObject& same = assigned;
    assigned = same;
    for (const EventObject* each : {&copy, static_cast<const EventObject*>(&assigned)})
        EXPECT_EQ(text(*each), "2 5 77 9 [04a1b2c3] [1122]");
}

}  // namespace

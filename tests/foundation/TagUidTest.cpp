#include "TagUID.h"
#include "HexText.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"
#include "TagUIDList.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

std::string text(const TagUID& tag) { return hexText(tag.getUid(), tag.getUidLen()); }

TagUID tagOf(const char* hexUid, std::uint32_t type = kTagStandard) {
    return *std::unique_ptr<TagUID>(TagUID::fromHexString(hexUid, type));
}

TEST(TagUid, IsEmptyAndStandardAtFirst) {
    TagUID tag;
    EXPECT_EQ(tag.getUid(), nullptr);
    EXPECT_EQ(tag.getUidLen(), 0u);
    EXPECT_EQ(tag.getTagType(), 0x0400u);
    EXPECT_EQ(tag.toHexString(), nullptr);
    const std::uint8_t uid[] = {4, 5};
    for (const TagUID& empty : {TagUID(uid, 0, 7), TagUID(nullptr, 4, 7)}) {
        EXPECT_EQ(empty.getUidLen(), 0u);
        EXPECT_EQ(empty.getTagType(), 7u);
    }
    tag = tagOf("0405", 0x0200);
    tag.reset();
    EXPECT_TRUE(tag == TagUID());
    EXPECT_EQ(tag.getTagType(), 0x0400u);
}

TEST(TagUid, HexTextGoesBothWays) {
    for (const char* digits : {"04a1b2c3", "00", "04112233445566", "0123456789abcdef0123"})
        EXPECT_STREQ(std::unique_ptr<char[]>(tagOf(digits).toHexString()).get(), digits);
    EXPECT_EQ(text(tagOf("04A1b")), "04a1");
    for (const char* none : {"", "0", static_cast<const char*>(nullptr)}) {
        const std::unique_ptr<TagUID> tag(TagUID::fromHexString(none, 0x0200));
        EXPECT_EQ(tag->getUidLen(), 0u);
        EXPECT_EQ(tag->getTagType(), 0x0200u);
    }
}

TEST(TagUid, CopiesAreDeepAndEqualityIgnoresTheType) {
    TagUID tag = tagOf("04a1b2c3");
    TagUID copy(tag);
    TagUID assigned;
    assigned = tag;
    tag.setUid(reinterpret_cast<const std::uint8_t*>("\x01"), 1);
    EXPECT_EQ(text(copy), "04a1b2c3");
    EXPECT_TRUE(copy == assigned);
    EXPECT_FALSE(copy == tag);
    assigned.setTagType(kTagProX);
    EXPECT_TRUE(copy == assigned);
    EXPECT_FALSE(tagOf("04a1b2c3") == tagOf("04a1b2c4"));
    EXPECT_FALSE(tagOf("04a1b2c3") == tagOf("04a1b2"));
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
    tag.setUidLen(5);
    EXPECT_EQ(text(tag), "04a1b2c3");
    tag.setUidLen(2);
    EXPECT_EQ(text(tag), "04a1");
    EXPECT_EQ(text(TagUID(tag)), "04a1");
    tag.setUidLen(4);
    EXPECT_EQ(text(tag), "04a1b2c3");
    tag.setUidLen(0);
    EXPECT_EQ(tag.getUid(), nullptr);
    EXPECT_TRUE(tag == TagUID());
}

TEST(TagUid, CascadeBytesOfEveryLevel) {
    const struct {
        const char* uid;
        const char* level1;
        const char* level2;
        const char* level3;
    } cases[] = {
        {"", "00000000", "00000000", "00000000"},
        {"0102", "01020000", "00000000", "00000000"},
        {"01020304", "01020304", "04000000", "00000000"},
        {"0102030405", "88010203", "04050000", "00000000"},
        {"01020304050607", "88010203", "04050607", "07000000"},
        {"0102030405060708", "88010203", "88040506", "07080000"},
        {"0102030405060708090a", "88010203", "88040506", "0708090a"},
        {"0102030405060708090a0b0c", "88010203", "88040506", "0708090a"},
    };
    for (const auto& c : cases) {
        const TagUID tag = tagOf(c.uid);
        const std::pair<int, const char*> levels[] = {
            {0x93, c.level1}, {0x95, c.level2}, {0x97, c.level3}, {0, c.level3}};
        for (const auto& [selectCode, expected] : levels) {
            std::uint8_t out[5] = {0, 0, 0, 0, 0xEE};
            tag.getCascadeBytes(static_cast<std::uint8_t>(selectCode), out);
            EXPECT_EQ(hexText(out, 5), std::string(expected) + "ee") << c.uid << ' ' << selectCode;
        }
    }
}

TEST(TagUid, InfoIsTheRowOfItsType) {
    TagTypeInfo info{};
    tagOf("04a1b2c3", kTag4K).getTagInfo(info);
    EXPECT_EQ(info.sectorCount, 40u);
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
        list.clear();
        EXPECT_EQ(list.count(), 0u);
        EXPECT_TRUE(std::unique_ptr<TagUIDListIterator>(list.newIterator())->atEnd());
    }
    list.append(new TagUIDListNode(tagOf("04"), nullptr));  // released by the list's end
}

}  // namespace

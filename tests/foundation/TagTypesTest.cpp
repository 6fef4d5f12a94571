#include "TagTypes.h"

#include <gtest/gtest.h>

#include <map>

namespace {

struct Row {
    std::uint32_t wireCode;
    TagTypeInfo info;
};

constexpr Row kRows[] = {
    {2000, {0x0000, "Unknown", 0, 0, 16, 64, 0}},          {2001, {0x4400, "Mifare Ultralight", 7, 1, 4, 16, 0}},
    {2002, {0x0400, "Mifare Standard", 4, 16, 16, 64, 1}}, {2003, {0x0200, "Mifare 4K", 4, 40, 16, 256, 1}},
    {2004, {0x0407, "Mifare ProX", 4, 16, 16, 64, 0}},     {2005, {0x4403, "Mifare Des Fire", 7, 14, 0, 0, 0}},
    {2006, {0x0001, "ICODE ONE", 8, 1, 4, 16, 0}},         {2007, {0x0002, "ICODE SLI", 8, 1, 4, 16, 0}},
};

void expectRow(const TagTypeInfo& info, const TagTypeInfo& expected) {
    SCOPED_TRACE(expected.name);
    EXPECT_EQ(info.type, expected.type);
    EXPECT_STREQ(info.name, expected.name);
    EXPECT_EQ(info.uidLength, expected.uidLength);
    EXPECT_EQ(info.sectorCount, expected.sectorCount);
    EXPECT_EQ(info.blockSize, expected.blockSize);
    EXPECT_EQ(info.sectorSize, expected.sectorSize);
    EXPECT_EQ(info.isClassic, expected.isClassic);
}

TEST(TagTypes, EveryRowIsFoundByCodeAtqaAndWireCode) {
    for (const Row& row : kRows) {
        const std::uint32_t type = row.info.type;
        const std::uint8_t atqa[] = {static_cast<std::uint8_t>(type >> 8), static_cast<std::uint8_t>(type)};
        expectRow(tagInfoByType(type), row.info);
        expectRow(tagInfoByAtqa(atqa), row.info);
        EXPECT_EQ(tagTypeToWire(type), row.wireCode);
        EXPECT_EQ(wireToTagType(row.wireCode), type);
    }
}

TEST(TagTypes, CodesOutsideTheTable) {
    for (std::uint32_t type : {0x0003u, 0x0408u, 0x10400u, 0xFFFFFFFFu}) {
        expectRow(tagInfoByType(type), kRows[2].info);
        EXPECT_EQ(tagTypeToWire(type), 2000u);
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
    EXPECT_EQ(nextCascadeLevel(0x93), 0x95);
    EXPECT_EQ(nextCascadeLevel(0x95), 0x97);
    for (int code : {0x97, 0x94, 0, -1})
        EXPECT_EQ(nextCascadeLevel(code), -1);
}

}  // namespace

// Access bytes, exhaustively: all codes of all groups, all single-bit faults.

#include "SectorAccessBits.h"

#include "TagTypes.h"

#include <gtest/gtest.h>

#include <array>

namespace {

using Triple = std::array<std::uint8_t, 3>;

std::array<int, 4> conditionsOf(const Triple& bytes) {
    DataAccControl codes[4];
    SectorAccessBits(bytes.data()).getSectorConditions(codes);
    return {codes[0], codes[1], codes[2], codes[3]};
}

TEST(AccessBits, DecodeThePublishedTriples) {
    const std::pair<Triple, std::array<int, 4>> cases[] = {
        {{0xFF, 0x07, 0x80}, {5, 5, 5, 12}}, {{0x78, 0x77, 0x88}, {1, 1, 1, 13}}, {{0x69, 0x67, 0x89}, {0, 1, 1, 13}},
        {{0x7F, 0x07, 0x88}, {5, 5, 5, 13}}, {{0x0F, 0x07, 0x8F}, {0, 0, 0, 13}}, {{0x08, 0x77, 0x8F}, {6, 6, 6, 13}},
        {{0x7F, 0x00, 0xF8}, {7, 7, 7, 13}}, {{0x0F, 0x00, 0xFF}, {2, 2, 2, 13}}, {{0x00, 0xF0, 0xFF}, {4, 4, 4, 15}}};
    for (const auto& [bytes, codes] : cases) {
        EXPECT_TRUE(SectorAccessBits(bytes.data()).isValid());
        EXPECT_EQ(conditionsOf(bytes), codes) << std::hex << int{bytes[0]};
    }
}

TEST(AccessBits, AnyFlippedBitIsNoticed) {
    EXPECT_FALSE(SectorAccessBits(nullptr).isValid());
    EXPECT_FALSE(SectorAccessBits(Triple{}.data()).isValid());
    for (const Triple& sound : {accessbits::kFactory, accessbits::kFormatted, accessbits::kDirectory})
        for (int bit = 0; bit < 24; ++bit) {
            Triple bad = sound;
            bad[static_cast<std::size_t>(bit / 8)] ^= static_cast<std::uint8_t>(1 << bit % 8);
            EXPECT_FALSE(SectorAccessBits(bad.data()).isValid()) << bit;
        }
}

TEST(AccessBits, EachGroupTakesEachCodeAndLeavesTheOthersAlone) {
    for (Triple bytes : {accessbits::kFactory, accessbits::kFormatted, Triple{0x12, 0x34, 0x56}})
        for (int group = 0; group < 4; ++group)
            for (int code = 0; code <= 16; ++code) {
                std::array<int, 4> expected = conditionsOf(bytes);
                setBlockCondition(bytes.data(), group, static_cast<DataAccControl>(code));
                const SectorAccessBits bits(bytes.data());
                const bool c[3] = {bits.getBit(group, 1), bits.getBit(group, 2), bits.getBit(group, 3)};
                const int data = code > 7 ? int{AccData000} : code;
                EXPECT_EQ(dataCondition(c[0], c[1], c[2]), data);
                for (int n = 1; n <= 3; ++n)
                    EXPECT_NE(bits.getBit(group, n), bits.getInvertedBit(group, n));
                expected[static_cast<std::size_t>(group)] = group == 3 ? trailerCondition(c[0], c[1], c[2]) : data;
                EXPECT_EQ(conditionsOf(bytes), expected);
            }
    Triple whole = accessbits::kFactory;
    setDataConditions(whole.data(), AccData110);
    EXPECT_EQ(whole, (Triple{0x88, 0x77, 0x87}));
}

TEST(AccessBits, ABlockFindsItsGroup) {
    // Type, sector, block; group, and condition in the triple of a directory: 0, 1, 1, 13.
    const std::tuple<std::uint32_t, int, int, int, int> cases[] = {
        {kTagStandard, 5, 1, 1, 1}, {kTagStandard, 5, 3, 3, 13},  {kTagStandard, 5, 4, 0, 16},
        {kTag4K, 31, 2, 2, 1},      {kTag4K, 32, 4, 0, 0},        {kTag4K, 32, 5, 1, 1},
        {kTag4K, 39, 14, 2, 1},     {kTag4K, 32, 15, 3, 13},      {kTag4K, 32, 16, 0, 16},
        {kTag4K, 32, -1, 0, 16},    {kTagStandard, 32, 4, 0, 16}, {kTagUltralight, 5, 2, 0, 1}};
    const SectorAccessBits bits(accessbits::kDirectory.data());
    for (const auto& [type, sector, block, group, condition] : cases) {
        EXPECT_EQ(accessGroupOf(type, sector, block), group) << type << " " << sector << "." << block;
        EXPECT_EQ(bits.getBlockCondition(type, sector, block), condition) << sector << "." << block;
    }
    for (int code = 0; code < 8; ++code) {
        const auto c = static_cast<DataAccControl>(code);
        EXPECT_EQ(isValueCode(c), code == 6 || code == 7);
        EXPECT_EQ(isClosedToKeyB(c), code == 0 || code == 3 || code == 4 || code == 7);
    }
}

}  // namespace

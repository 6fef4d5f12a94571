// Kinds of directories, and value blocks.

#include "ByteHelpers.h"
#include "DirectoryImage.h"
#include "ValueBlock.h"

#include <gtest/gtest.h>

namespace {

TEST(ADirectory, HasItsKindInTheTrailer) {
    const std::pair<int, int> kinds[] = {{0xC3, 1}, {0xC2, 2}, {0xC1, 1}, {0x69, 0}, {0x00, 0}, {0x80, 0}, {0x81, 1}};
    for (const auto& [byte, kind] : kinds)
        EXPECT_EQ(directoryKind(static_cast<std::uint8_t>(byte)), kind) << std::hex << byte;
    EXPECT_EQ(DirectoryImage().lastAppEntry(7), 1) << "of an application that is not there";
}

TEST(AValueBlock, KeepsItsNumberThreeTimes) {
    const std::tuple<std::int32_t, std::uint8_t, std::vector<std::uint8_t>> cases[] = {
        {INT32_MIN, 1, {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0x80, 1, 0xFE, 1, 0xFE}},
        {1, 5, {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 5, 0xFA, 5, 0xFA}},
        {100, 0, {0x64, 0, 0, 0, 0x9B, 0xFF, 0xFF, 0xFF, 0x64, 0, 0, 0, 0, 0xFF, 0, 0xFF}}};
    for (const auto& [value, address, bytes] : cases) {
        std::vector<std::uint8_t> block(16);
        encodeValueBlock(value, address, block.data());
        EXPECT_EQ(block, bytes);
        EXPECT_EQ(decodeValue(block.data()), value);
        for (std::size_t i = 0; i < 16; ++i) {
            std::vector<std::uint8_t> bad = block;
            bad[i] ^= 0x10;
            EXPECT_EQ(isSoundValueBlock(bad.data()), i >= 12) << i;
            EXPECT_EQ(decodeValue(bad.data()) == value, i / 4 != 1) << "from the inverted copy";
        }
    }
}

}  // namespace

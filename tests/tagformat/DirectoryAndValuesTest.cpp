// The directory as an image, and value blocks.

#include "ByteHelpers.h"
#include "DirectoryImage.h"
#include "ServiceStatus.h"
#include "ValueBlock.h"

#include <gtest/gtest.h>

namespace {

std::string told(const SectorList& list) {
    std::string text;
    for (int i = 0; i < list.count; ++i)
        text += (i > 0 ? " " : "") + std::to_string(list[i]);
    return text;
}

TEST(ADirectory, HasItsChecksumAndByteOrder) {
    DirectoryImage image;
    image.updateDirectoryCrc();
    EXPECT_EQ(image.data()[0], 0xCE);
    image.setWord(1, 0x1234);
    EXPECT_TRUE(image.data()[2] == 0x34 && image.data()[3] == 0x12);
    for (int w = 1; w < 16; ++w)
        image.setWord(w, 0xE103);
    image.data()[1] = 1;
    image.updateDirectoryCrc();
    EXPECT_EQ(image.data()[0], 0x14);
    image.setWord(8, 0x1234);
    EXPECT_EQ(image.block(2)[0], 0x34);
    const std::pair<int, int> kinds[] = {{0xC3, 1}, {0xC2, 2}, {0xC1, 1}, {0x69, 0}, {0x00, 0}, {0x80, 0}, {0x81, 1}};
    for (const auto& [byte, kind] : kinds)
        EXPECT_EQ(directoryKind(static_cast<std::uint8_t>(byte)), kind) << std::hex << byte;
}

TEST(ADirectory, ListsClaimsAndClears) {
    DirectoryImage image;
    for (const auto& [word, id] : {std::pair{3, 7}, {4, 7}, {5, 1}, {7, 9}, {9, 7}})
        image.setWord(word, static_cast<std::uint16_t>(id));
    EXPECT_EQ(told(image.collectAppSectors(7)), "3 4 9");
    EXPECT_EQ(told(image.collectAppSectors(0xFFFF)), "");
    EXPECT_EQ(image.lastAppEntry(7), 9);
    EXPECT_EQ(image.lastAppEntry(0xFFFF), 1);
    int word = 0;
    EXPECT_TRUE(image.nextFreeEntry(3, word) && word == 6);
    EXPECT_FALSE(image.nextFreeEntry(16, word));

    DirtyBlocks dirty;
    EXPECT_EQ(told(image.claimFreeEntries(0x22, 3, 0, dirty)), "1 2 6");
    EXPECT_TRUE(dirty.block1 && !dirty.block2);
    EXPECT_EQ(told(image.claimFreeEntries(0x33, 99, 9, dirty)), "10 11 12 13 14 15");
    EXPECT_TRUE(dirty.block2);
    EXPECT_EQ(image.word(5), mad::kDefect) << "a defect sector is never given out";
    dirty = {};
    EXPECT_EQ(told(image.clearAppSectors(7, dirty)), "3 4 9");
    EXPECT_TRUE(dirty.block1 && dirty.block2);
    EXPECT_EQ(told(image.collectAppSectors(7)), "");
}

TEST(AValueBlock, KeepsItsNumberThreeTimes) {
    const struct {
        std::int32_t value;
        std::uint8_t address;
        std::vector<std::uint8_t> bytes;
    } cases[] = {{INT32_MIN, 1, {0, 0, 0, 0x80, 0xFF, 0xFF, 0xFF, 0x7F, 0, 0, 0, 0x80, 1, 0xFE, 1, 0xFE}},
                 {1, 5, {1, 0, 0, 0, 0xFE, 0xFF, 0xFF, 0xFF, 1, 0, 0, 0, 5, 0xFA, 5, 0xFA}},
                 {100, 0, {0x64, 0, 0, 0, 0x9B, 0xFF, 0xFF, 0xFF, 0x64, 0, 0, 0, 0, 0xFF, 0, 0xFF}}};
    for (const auto& c : cases) {
        std::vector<std::uint8_t> block(16);
        encodeValueBlock(c.value, c.address, block.data());
        EXPECT_EQ(block, c.bytes);
        EXPECT_EQ(decodeValue(block.data()), c.value);
        for (std::size_t i = 0; i < 16; ++i) {
            std::vector<std::uint8_t> bad = block;
            bad[i] ^= 0x10;
            EXPECT_EQ(isSoundValueBlock(bad.data()), i >= 12) << i;
        }
    }
}

}  // namespace

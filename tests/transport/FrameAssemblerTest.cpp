// Where a frame ends, told from its bytes alone.

#include "TamaDevice.h"
#include "TamaFrameAssembler.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<std::uint8_t>;

/// Feeds `bytes` and tells after how many the assembler wanted no more; 0 if it wants more at the end.
std::size_t endsAt(TamaFrameAssembler& assembler, const Bytes& bytes) {
    for (std::size_t n = 0; n < bytes.size(); ++n) {
        EXPECT_EQ(assembler.appendByte(bytes[n]), kDeviceOk);
        bool more = false;
        EXPECT_EQ(assembler.needsMoreBytes(&more), kDeviceOk);
        if (!more) return n + 1;
    }
    return 0;
}

Bytes extended(std::uint8_t low, std::uint8_t high, std::uint8_t check, std::size_t total) {
    Bytes bytes{0x00, 0x00, 0xFF, 0xFF, 0xFF, low, high, check};
    bytes.resize(total, 0x3C);
    return bytes;
}

TEST(FrameAssembler, FindsTheEndOfEachKindOfFrame) {
    Bytes normal{0x00, 0x00, 0xFF, 0x05, 0xFB};
    normal.resize(20, 0x11);
    const struct {
        const char* what;
        Bytes bytes;
        std::size_t end;
        bool bad;
    } cases[] = {
        {"ACK, with a byte of the reply after it", {0, 0, 0xFF, 0x00, 0xFF, 0, 0xAA}, 6, false},
        {"NACK", {0, 0, 0xFF, 0xFF, 0x00, 0, 0xAA}, 6, false},
        {"normal", normal, 12, false},
        {"normal, cut", {0, 0, 0xFF, 0x05, 0xFB, 1, 2, 3, 4, 5, 6}, 0, false},
        {"normal, wrong start code", {1, 2, 3, 0x00, 0x00, 4, 5}, 7, false},
        {"normal, bad head", {0, 0, 0xFF, 0x05, 0xFA}, 5, true},
        {"four bytes", {0, 0, 0xFF, 0x05}, 0, false},
        {"extended, head not complete", {0, 0, 0xFF, 0xFF, 0xFF, 4, 1}, 0, false},
        {"extended, bad head", extended(4, 1, 0xFA, 300), 8, true},
        {"extended of 260", extended(4, 1, 0xFB, 300), 270, false},
        {"extended of 0", extended(0, 0, 0, 30), 10, false},
        {"the longest", extended(0xFF, 0xFF, 0x02, 66000), 65545, false},
    };
    TamaFrameAssembler assembler;
    for (const auto& c : cases) {
        EXPECT_EQ(endsAt(assembler, c.bytes), c.end) << c.what;
        bool bad = !c.bad;
        assembler.hasBadHeader(&bad);
        EXPECT_EQ(bad, c.bad) << c.what;
        std::uint32_t length = 0;
        assembler.frameLength(&length);
        EXPECT_EQ(length, c.end != 0 ? c.end : c.bytes.size()) << c.what;
        assembler.reset();
    }
}

TEST(FrameAssembler, GivesBackWhatItHoldsAcrossChunks) {
    TamaFrameAssembler assembler;
    for (const std::size_t size : {1u, 255u, 256u, 1024u}) {
        Bytes bytes(size);
        for (std::size_t i = 0; i < size; ++i)
            bytes[i] = static_cast<std::uint8_t>(i * 7);
        for (const std::uint8_t b : bytes)
            assembler.appendByte(b);
        Bytes copy(size + 1, 0xEE);
        EXPECT_EQ(assembler.copyFrame(copy.data(), static_cast<std::uint32_t>(size - 1)), kDeviceBadArgument);
        EXPECT_EQ(copy[0], 0xEE);
        EXPECT_EQ(assembler.copyFrame(copy.data(), static_cast<std::uint32_t>(size)), kDeviceOk);
        EXPECT_EQ(copy.back(), 0xEE);
        copy.pop_back();
        EXPECT_EQ(copy, bytes) << size;
        assembler.reset();
        std::uint32_t length = 1;
        assembler.frameLength(&length);
        EXPECT_EQ(length, 0u);
    }
}

}  // namespace

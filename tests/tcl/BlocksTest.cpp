// Blocks of ISO/IEC 14443-4 by themselves: what is built, and what is taken for which block.

#include "QvlTclUtil.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kCid = 0x05;

/// A block in memory of exactly its size, so that a memory checker sees a read beyond its end.
void put(QvlTclInternalParams& p, const Bytes& block) {
    p.block = std::make_unique<std::uint8_t[]>(block.size());
    std::copy(block.begin(), block.end(), p.block.get());
}

/// What the standard says of a received block, from its text and not from the code.
struct Judge {
    Bytes block;
    std::uint8_t flags, number, nad;

    bool hasCid() const { return (block[0] & 0x08) != 0; }
    bool cidFits() const {
        if (!hasCid()) return (flags & 0x02) == 0;
        return (flags & 0x02) != 0 && (block[1] & 0x30) == 0 && (block[1] & 0x0F) == kCid;
    }
    bool numberFits() const { return (block[0] & 1) == number; }
    int asReceipt() const {
        if (block.size() > 2 || (block[0] & 0xF4) != 0xA0 || (hasCid() && block.size() < 2)) return -23;
        return !numberFits() ? -25 : cidFits() ? 0 : -21;
    }
    int asWaitingTime() const {
        if ((block[0] & 0xF4) != 0xF0 || block.size() < (hasCid() ? 3u : 2u)) return -23;
        return cidFits() ? 0 : -21;
    }
    int asInformation() const {
        const bool hasNad = (block[0] & 0x04) != 0;
        const std::size_t header = 1u + (hasCid() ? 1 : 0) + (hasNad ? 1 : 0);
        if ((block[0] & 0xC2) != 0x02 || block.size() < header) return -23;
        if (!numberFits()) return -25;
        if (!cidFits()) return -21;
        const bool nadExpected = (flags & 0x04) != 0;
        if (!hasNad) return nadExpected ? -21 : 0;
        const std::uint8_t came = block[header - 1];
        const bool swapped = came == static_cast<std::uint8_t>(nad << 4 | nad >> 4);
        return nadExpected && (flags & 0x01) != 0 && (came & 0x88) == 0 && swapped ? 0 : -21;
    }
};

TEST(Blocks, AreTakenForWhatTheStandardSays) {
    int accepted[3] = {};
    for (int pcb = 0; pcb < 256; ++pcb)
        for (const Bytes& rest : {Bytes{}, Bytes{kCid}, Bytes{0x15}, Bytes{0x06}, Bytes{0x21}, Bytes{kCid, 0x21},
                                  Bytes{kCid, 0x12}, Bytes{kCid, 0x29}, Bytes{0x21, 0x21}})
            for (int flags = 0; flags < 8; ++flags)
                for (std::uint8_t number = 0; number < 2; ++number) {
                    Judge judge{{static_cast<std::uint8_t>(pcb)}, static_cast<std::uint8_t>(flags), number, 0x12};
                    judge.block.insert(judge.block.end(), rest.begin(), rest.end());
                    std::uint8_t nad = judge.nad;
                    QvlTclInternalParams p;
                    put(p, judge.block);
                    p.flags = judge.flags, p.blockNumber = number, p.cid = kCid, p.nad = &nad;
                    const auto length = static_cast<std::uint16_t>(judge.block.size());
                    ASSERT_EQ(QvlTclUtil::checkRAck(&p, length), judge.asReceipt()) << pcb << ' ' << flags;
                    ASSERT_EQ(QvlTclUtil::checkSWtx(&p, length), judge.asWaitingTime()) << pcb << ' ' << flags;
                    ASSERT_EQ(QvlTclUtil::checkI(&p, length), judge.asInformation()) << pcb << ' ' << flags;
                    accepted[0] += judge.asReceipt() == 0;
                    accepted[1] += judge.asWaitingTime() == 0;
                    accepted[2] += judge.asInformation() == 0;
                }
    for (const int kind : accepted)
        EXPECT_GT(kind, 0);
    QvlTclInternalParams p;
    put(p, {});
    EXPECT_EQ(QvlTclUtil::checkI(&p, 0), -23);
    EXPECT_EQ(QvlTclUtil::checkRAck(&p, 0), -23);
    EXPECT_EQ(QvlTclUtil::checkSWtx(&p, 0), -23);
}

TEST(Blocks, AreBuiltByteForByte) {
    QvlTclInternalParams p;
    put(p, Bytes(20, 0xEE));
    p.blockSize = 14;
    const std::uint8_t cid = kCid, nad = 0x12;
    Bytes data(30);
    for (std::uint8_t i = 0; i < 30; ++i)
        data[i] = i;
    p.dataPos = p.dataMark = data.data();
    const auto built = [&p](std::uint16_t length) { return Bytes(p.block.get(), p.block.get() + length); };

    EXPECT_EQ(built(QvlTclUtil::buildIBlk(&p, &cid, &nad, data.data(), 30, 0)),
              (Bytes{0x1E, 0x05, 0x12, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
    EXPECT_EQ(p.flags & 0x04, 0x04) << "a NAD went out";
    EXPECT_EQ(p.dataPos, data.data() + 11);
    p.blockNumber = 1;
    EXPECT_EQ(built(QvlTclUtil::buildIBlk(&p, nullptr, nullptr, data.data(), 24, 0)),
              (Bytes{0x03, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22, 23}))
        << "what fits to the byte does not chain";
    p.dataPos = data.data() + 24;
    EXPECT_EQ(built(QvlTclUtil::buildIBlk(&p, nullptr, nullptr, data.data(), 24, 1)), Bytes{0x13}) << "more follows";
    for (std::uint8_t* outside : {data.data() - 1, data.data() + 25}) {
        p.dataPos = outside;
        EXPECT_EQ(QvlTclUtil::buildIBlk(&p, nullptr, nullptr, data.data(), 24, 0), 1);
        EXPECT_EQ(p.block[0], 0x13) << "nothing built";
    }
}

TEST(Blocks, GiveNothingToABufferThatIsFull) {
    QvlTclInternalParams p;
    put(p, {0x0A, kCid, 1, 2, 3});
    p.flags = 0x02;
    Bytes buffer(2);
    p.dataPos = p.dataMark = buffer.data() + 1;
    std::uint32_t total = 7;
    EXPECT_EQ(QvlTclUtil::receiveI(&p, 5, buffer.data(), 1, &total), -24);
    EXPECT_EQ(total, 7u);
    EXPECT_EQ(buffer, Bytes(2));
}

}  // namespace

#include "TestHost.h"

#include "TamaLink.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

constexpr const char* kChallenge = "41 81 03 81 41 80 07 FF 00 12 34 56 78 9A BC DE";
constexpr const char* kIdentity = "25 00 00 17 2A 00 00 01 CC 04 31 05 02 01 03";

/// The derivation as published, bit by bit.
std::vector<std::uint8_t> rotated(const std::vector<std::uint8_t>& in) {
    std::vector<std::uint8_t> out;
    for (std::size_t i = 0; i < in.size(); ++i) {
        unsigned byte = in[i];
        for (int turns = in [i == 0 ? 0 : i - 1] & 7; turns > 0; --turns)
            byte = (in[i] & 0x80) ? byte >> 1 | (byte & 1) << 7 : (byte << 1 | byte >> 7) & 0xFF;
        out.push_back(static_cast<std::uint8_t>(byte));
    }
    return out;
}

struct LinkTest : ::testing::Test {
    /// Runs the agreement as a host does. @return the reply to the confirmation.
    std::string agree() {
        const auto derived = rotated(hex(kChallenge));
        host.cipher.reset();
        host.send("1C" + std::string(kChallenge));
        EXPECT_EQ(host.read(), "ACK");
        host.cipher.emplace(derived);
        const auto reply = hex(host.read());
        EXPECT_EQ(reply.size(), 40u);
        if (reply.size() != 40) return "no agreement";
        EXPECT_EQ(text(std::span(reply).subspan(2, 16)), text(derived));
        session.assign(reply.end() - 16, reply.end());
        host.cipher.emplace(session);
        return host("1E" + text(derived));
    }

    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    TestHost host{reader};
    std::vector<std::uint8_t> session;
};

TEST_F(LinkTest, DerivationTurnsEachByteByTheOneBeforeIt) {
    LinkKey challenge{};
    std::ranges::copy(hex(kChallenge), challenge.begin());
    const LinkKey derived = deriveLinkKey(challenge);
    EXPECT_EQ(text(derived), text(rotated(hex(kChallenge))));
    EXPECT_EQ(derived[3], 0x30) << "81 behind 03 goes right";
    challenge[1] = 0x03, challenge[2] = 0x41;
    EXPECT_EQ(deriveLinkKey(challenge)[2], 0x0A) << "41 behind 03 goes left";
}

TEST_F(LinkTest, AgreementScramblesAllThatFollows) {
    EXPECT_EQ(host("24"), kIdentity) << "in the clear at first";
    EXPECT_EQ(agree(), "1F 00");
    EXPECT_TRUE(reader->isLinkKeyed());
    for (int round = 0; round < 3; ++round)
        EXPECT_EQ(host("24"), kIdentity);
    host.send("24");
    EXPECT_EQ(host.read(), "ACK");
    host.cipher.reset();
    EXPECT_EQ(host.read(), "damaged") << "the check sum is that of the plain bytes";
    EXPECT_EQ(agree(), "1F 00") << "a challenge is heard in the clear, whatever key is in force";
    EXPECT_EQ(host("1E 00000000000000000000000000000000"), "1F 27") << "not what was derived";
}

TEST_F(LinkTest, KeyChangeComesUnderTheOldKey) {
    agree();
    for (int round = 0; round < 3; ++round) {
        const auto reply = hex(host("1C"));
        ASSERT_EQ(reply.size(), 18u);
        EXPECT_EQ(text(std::span(reply).first(2)), "1D 00");
        const std::vector<std::uint8_t> next(reply.begin() + 2, reply.end());
        EXPECT_NE(next, session);
        session = next;
        host.cipher.emplace(next);
        EXPECT_EQ(host("26 7F"), "27 00");
    }
    EXPECT_EQ(reader->ledByte(), 0x7F);
}

TEST_F(LinkTest, LostFramesPutTheEndsOutOfStepUntilTheNextAgreement) {
    agree();
    reader->addFault("24 1 no answer");
    EXPECT_EQ(host("26 01"), "27 00");
    EXPECT_EQ(host("24"), "silence");
    EXPECT_EQ(host("26 02"), "27 00") << "24 has no data, so nothing was lost";
    reader->addFault("26 1 no answer");
    EXPECT_EQ(host("26 03"), "silence");
    EXPECT_EQ(host("26 04"), "silence") << "the reader cannot make sense of it";
    reader->options().errorToBadFrames = true;
    EXPECT_EQ(host("26 05"), "ERROR");
    EXPECT_EQ(reader->ledByte(), 0x02);
    EXPECT_EQ(agree(), "1F 00");
    reader->addFault("24 1 out of step");
    EXPECT_EQ(host("24"), "damaged");
    EXPECT_EQ(agree(), "1F 00");
}

TEST_F(LinkTest, ModelsWithoutKeysStayInTheClear) {
    reader->options().knowsLinkKey = false;
    for (const char* command : {"1C 00112233445566778899AABBCCDDEEFF", "1C", "1E 00112233445566778899AABBCCDDEEFF"})
        EXPECT_EQ(host(command), "ERROR");
    EXPECT_EQ(host("24"), kIdentity);
    reader->options() = {};
    EXPECT_EQ(host("1C 0011"), "ERROR") << "neither challenge nor change";
    reader->options().zeroSessionKey = true;
    host.send("1C" + std::string(kChallenge));
    EXPECT_EQ(host.read(), "ACK");
    host.cipher.emplace(rotated(hex(kChallenge)));
    EXPECT_TRUE(host.read().ends_with("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"));
    host.cipher.reset();
    EXPECT_FALSE(reader->isLinkKeyed());
    EXPECT_EQ(host("24"), kIdentity);
}

TEST_F(LinkTest, FramesAreFoundInAnyPortionsAndBehindAnyRubbish) {
    const auto frame = TestHost::frame(hex("26 15"));
    for (std::uint8_t byte : frame)
        host.write({byte});
    EXPECT_EQ(host.read(), "ACK");
    EXPECT_EQ(host.read(), "27 00");
    for (const char* rubbish : {"00", "FF", "00 00 00 00", "12 34 00 56", "00 00 FF 05 05", "00 00 FF 01 FF 7F 81 00",
                                "00 00 FF 00 FF 00", "00 00 FF FF FF 01 00 FF D4"}) {
        auto bytes = hex(rubbish);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
        host.write(bytes);
        EXPECT_EQ(host.read(), "ACK") << rubbish;
        EXPECT_EQ(host.read(), "27 00") << rubbish;
    }
    auto damaged = frame;
    for (std::size_t at : {5u, 7u, 8u}) {
        damaged = frame;
        damaged[at] ^= 0x40;
        host.write(damaged);
        EXPECT_EQ(host.read(), "silence") << at;
    }
    EXPECT_EQ(reader->commandCount(0x26), 9u);
    host.write(hex("00 00 FF FF 00 00"));
    EXPECT_EQ(host.read(), "27 00") << "a NACK asks for the last reply again";
}

}  // namespace

// The reader's end of the link: frames, key agreement, being out of step.

#include "TestHost.h"

#include "TamaLink.h"

#include <gtest/gtest.h>

namespace {

constexpr const char* kChallenge = "41 81 03 81 41 80 07 FF 00 12 34 56 78 9A BC DE";
constexpr const char* kIdentity = "25 00 00 17 2A 00 00 01 CC 04 31 05 02 01 03";

struct LinkTest : ::testing::Test {
    /// Runs the agreement as a host does. @return the reply to the confirmation.
    std::string agree() {
        LinkKey derived;
        std::ranges::copy(hex(kChallenge), derived.begin());
        derived = deriveLinkKey(derived);
        host.cipher.reset();
        host.send("1C" + std::string(kChallenge));
        EXPECT_EQ(host.read(), "ACK");
        host.key(derived);
        const auto reply = hex(host.read());
        EXPECT_EQ(reply.size(), 40u);
        if (reply.size() != 40) return "no agreement";
        EXPECT_EQ(text(std::span(reply).subspan(2, 16)), text(derived));
        host.key(std::span(reply).last(16));
        return host("1E" + text(derived));
    }

    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    TestHost host{reader};
};

TEST_F(LinkTest, AgreementScramblesAllThatFollows) {
    EXPECT_EQ(host("1C 0011"), "ERROR") << "neither challenge nor change";
    EXPECT_EQ(agree(), "1F 00");
    EXPECT_EQ(host("24"), kIdentity);
    host.send("24");
    EXPECT_EQ(host.read(), "ACK");
    host.cipher.reset();
    EXPECT_EQ(host.read(), "damaged") << "the check sum is that of the plain bytes";
    EXPECT_EQ(agree(), "1F 00") << "a challenge is heard in the clear, whatever key is in force";
    EXPECT_EQ(host("1E 00000000000000000000000000000000"), "1F 27") << "not what was derived";
}

TEST_F(LinkTest, LostFramesPutTheEndsOutOfStepUntilTheNextAgreement) {
    agree();
    reader->addFault("26 1 no answer");
    EXPECT_EQ(host("26 03"), "silence");
    EXPECT_EQ(host("26 04"), "silence") << "the reader cannot make sense of it";
    reader->options().errorToBadFrames = true;
    EXPECT_EQ(host("26 05"), "ERROR");
    EXPECT_EQ(agree(), "1F 00");
    EXPECT_EQ(host("24"), kIdentity);
}

TEST_F(LinkTest, FramesAreFoundInAnyPortionsAndBehindAnyRubbish) {
    const auto frame = TestHost::frame(hex("26 15"));
    for (const char* rubbish : {"", "00", "FF", "00 00 00 00", "12 34 00 56", "00 00 FF 05 05",
                                "00 00 FF 01 FF 7F 81 00", "00 00 FF 00 FF 00", "00 00 FF FF FF 01 00 FF D4"}) {
        auto bytes = hex(rubbish);
        bytes.insert(bytes.end(), frame.begin(), frame.end());
        const std::size_t portion = *rubbish ? bytes.size() : 1;
        for (std::size_t at = 0; at < bytes.size(); at += portion)
            host.write({&bytes[at], &bytes[at] + portion});
        EXPECT_EQ(host.read(), "ACK") << rubbish;
        EXPECT_EQ(host.read(), "27 00") << rubbish;
    }
    for (std::size_t at : {5u, 7u, 8u}) {
        auto damaged = frame;
        damaged[at] ^= 0x40;
        host.write(damaged);
        EXPECT_EQ(host.read(), "silence") << at;
    }
    EXPECT_EQ(reader->commandCount(0x26), 9u);
    host.write(hex("00 00 FF FF 00 00"));
    EXPECT_EQ(host.read(), "27 00") << "a NACK asks for the last reply again";
}

}  // namespace

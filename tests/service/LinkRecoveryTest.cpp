// A link that lost a frame, and how it comes back.

#include "CommandDoor.h"
#include "Mf500bfl.h"
#include "NfcTamaBfl.h"

#include <filesystem>

namespace {

std::shared_ptr<Qvl14443bfl> newDriver() {
    if (isMf500UnderTest()) return std::make_shared<Mf500bfl>();
    return NfcTamaBfl::acquire();
}

class ALostFrame : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        if (!place.hasFault(GetParam())) GTEST_SKIP() << "a link of messages has no such frames";
        place.start();
        place.placeClassic();
        EXPECT_TRUE(place.adaptor->initReader());
    }
    Workplace place;
};
INSTANTIATE_TEST_SUITE_P(OfAnyKind, ALostFrame,
                         ::testing::Values("no answer", "no ack", "no reply", "late ack", "late reply", "out of step",
                                           "reply twice", "wrong ack", "endless"));

TEST_P(ALostFrame, CostsFewUnforcedPolls) {
    for (const Op op : {Op::activate, Op::halt}) {
        ASSERT_EQ(place.spoil(op, std::string("1 ") + GetParam()), "");
        int polls = 1;
        while (place.poll() != "deadbeef 2002" && polls < 10) {
            ++polls;
            place.reader->field().clear();
            place.placeClassic();
        }
        EXPECT_LE(polls, 4) << (op == Op::halt ? "halt" : "activation");
        place.reader->field().clear();
        place.placeClassic();
    }
    ASSERT_EQ(place.spoil(Op::fieldReset, std::string("1 ") + GetParam()), "");
    place.poll(true);
    place.poll(true);
    ASSERT_TRUE(place.adaptor->initReader()) << "the next start heals a forced poll";
    EXPECT_EQ(place.poll(true), "deadbeef 2002");
}

// The exchange repeats its block once, and what the reader had still to say does not disturb it.
TEST_P(ALostFrame, DoesNotEndACardSession) {
    place.adaptor->setTagPromptFlag(false);
    place.reader->field().clear();
    place.reader->field().place(scriptedCard({0x08, 1, 2, 3}));
    CommandDoor door(*place.adaptor);
    ASSERT_EQ(door.wait(), kOk);
    const std::string effect = GetParam();
    const bool isStreamLost = effect != "late ack" && effect != "late reply" && effect != "wrong ack";
    // A block that did not reach the card takes two repetitions: the question for it, and itself.
    if (isMf500UnderTest() ? effect == "out of step" || effect == "no answer" : isStreamLost) return;
    ASSERT_EQ(place.spoil(Op::exchangeBlock, "2 " + effect), "");
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(door.send({0x08, 1, 2, 3}, {0x80, 0x01, 0x00}), kOk) << i;
        EXPECT_EQ(door.answer, (Bytes{0x80, 0x01, 0x00, 0x90, 0x00}));
    }
}

TEST(ALostHalt, CostsAnMf500NoRestart) {
    if (!isMf500UnderTest()) GTEST_SKIP() << "its halt has a parameter, which takes from the key stream";
    Workplace place;
    place.start();
    place.placeClassic();
    ASSERT_TRUE(place.adaptor->initReader());
    place.host.heard();
    ASSERT_EQ(place.spoil(Op::halt, "1 no answer"), "");
    place.poll();
    place.reader->field().clear();
    place.placeClassic();
    EXPECT_EQ(place.poll(), "deadbeef 2002");
    EXPECT_EQ(place.host.heard(), "");
}

TEST(TheLinkKey, DoesNotSurviveAnErrorAnswer) {
    Workplace place;
    place.start();
    place.placeClassic();
    ASSERT_TRUE(place.adaptor->initReader());
    ASSERT_TRUE(place.reader->isLinkKeyed());
    place.reader->vanish();
    place.reader->options().knowsLinkKey = false;  // another reader on the same plug
    place.reader->comeBack();
    ASSERT_TRUE(place.adaptor->initReader());
    EXPECT_FALSE(place.reader->isLinkKeyed());
    EXPECT_EQ(place.poll(), "deadbeef 2002");
}

TEST(OpenAndClose, LeaveNothingBehind) {
    const auto descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                             std::filesystem::directory_iterator());
    };
    for (const Line line : {Line::terminal, Line::socket}) {
        Workplace place(line);
        const auto driver = newDriver();
        const std::string name = place.socket ? place.socket->path() : "COM" + std::to_string(kComPort);
        driver->setDeviceName(reinterpret_cast<const std::uint8_t*>(name.c_str()));
        ASSERT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
        std::uint8_t snr[6];
        std::uint16_t length = 0;
        ASSERT_EQ(driver->pcdGetSnr(snr, length), kBflOk);
        const auto before = descriptors();
        for (int i = 0; i < 300; ++i) {
            ASSERT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
            ASSERT_EQ(driver->pcdGetSnr(snr, length), kBflOk);
            if (i % 3 != 0) driver->interfaceClose();
        }
        ASSERT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
        ASSERT_EQ(driver->pcdGetSnr(snr, length), kBflOk);
        EXPECT_EQ(descriptors(), before);
    }
}

}  // namespace

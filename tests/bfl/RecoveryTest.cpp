// What a failed command leaves behind on the link, and how the next one gets past it: each driver with its virtual
// reader, in the clear and under a key.

#include "KeyPool.h"
#include "LinkWatch.h"
#include "Mf500bfl.h"
#include "NfcTamaBfl.h"
#include "Workplace.h"

#include <set>

namespace {

class Recovery : public ::testing::TestWithParam<bool> {
  protected:
    explicit Recovery(bool isLinkKeyed = GetParam()) : isKeyed(isLinkKeyed) {
        reader->options().knowsLinkKey = isKeyed;
        Bytes image = MifareClassicTag::blankImage(1024, Bytes{1, 2, 3, 4});
        for (std::uint8_t block = 4; block < 7; ++block)
            std::fill_n(image.begin() + block * 16, 16, block);
        reader->field().place(std::make_shared<MifareClassicTag>(image));
        if (isMf500)
            driver = std::make_shared<Mf500bfl>();
        else
            driver = NfcTamaBfl::acquire();
        restart();
    }

    void restart() {
        reader->clearFaults();
        EXPECT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
        EXPECT_EQ(driver->pcdConfig(), kBflOk);
    }
    /// Whether the driver is asked with what comes out right.
    short number() {
        std::uint8_t snr[6] = {};
        std::uint16_t length = 0;
        const short status = driver->pcdGetSnr(snr, length);
        if (status == kBflOk) {
            EXPECT_EQ(snr[length - 1], reader->options().serialNumber[5]);
        }
        return status;
    }
    short activate(Qvl14443bfl& by) {
        std::uint8_t atq[2], sak, length;
        return by.piccActivateIdle(0, atq, &sak, uid, &length);
    }
    /// False for an effect that the model does not know.
    bool spoil(Op op, int nth, const std::string& effect) {
        return place.spoil(op, std::to_string(nth) + " " + effect).empty();
    }

    const bool isMf500 = isMf500UnderTest(), isKeyed;
    Workplace place;
    ManualClock& clock = *place.clock;
    const std::shared_ptr<VirtualReader> reader = place.reader;
    std::shared_ptr<Qvl14443bfl> driver;
    std::uint8_t uid[10] = {};
};
INSTANTIATE_TEST_SUITE_P(InTheClearAndKeyed, Recovery, ::testing::Bool());

// A late reply has the right command code: only its place tells that it belongs to another block.
TEST_P(Recovery, NoReadGivesAnotherBlocksBytes) {
    std::uint8_t data[16], coded[12], key[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    for (const char* effect : {"no answer", "no ack", "no reply", "late ack", "late reply", "overdue 500",
                               "out of step", "reply twice", "wrong ack", "nack", "endless", "cut 5"})
        for (int k = 1; k <= 6; ++k) {
            if (isMf500 && isKeyed && effect == std::string("out of step")) continue;  // noise without a check sum
            restart();
            driver->pcdRfReset(5);
            ASSERT_EQ(activate(*driver), kBflOk) << effect;
            ASSERT_EQ(driver->hostCodeKey(key, coded), kBflOk);
            ASSERT_EQ(driver->piccAuthKey(0x60, uid, coded, 4), kBflOk);
            if (!spoil(Op::read, k, effect)) continue;
            for (int i = 0; i < 12; ++i) {
                const auto block = static_cast<std::uint8_t>(4 + i % 3);
                if (driver->piccRead(block, data) != kBflOk) continue;
                ASSERT_TRUE(std::ranges::all_of(data, [&](auto b) { return b == block; })) << i << effect << k;
            }
        }
}

TEST_P(Recovery, GoesOnWhereNothingOfTheKeyStreamWasLost) {
    const struct {
        const char* effect;
        bool ofHalt, ofNumber;  ///< Under a key, after a halt or the number: no more is lost than the command.
    } cases[] = {{"no answer", isMf500, true}, {"no reply", false, false}, {"late ack", true, true},
                 {"late reply", true, true},   {"overdue 9", true, true},  {"wrong ack", true, true},
                 {"nack", true, true},         {"cut 1", false, false}};
    for (const auto& c : cases)
        for (const bool isHalt : {true, false}) {
            restart();
            activate(*driver);
            if (!spoil(isHalt ? Op::halt : Op::askId, 1, c.effect)) continue;
            EXPECT_LT(isHalt ? driver->piccHalt() : number(), 0) << c.effect;
            const bool goesOn = !isKeyed || (isHalt ? c.ofHalt : c.ofNumber);
            for (int i = 0; i < 2; ++i)
                EXPECT_EQ(number() == kBflOk, goesOn) << c.effect << isHalt << i;
        }
}

TEST_P(Recovery, NoLateReplyEntersTheAgreement) {
    for (const char* effect : {"late ack", "late reply", "overdue 9", "no reply"})
        for (const Op first : {Op::askId, Op::halt, Op::agreeOnKey}) {
            restart();
            activate(*driver);
            if (!spoil(first, 1, effect)) continue;
            SCOPED_TRACE(effect + std::to_string(codeOf(first)));
            first == Op::askId ? number() : first == Op::halt ? driver->piccHalt() : driver->pcdConfig();
            EXPECT_EQ(driver->pcdConfig(), kBflOk);
            EXPECT_EQ(reader->isLinkKeyed(), isKeyed);
            EXPECT_EQ(number(), kBflOk);
        }
}

TEST_P(Recovery, ASilentReaderCostsOneTimeOutACommandAndThreeAnOperation) {
    LinkWatch watch;
    ASSERT_TRUE(driver->watchLink(watch));
    reader->addFault("any 1 no answer");
    EXPECT_EQ(number(), kBflDeviceTimedOut);
    EXPECT_EQ(number(), kBflOk);
    reader->addFault("any from 1 no answer");
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(watch.isLost());
        const std::uint64_t start = clock.nowMs();
        EXPECT_EQ(number(), kBflDeviceTimedOut);
        EXPECT_EQ(clock.nowMs() - start, isMf500 ? 6000u : 4000u);
    }
    EXPECT_TRUE(watch.isLost());
    const std::uint64_t start = clock.nowMs();
    EXPECT_EQ(number(), kBflDeviceTimedOut);
    EXPECT_EQ(clock.nowMs(), start);
    driver->unwatchLink();
    reader->clearFaults();
    EXPECT_EQ(number(), kBflOk);
}

class OfATamaReader : public Recovery {
  protected:
    OfATamaReader() : Recovery(true) {}
    void SetUp() override {
        if (isMf500) GTEST_SKIP();
    }
};

TEST_F(OfATamaReader, EndlessInputEndsTheResynchronisation) {
    reader->addFault("26 1 no reply");
    reader->addFault("24 1 endless");
    EXPECT_EQ(driver->switchLED(0, 0, 0), kBflDeviceTimedOut);
    EXPECT_EQ(driver->switchLED(0, 0, 0), kBflDeviceTimedOut);
    restart();
    EXPECT_EQ(number(), kBflOk);
}

// The second decides how many commands lie between two changes.
TEST_F(OfATamaReader, TheKeyChangesAtItsInterval) {
    for (const char* rule : {"", "24 from 1 error", "1C from 1 status 13"}) {
        constexpr int kCommands = 400;
        int shortest = nextRekeyInterval(), longest = std::max(shortest, 168), refused = 0;
        restart();
        if (*rule != '\0') reader->addFault(rule);
        const std::uint32_t before = reader->commandCount(0x1C);
        for (int i = 0; i < kCommands; ++i) {
            const short status = number();
            refused += status == 0x13;
            ASSERT_TRUE(status == kBflOk || status == 0x13 || (rule[1] == '4' && status == kBflErrorFrame)) << status;
            shortest = std::min<int>(shortest, nextRekeyInterval());
        }
        const auto changes = static_cast<int>(reader->commandCount(0x1C) - before);
        EXPECT_GE(changes, kCommands / longest);
        EXPECT_LE(changes, kCommands / std::max(shortest - 1, 1) + 2);
        EXPECT_EQ(refused, rule[0] == '1' ? changes : 0);
        EXPECT_TRUE(reader->isLinkKeyed());
    }
}

class OfAnMf500 : public Recovery {
  protected:
    OfAnMf500() : Recovery(true) {}
    void SetUp() override {
        if (!isMf500) GTEST_SKIP();
    }
    short exchange(std::uint16_t room = 64) {
        std::uint8_t block[64] = {0xE0, 0x80, 0, 0};
        return driver->piccExchangeBlock(block, 4, block, &room, 1, 1);
    }
};

// Under another key than the reader's the parameters of a write would be others: any block, any bytes.
TEST_F(OfAnMf500, ALostKeyHoldsBackWhatIsScrambledUntilABlockExchangeBringsOne) {
    std::uint8_t data[16] = {};
    for (const char* effect : {"1 no reply", "1 cut 0", "1 cut 20", "1 short 2"}) {
        restart();
        Mf500bfl copy(dynamic_cast<Mf500bfl&>(*driver));
        reader->addFault(std::string("43 ") + effect);
        activate(*driver);
        driver->piccWrite(4, data);  // finds out
        const std::uint32_t before = place.heardInAll();
        EXPECT_EQ(driver->piccWrite(4, data), kBflDeviceFailed) << effect;
        EXPECT_EQ(copy.piccWrite(4, data), kBflDeviceFailed) << effect;
        EXPECT_EQ(number(), kBflDeviceFailed) << effect;
        EXPECT_EQ(place.heardInAll(), before);
        EXPECT_EQ(driver->piccHalt(), kBflOk) << "has nothing that another key could change";
        EXPECT_EQ(place.heardInAll(), before + 1);
        reader->addFault("48 1 no reply");
        EXPECT_EQ(exchange(), kBflDeviceTimedOut);
        exchange(0);
        EXPECT_EQ(copy.pcdSetDefaultAttrib(), kBflOk);
        EXPECT_EQ(number(), kBflOk) << effect;
    }
    EXPECT_EQ(reader->commandCount(0x1A), 0u);
}

TEST_F(OfAnMf500, ACommandThatWasLostTakesNothingFromTheKeyStream) {
    reader->addFault("43 1 no answer");
    EXPECT_EQ(activate(*driver), kBflDeviceTimedOut);
    EXPECT_EQ(activate(*driver), kBflOk);
}

TEST_F(OfAnMf500, AnEarlySecondStageLeavesNoKeyDue) {
    std::uint8_t value[16] = {1};
    driver->interfaceClose();
    EXPECT_EQ(driver->pcdConfig2(value, value), kBflOk);
    restart();
    EXPECT_EQ(number(), kBflOk);
    reader->addFault("10 1 xor 2 01");
    EXPECT_EQ(driver->pcdConfig(), kBflOutOfRange) << "a wrong confirmation";
    EXPECT_FALSE(driver->isQvlDevice());
}

TEST(TheInterval, IsFromOneToOneHundredAndSixtyEight) {
    std::set<int> intervals;
    for (std::uint32_t second = 1; second < 3000; ++second)
        intervals.insert(rekeyIntervalAt(second));
    EXPECT_EQ(std::pair(*intervals.begin(), *intervals.rbegin()), std::pair(1, 168));
}

}  // namespace

// A link that lost a frame, and how it comes back.

#include "Mf500bfl.h"
#include "NfcTamaBfl.h"
#include "Workplace.h"

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

// A late reply has the right command code: only its place tells that it belongs to another block.
TEST_P(ALostFrame, NeverDeliversAnotherBlocksBytes) {
    const bool isNoise = isMf500UnderTest() && GetParam() == std::string("out of step");
    if (isNoise) GTEST_SKIP() << "its replies carry no check sum that would tell";
    std::vector<std::uint8_t> image = MifareClassicTag::blankImage(1024, Bytes{1, 2, 3, 4});
    for (std::uint8_t block = 4; block < 7; ++block)
        std::fill_n(image.begin() + block * 16, 16, block);
    place.reader->field().clear();
    place.reader->field().place(std::make_shared<MifareClassicTag>(image));
    place.adaptor.reset();
    const auto driver = newDriver();
    for (int k = 1; k <= 6; ++k) {
        ASSERT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
        ASSERT_EQ(driver->pcdConfig(), kBflOk);
        std::uint8_t atq[2], sak, uid[10], uidLen, coded[12], key[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        ASSERT_EQ(driver->piccActivateIdle(0, atq, &sak, uid, &uidLen), kBflOk);
        ASSERT_EQ(driver->hostCodeKey(key, coded), kBflOk);
        ASSERT_EQ(driver->piccAuthKey(0x60, uid, coded, 4), kBflOk);
        ASSERT_EQ(place.spoil(Op::read, std::to_string(k) + " " + GetParam()), "");
        for (int i = 0; i < 12; ++i) {
            const auto block = static_cast<std::uint8_t>(4 + i % 3);
            std::uint8_t data[16] = {};
            if (driver->piccRead(block, data) != kBflOk) continue;
            for (const std::uint8_t b : data)
                ASSERT_EQ(b, block) << "read " << i << ", fault at " << k;
        }
        place.reader->clearFaults();
    }
}

// Under another key than the reader's the parameters of a write would be others: any block, any bytes.
TEST(ALostReply, EndsAllCommandsOfAScrambledMf500UntilTheNextAgreement) {
    if (!isMf500UnderTest()) GTEST_SKIP() << "the frames of a PN531 carry a check sum";
    for (const bool isKeyed : {true, false})
        for (const char* effect : {"1 no answer", "1 no reply", "1 late reply", "1 cut 0", "1 cut 20"}) {
            ReaderOptions options;
            options.knowsLinkKey = isKeyed;
            Workplace place(Line::inProcess, options);
            place.placeClassic();
            const auto driver = newDriver();
            ASSERT_EQ(driver->interfaceOpen(49, 0), kBflOpened);
            ASSERT_EQ(driver->pcdConfig(), kBflOk);
            std::uint8_t atq[2], sak, uid[10] = {}, uidLen = 0, data[16] = {}, snr[4];
            std::uint16_t length = 0;
            ASSERT_EQ(place.spoil(Op::activate, effect), "");
            driver->piccActivateIdle(0, atq, &sak, uid, &uidLen);
            const std::uint32_t heard = place.heardInAll();
            EXPECT_EQ(driver->piccWrite(4, data) < -1000, isKeyed) << effect;
            EXPECT_EQ(driver->pcdGetSnr(snr, length) == kBflOk, !isKeyed) << effect;
            EXPECT_EQ(place.heardInAll() == heard, isKeyed) << effect;
            EXPECT_EQ(driver->pcdConfig(), kBflOk);
            EXPECT_EQ(driver->pcdGetSnr(snr, length), kBflOk) << effect;
            EXPECT_EQ(snr[3], place.reader->options().serialNumber[5]) << effect;
        }
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

// A link that lost a frame, and how it comes back.

#include "NfcTamaBfl.h"
#include "Workplace.h"

#include <filesystem>

namespace {

class ALostFrame : public ::testing::TestWithParam<const char*> {
  protected:
    ALostFrame() {
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
    for (const char* command : {"4A", "44"}) {
        ASSERT_EQ(place.reader->addFaults(command + std::string(" 1 ") + GetParam()), "");
        int polls = 1;
        while (place.poll() != "deadbeef 2002" && polls < 10) {
            ++polls;
            place.reader->field().clear();
            place.placeClassic();
        }
        EXPECT_LE(polls, 4) << command;
        place.reader->field().clear();
        place.placeClassic();
    }
    ASSERT_EQ(place.reader->addFaults(std::string("32 1 ") + GetParam()), "");
    place.poll(true);
    place.poll(true);
    ASSERT_TRUE(place.adaptor->initReader()) << "the next start heals a forced poll";
    EXPECT_EQ(place.poll(true), "deadbeef 2002");
}

// A late reply has the right command code: only its place tells that it belongs to another block.
TEST_P(ALostFrame, NeverDeliversAnotherBlocksBytes) {
    std::vector<std::uint8_t> image = MifareClassicTag::blankImage(1024, Bytes{1, 2, 3, 4});
    for (std::uint8_t block = 4; block < 7; ++block)
        std::fill_n(image.begin() + block * 16, 16, block);
    place.reader->field().clear();
    place.reader->field().place(std::make_shared<MifareClassicTag>(image));
    const auto driver = NfcTamaBfl::acquire();
    for (int k = 1; k <= 6; ++k) {
        ASSERT_TRUE(place.adaptor->initReader());
        std::uint8_t atq[2], sak, uid[10], uidLen, key[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        ASSERT_EQ(driver->piccActivateIdle(0, atq, &sak, uid, &uidLen), kBflOk);
        ASSERT_EQ(driver->piccAuthKey(0x60, uid, key, 4), kBflOk);
        ASSERT_EQ(place.reader->addFaults("40 " + std::to_string(k) + " " + GetParam()), "");
        for (int i = 0; i < 12; ++i) {
            const auto block = static_cast<std::uint8_t>(4 + i % 3);
            std::uint8_t data[16] = {};
            driver->operationBegins();
            if (driver->piccRead(block, data) != kBflOk) continue;
            for (const std::uint8_t b : data)
                ASSERT_EQ(b, block) << "read " << i << ", fault at " << k;
        }
        place.reader->clearFaults();
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
        place.start();
        ASSERT_TRUE(place.adaptor->initReader());
        const auto before = descriptors();
        NfcTamaBfl& driver = *NfcTamaBfl::Instance();
        for (int i = 0; i < 300; ++i) {
            std::uint8_t snr[6];
            std::uint16_t length = 0;
            ASSERT_EQ(driver.interfaceOpen(49, 0), kBflOpened);
            ASSERT_EQ(driver.pcdGetSnr(snr, length), kBflOk);
            if (i % 3 != 0) driver.interfaceClose();
        }
        ASSERT_TRUE(place.adaptor->initReader());
        EXPECT_EQ(descriptors(), before);
    }
}

}  // namespace

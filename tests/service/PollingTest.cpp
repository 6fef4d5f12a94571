// Finding tags by polling, through the service interface.

#include "Workplace.h"

#include <future>
#include <set>
#include <stdexcept>
#include <thread>

namespace {

class Polling : public OnALine {
  protected:
    Polling() : place(GetParam()) { place.start(); }
    Workplace place;
    TagUID anyTag;
};
INSTANTIATE_TEST_SUITE_P(Lines, Polling, ::testing::ValuesIn(kLines));

TEST_P(Polling, StartsTheReaderAndReportsEachTagOnce) {
    EXPECT_EQ(place.polled(), "+");
    const std::string tag = place.placeClassic();
    EXPECT_EQ(place.poll(), "deadbeef 2002");
    EXPECT_EQ(place.poll(), "") << "it sleeps now";
    EXPECT_EQ(place.poll(true), "deadbeef 2002") << "a field reset wakes it";
    EXPECT_EQ(place.poll(), "");
    place.reader->field().setPresent(tag, false);
    EXPECT_EQ(place.poll(), "");
    place.reader->field().setPresent(tag, true);
    EXPECT_EQ(place.poll(), "deadbeef 2002") << "it left and came back";
    EXPECT_EQ(place.host.heard(), "");
}

TEST_P(Polling, ReportsAllTagsInTheField) {
    std::set<std::string> expected, found;
    for (std::uint8_t i = 0; i < 9; ++i) {
        place.placeClassic({0x10, 0x20, 0x30, i});
        expected.insert("1020300" + std::to_string(i) + " 2002");
    }
    for (std::size_t i = 0; i < expected.size(); ++i)
        found.insert(place.poll());
    EXPECT_EQ(found, expected);
    EXPECT_EQ(place.poll(), "");
}

TEST_P(Polling, IsSuspendedForTheWholeAdaptor) {
    place.placeClassic();
    EXPECT_EQ(place.adaptor->resumePoll(anyTag), kNotSuspended);
    EXPECT_EQ(place.adaptor->suspendPoll(anyTag), kOk);
    EXPECT_EQ(place.adaptor->suspendPoll(anyTag), kAlreadySuspended);
    EXPECT_EQ(place.poll(true), "");
    EXPECT_EQ(place.poll(false, true), "deadbeef 2002");
    EXPECT_EQ(place.adaptor->resumePoll(anyTag), kOk);
    EXPECT_EQ(place.adaptor->resumePoll(anyTag), kNotSuspended);
    EXPECT_EQ(place.poll(true), "deadbeef 2002");
}

TEST_P(Polling, NoticesALostReaderAndItsReturn) {
    const auto pollUntilReady = [this] {
        std::string found;
        for (int i = 0; i < 50 && place.host.heard() != "+"; ++i) {
            found = place.poll();
            if (GetParam() != Line::inProcess) std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        return found;
    };
    place.reader->vanish();
    EXPECT_EQ(place.polled(), "") << "it never was there";
    place.reader->comeBack();
    pollUntilReady();
    place.reader->vanish();
    for (const char* heard : {"-", ""}) {
        EXPECT_EQ(place.polled(), heard);
    }
    place.placeClassic();
    place.reader->comeBack();
    EXPECT_EQ(pollUntilReady(), "deadbeef 2002");
}

class InProcess : public ::testing::Test {
  protected:
    InProcess() { place.start(); }
    Workplace place;
};

TEST_F(InProcess, EachKindOfTagHasItsWireCode) {
    const Bytes four{1, 2, 3, 4}, seven{4, 2, 3, 4, 5, 6, 7}, ten{4, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    const std::pair<std::shared_ptr<VirtualTag>, const char*> cases[] = {
        {std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(4096, four), four), "01020304 2003"},
        {std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, seven), seven), "04020304050607 2002"},
        {std::make_shared<SmartCard>(Bytes{4, 9, 8, 7}, Bytes{0x75, 0x77, 0x81, 0x02, 0x80}), "04090807 2005"},
        {std::make_shared<SmartCard>(ten, Bytes{0x70}), ""}};
    for (const auto& [tag, found] : cases) {
        const std::string name = place.reader->field().place(tag);
        EXPECT_EQ(place.poll(), found);
        place.reader->field().remove(name);
    }
    cases[0].first->setSak(0x28);
    place.reader->field().place(cases[0].first);
    EXPECT_EQ(place.poll(), "01020304 2002");
    cases[0].first->setSak(0x01);
    EXPECT_EQ(place.poll(true), "01020304 2000");
}

TEST_F(InProcess, AForcedPollMayLeaveALostReaderToTheNextOne) {
    place.placeClassic();
    ASSERT_TRUE(place.adaptor->initReader());
    place.reader->vanish();
    place.reader->comeBack();
    EXPECT_EQ(place.poll(true), "");
    if (!isMf500UnderTest()) {  // forced attempts hide what the driver said
        EXPECT_EQ(place.polled(true), "");
        EXPECT_EQ(place.poll(), "");
    }
    EXPECT_EQ(place.host.heard(), "-+");
    EXPECT_EQ(place.poll(), "deadbeef 2002");
}

TEST(APlainMf500, ReportsNoTagWithoutAUid) {
    if (!isMf500UnderTest()) GTEST_SKIP() << "the driver of a PN531 refuses such a reply";
    Workplace place(Line::inProcess, {.knowsLinkKey = false});
    place.start();
    place.placeClassic();
    ASSERT_TRUE(place.adaptor->initReader());
    ASSERT_EQ(place.reader->addFaults("43 1 xor 5 04"), "");  // the length of the UID becomes 0
    EXPECT_EQ(place.poll(), "");
    EXPECT_EQ(place.poll(), "deadbeef 2002");
}

TEST_F(InProcess, ATagLevelFailureIsNoLostReader) {
    ASSERT_TRUE(place.adaptor->initReader());
    place.placeClassic();
    place.spoil(Op::activate, "1 " + place.refusal());
    EXPECT_EQ(place.polled(), "") << "-100 is a matter of the tag";
    EXPECT_EQ(place.poll(), "deadbeef 2002");
    place.spoil(Op::halt, "from 1 status 01");
    EXPECT_EQ(place.poll(true), "deadbeef 2002") << "the halt's result does not count";
}

TEST_F(InProcess, HaltAllTagSendsTheFieldToSleep) {
    EXPECT_EQ(place.adaptor->haltAllTag(false), kOk) << "not initialised";
    ASSERT_TRUE(place.adaptor->initReader());
    EXPECT_EQ(place.adaptor->haltAllTag(false), kOk);
    EXPECT_EQ(place.heard(Op::activate), 1u) << "one attempt at an empty field";
    place.placeClassic();
    place.placeClassic({1, 2, 3, 4});
    EXPECT_EQ(place.adaptor->haltAllTag(false), kOk);
    EXPECT_EQ(place.poll(), "");
}

// A tag that answers again after HALT must not hold the lock for ever.
TEST_F(InProcess, HaltAllTagEndsOnATagThatNeverSleeps) {
    ASSERT_TRUE(place.adaptor->initReader());
    place.placeClassic();
    place.spoil(Op::activate, "from 1 tag blinks");
    EXPECT_EQ(place.adaptor->haltAllTag(false), kOk);
    EXPECT_NEAR(place.heard(Op::activate), 4098, 2);
    place.clock->setMsPerLook(10000);
    const std::uint32_t before = place.heard(Op::activate);
    EXPECT_EQ(place.adaptor->haltAllTag(false), kOk);
    EXPECT_LE(place.heard(Op::activate) - before, 10u);
}

TEST_F(InProcess, PollingGivesWayToARunningOperation) {
    place.placeClassic();
    std::future<std::string> other;
    place.host.onChange = [&](bool) {
        other = std::async(std::launch::async, [this] { return place.poll(true); });
        EXPECT_EQ(other.wait_for(std::chrono::seconds(10)), std::future_status::ready) << "it must not queue";
    };
    EXPECT_EQ(place.poll(), "deadbeef 2002");
    EXPECT_EQ(other.get(), "");
    EXPECT_EQ(place.poll(true), "deadbeef 2002");
}

TEST_F(InProcess, AHostMayCallBackAndThrow) {
    place.placeClassic();
    ASSERT_TRUE(place.adaptor->initReader());
    place.host.onChange = [this](bool ready) {
        TagUID none;
        EXPECT_EQ(place.adaptor->suspendPoll(none), kOk);
        EXPECT_EQ(place.adaptor->resumePoll(none), kOk);
        EXPECT_EQ(place.findTag(), ready ? int{kOk} : int{kReaderNotReady});
        EXPECT_EQ(place.adaptor->haltAllTag(true), kOk);
        place.clock->advance(1000);
        place.adaptor->scanUSBDevice(2);
        throw std::runtime_error("the host's own trouble");
    };
    place.reader->vanish();
    place.reader->comeBack();
    EXPECT_EQ(place.poll(), "") << "the callback sent the tag to sleep";
    EXPECT_EQ(place.host.heard(), "-+");
    place.host.onChange = {};
    EXPECT_EQ(place.poll(true), "deadbeef 2002") << "the lock is free";
}

}  // namespace

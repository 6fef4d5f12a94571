// What is done with a selected tag, command by command.

#include "AccessRules.h"
#include "AppSectors.h"
#include "LinkWatch.h"
#include "ScriptedTag.h"

#include <gtest/gtest.h>

namespace {

constexpr std::uint8_t kKey[6] = {1, 2, 3, 4, 5, 6};
constexpr KeyUse kA{kKey, AuthKeyA}, kB{kKey, AuthKeyB};
constexpr Block kFormatted{0, 0, 0, 0, 0, 0, 0x78, 0x77, 0x88, 0x69};

class OnAScriptedTag : public ::testing::Test {
  protected:
    OnAScriptedTag() {
        for (std::size_t block = 3; block < 256; block += 4)
            driver->memory[block] = kFormatted;
    }
    /// A status, and what was heard meanwhile.
    std::string told(int status) { return std::to_string(status) + ": " + driver->heard(); }

    ManualClock clock;
    const std::uint8_t uid[4] = {1, 2, 3, 4};
    TagUID id{uid, 4, kTagStandard};
    std::shared_ptr<ScriptedTag> driver = std::make_shared<ScriptedTag>();
    ScriptedWait wait;
    WaitBudget budget{wait};
    SelectedTag tag{driver, id, budget};
    std::uint8_t bytes[64] = {};
    OpRecords records;
    int done = 0;
};

TEST_F(OnAScriptedTag, IsAskedForThreeTimesAndWokenAfterEachFailure) {
    driver->refuse("r5", 2);
    EXPECT_EQ(told(tag.read({1, 1, 1}, kA, Login::anew, bytes)), "3100: A4 r5 s52 A4 r5 s52 A4 r5");
    driver->refuse("r5", 3);
    EXPECT_EQ(told(tag.read({1, 1, 1}, kA, Login::asIs, bytes)), "3105: r5 s52 A4 r5 s52 A4 r5 s52");
    driver->refuse("r4", 3);
    int statuses[3];
    EXPECT_EQ(told(tag.read({1, 0, 3}, kA, Login::asIs, bytes, statuses)),
              "3105: r4 s52 A4 r4 s52 A4 r4 s52 s52 A4 r5 r6");
    driver->refuse("A4", 2);
    driver->refuse("s52", 1);
    EXPECT_EQ(tag.authenticate(4, kA), kOk);
    driver->refuse("A4", 1);
    driver->refuse("s52", 1);
    EXPECT_EQ(tag.authenticate(4, kA), kCancelled) << "a wake-up that failed counts";
    driver->heard();
}

TEST_F(OnAScriptedTag, IsWaitedForOutOfOneBudget) {
    wait.isThere = true;
    driver->refuse("s52", 2);
    driver->refuse("s26", 2);
    EXPECT_EQ(told(tag.activate()), "3100: s52 s26 s26 s52 s52") << "idle tags only as long as no time has passed";
    driver->refuse("s52", 100);
    EXPECT_EQ(tag.wake(), kWaitOver);
    EXPECT_EQ(clock.paused(), 1100u) << "a second wait has what the first one left";
    driver->heard();
    EXPECT_EQ(told(tag.wake()), "3122: s52") << "and then there is one attempt";
    driver->refuse("s52", 0);
    EXPECT_EQ(tag.wake(), kOk);
    wait.limit = 0;
    driver->heard();
    EXPECT_EQ(told(tag.wake()), "3122: ");
}

TEST_F(OnAScriptedTag, IsNotWaitedForOnAReaderThatIsLost) {
    LinkWatch watch;
    ASSERT_TRUE(driver->watchLink(watch));
    driver->refuse("s52", 100);
    driver->onCommand = [&watch] { watch.timedOut(); };
    EXPECT_EQ(tag.wake(), kCancelled);
    wait.isThere = true;
    EXPECT_EQ(tag.wake(), kWaitOver);
    EXPECT_EQ(clock.paused(), 100u) << "three time-outs in a row, one of them before somebody waited";
    watch = {};
    driver->onCommand = [&watch] { watch.failed(true); };
    EXPECT_EQ(tag.wake(), kWaitOver);
    EXPECT_EQ(clock.paused(), 100u);
    driver->unwatchLink();
}

TEST_F(OnAScriptedTag, NeverGetsATrailerBackWhoseAccessBytesAreInconsistent) {
    driver->memory[7] = {0, 0, 0, 0, 0, 0, 0x79, 0x77, 0x88};
    const SectorsToAdd one{1, kKey, kKey, 1, kKey, kKey, AccData100};
    EXPECT_EQ(PlainSectors(tag).add(one, done, records), kPartial);
    EXPECT_EQ(records.lastStatus(), kAccessRefused);
    EXPECT_EQ(AppSectors(tag).add({0x1234, kKey, kKey, 1, kKey, kKey, AccData100}, true, done, records), kOk);
    EXPECT_EQ(records.lastStatus(), kOk) << "another sector took its place";
    EXPECT_EQ(AccessRules(tag).setKeys({"", TagAppNone, 1, 1, kA, kB}, kKey, kKey, records), kPartial);
    EXPECT_EQ(records.lastStatus(), kAccessRefused);
    EXPECT_EQ(AccessRules(tag).setBlockType({TagAppNone, 0, 4, kA}, {kKey, kKey, AccData000, false, 0}),
              kAccessRefused);
    DataAccControl code = AccData000;
    EXPECT_EQ(AccessRules(tag).conditionOf(kA, 1, 0, code), kAccessRefused);
    EXPECT_EQ(code, AccInvalid);
    EXPECT_EQ(driver->heard().find("w7"), std::string::npos);
}

TEST_F(OnAScriptedTag, TellsOfABlockThatWasNotCleared) {
    const SectorsToAdd first{0, nullptr, kKey, 1, kKey, kKey, AccData100};
    driver->refuse("w2", 3);
    EXPECT_EQ(PlainSectors(tag).add(first, done, records), kPartial);
    EXPECT_EQ(records.lastStatus(), kBlockNotWritten);
    EXPECT_EQ(driver->heard(), "w1 w2 s52 B0 w2 s52 B0 w2 s52 B0 r3 w3") << "block 0 is the maker's";
}

TEST_F(OnAScriptedTag, IsWokenBetweenPlainSectors) {
    driver->refuse("w7", 3);
    EXPECT_EQ(told(PlainSectors(tag).add({1, nullptr, kKey, 2, kKey, kKey, AccData100}, done, records)),
              "3132: w4 w5 w6 B4 r7 w7 s52 B4 w7 s52 B4 w7 s52 s52 w8 w9 w10 B8 r11 w11");
    driver->refuse("w7", 3);
    EXPECT_EQ(told(PlainSectors(tag).remove({1, nullptr, 0, 2, kB, kKey, kKey, nullptr})),
              "3132: w4 w5 w6 B4 w7 s52 B4 w7 s52 B4 w7 s52 s52 w8 w9 w10 B8 w11");
}

TEST_F(OnAScriptedTag, IsOpenedBeforeABlockThatKeyBMayNotWrite) {
    driver->memory[7] = {0, 0, 0, 0, 0, 0, 0x5A, 0x57, 0x8A, 0x69};
    const BlockTypeChange change{kKey, kKey, AccData100, false, 0};
    driver->refuse("w7", 3);
    EXPECT_EQ(AccessRules(tag).setBlockType({TagAppNone, 0, 5, kA}, change), kBlockNotOpened);
    driver->refuse("r7", 3);
    EXPECT_EQ(AccessRules(tag).setBlockType({TagAppNone, 0, 5, kA}, change), kTrailerNotRead);
}

}  // namespace

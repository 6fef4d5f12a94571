// What follows when an operation has lost the reader or its tag, and threads that are cancelled within operations.

#include "CommandDoor.h"
#include "TagWorkplace.h"

#include <pthread.h>
#include <thread>

namespace {

const Bytes kUid{0x08, 1, 2, 3}, kSelect{0x80, 0x00};

class ALostReader : public ::testing::Test {
  protected:
    ALostReader() : adaptor(*place.adaptor), door(adaptor) { adaptor.setTagPromptFlag(false); }
    /// By an operation that leaves it to the next one.
    void lose() {
        place.reader->vanish();
        EXPECT_NE(door.wait(), kOk);
        EXPECT_EQ(place.host.heard(), "");
    }
    TagWorkplace place;
    ReaderImpl& adaptor;
    CommandDoor door;
};

TEST_F(ALostReader, IsOpenedAnewByWhateverIsAskedNext) {
    const struct {
        std::function<int()> run;
        bool isRefused;  // while the reader is away; a closed MF RC500 says 0 to what needs no tag
    } operations[] = {{[&] { return place.findTag(); }, true},
                      {[&] { return place.read(kPlain, 4, 1, kFactory.data()); }, true},
                      {[&] { return place.askReaderId(); }, false},
                      {[&] { return adaptor.switchReaderLED(2, 1, 5); }, false},
                      {[&] { return door.send(kUid, kSelect); }, false}};
    place.reader->field().place(scriptedCard(kUid));
    for (const auto& operation : operations) {
        SCOPED_TRACE(&operation - operations);
        lose();
        place.reader->comeBack();
        EXPECT_EQ(operation.run(), kOk);
        EXPECT_EQ(place.host.heard(), "-+");
        lose();
        for (const char* heard : {"-", ""}) {
            const int status = operation.run();
            EXPECT_TRUE(!operation.isRefused || status == kReaderNotReady) << status;
            EXPECT_EQ(place.host.heard(), heard);
        }
        place.reader->comeBack();
        EXPECT_EQ(operation.run(), kOk);
        EXPECT_EQ(place.host.heard(), "+");
    }
    lose();
    place.reader->comeBack();
    const std::uint32_t before = place.reader->commandCount(0x26);
    EXPECT_EQ(place.findTag(), kOk);
    EXPECT_EQ(place.reader->commandCount(0x26) - before, isMf500UnderTest() ? 0u : 2u) << "and so is LED 3";
}

TEST_F(ALostReader, IsFoundAgainByAHostThatAsksForNoTag) {
    for (const bool asksForLight : {false, true}) {
        const auto ask = [&] { return asksForLight ? adaptor.switchReaderLED(2, 1, 5) : place.askReaderId(); };
        place.reader->vanish();
        if (!asksForLight || !isMf500UnderTest()) {
            EXPECT_EQ(ask(), kReaderFailed);
        }
        place.reader->comeBack();
        EXPECT_EQ(ask(), kOk);
    }
    EXPECT_EQ(place.host.heard(), isMf500UnderTest() ? "-+" : "-+-+") << "an MF RC500 has no LED command";
}

// The command of LED 3 turns it over: a reader that kept its power would go dark.
TEST_F(ALostReader, KeepsItsLedsIfItWasOnlySilent) {
    if (isMf500UnderTest()) GTEST_SKIP() << "it has no LEDs";
    ASSERT_EQ(place.reader->addFaults("4A 1 no reply"), "");
    const std::uint32_t before = place.reader->commandCount(0x26);
    place.poll();
    EXPECT_EQ(place.host.heard(), "-+");
    EXPECT_EQ(place.reader->commandCount(0x26) - before, 1u);
}

// A cancelled thread goes on to the end of the operation.
TEST_F(ALostReader, MayBeOpenedByACancelledThread) {
    place.host.onChange = [](bool) {
        ::pthread_cancel(::pthread_self());
        ::pthread_testcancel();
    };
    for (const bool polls : {true, false}) {
        lose();
        place.reader->comeBack();
        int status = 0;
        std::thread([&] { status = polls ? (place.poll(), kOk) : place.findTag(); }).join();
        EXPECT_EQ(status, kOk);
        EXPECT_EQ(place.host.heard(), "-+");
    }
}

TEST(ALostTag, IsNotReplacedByOneOfAnotherTypeWithItsUid) {
    TagWorkplace place;
    const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
    const auto other = std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(4096, uid), uid);
    const std::string away = place.reader->field().place(other);
    place.reader->field().setPresent(away, false);
    // At the second sector's authentication.
    ASSERT_EQ(place.spoil(Op::authenticate, (isMf500UnderTest() ? "2 tag swapped " : "5 tag swapped ") + away), "");
    EXPECT_EQ(place.format(kPlain), kPartial);
    EXPECT_EQ(other->memory()->writeCount(), 0u);
}

}  // namespace

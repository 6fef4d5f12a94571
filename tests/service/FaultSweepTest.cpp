// Everything that can go wrong on the way to the reader, provoked from the reader's side: after each fault the
// documented answer, no longer wait than documented, and a reader that works after the next start.

#include "Workplace.h"

#include <string>
#include <vector>

namespace {

/// The commands of one start and one forced poll with a tag, in order of their first use.
std::vector<const char*> commands() {
    if (isMf500UnderTest()) return {"10", "09", "20", "43", "1D"};
    return {"1C", "1E", "32", "12", "26", "4A", "44"};
}

class FaultSweep : public ::testing::Test {
  protected:
    FaultSweep() {
        place.start();
        place.placeClassic();
    }

    /// One start and polls of both kinds under the rule; then, with the rule gone, all must be well.
    void survives(const std::string& rule) {
        SCOPED_TRACE(rule);
        place.reader->clearFaults();
        ASSERT_EQ(place.reader->addFaults(rule), "");
        const std::uint64_t start = place.clock->nowMs();
        place.adaptor->initReader();
        for (const bool forced : {false, true, false}) {
            const std::string found = place.poll(forced);
            ASSERT_TRUE(found.empty() || found == "deadbeef 2002" || mayFlip) << found;
        }
        EXPECT_LE(place.clock->nowMs() - start, 60000u);
        place.reader->clearFaults();
        place.reader->comeBack();
        ASSERT_TRUE(place.adaptor->initReader());
        ASSERT_EQ(place.poll(true), "deadbeef 2002");
        EXPECT_EQ(place.poll(), "");
    }

    Workplace place;
    /// Bytes of a reply change unseen.
    bool mayFlip = false;
};

TEST_F(FaultSweep, EachKindOfFaultAtEachCommand) {
    const char* const kEffects[] = {
        "no answer",      "no ack",        "no reply",       "nack",           "wrong ack",     "error",
        "late ack",       "late reply",    "reply twice",    "wrong checksum", "wrong code",    "status 01",
        "status 27",      "cut 0",         "cut 5",          "cut 8",          "short 0",       "short 1",
        "short 3",        "pad 1",         "pad 200",        "extended 1023",  "extended 1024", "extended 1025",
        "extended 65545", "vanish before", "vanish between", "vanish after",   "out of step",   "endless",
    };
    for (const char* command : commands())
        for (const char* effect : kEffects)
            for (const char* when : {" 1 ", " 2 ", " from 1 "}) {
                if (!place.hasFault(effect)) continue;
                mayFlip = isMf500UnderTest() && effect[0] == 's';  // its messages do not tell what they hold
                ASSERT_NO_FATAL_FAILURE(survives(command + std::string(when) + effect));
            }
}

TEST_F(FaultSweep, EachByteOfTheRepliesFlipped) {
    mayFlip = isMf500UnderTest();  // its messages carry no check sum: that is the business of USB
    for (const char* command : commands())
        for (int offset = 0; offset < 54; ++offset)
            for (const char* mask : {" 01", " 80", " FF"})
                ASSERT_NO_FATAL_FAILURE(
                    survives(command + std::string(" from 1 xor ") + std::to_string(offset) + mask));
}

TEST_F(FaultSweep, EachLengthByteAndEachTruncationOfAnActivation) {
    mayFlip = isMf500UnderTest();
    const std::string activate = isMf500UnderTest() ? "43" : "4A", lengthAt = isMf500UnderTest() ? "5" : "3";
    for (int value = 0; value < 256; ++value) {
        char text[8];
        std::snprintf(text, sizeof text, " %02X", value);
        ASSERT_NO_FATAL_FAILURE(survives(activate + " from 1 xor " + lengthAt + text));
    }
    for (int size = 0; size < 22; ++size)
        ASSERT_NO_FATAL_FAILURE(survives(activate + " from 1 cut " + std::to_string(size)));
}

TEST_F(FaultSweep, AReaderThatFallsSilentIsGivenUpSoon) {
    ASSERT_TRUE(place.adaptor->initReader());
    place.reader->addFaults("any from 1 no answer");
    const std::uint32_t before = place.heardInAll();
    EXPECT_EQ(place.adaptor->haltAllTag(true), kOk);
    EXPECT_LE(place.heardInAll() - before, 12u) << "no operation pays for more than a few time-outs in a row";
    EXPECT_FALSE(place.adaptor->initReader());
    place.reader->clearFaults();
    EXPECT_TRUE(place.adaptor->initReader());
}

TEST_F(FaultSweep, ATagThatComesAndGoesInTheMiddle) {
    for (const char* effect : {"tag gone", "tag blinks", "tag swapped"})
        for (const Op op : {Op::activate, Op::halt, Op::fieldReset})
            for (const char* when : {"1 ", "2 ", "3 "}) {
                SCOPED_TRACE(std::string(when) + effect);
                place.reader->clearFaults();
                ASSERT_EQ(place.spoil(op, std::string(when) + effect), "");
                for (const bool forced : {true, false, true}) {
                    const std::string found = place.poll(forced);
                    EXPECT_TRUE(found.empty() || found == "deadbeef 2002" || found == "deadbe10 2002") << found;
                }
                place.reader->clearFaults();
                place.reader->field().clear();
                place.placeClassic();
                ASSERT_EQ(place.poll(true), "deadbeef 2002");
            }
}

}  // namespace

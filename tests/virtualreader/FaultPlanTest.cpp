// Faults on order: what each does on the wire, when it comes, and how a plan is written.

#include "TestHost.h"

#include "FaultPlan.h"
#include "MifareClassicTag.h"
#include "UltralightTag.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

constexpr const char* kFound = "4B 01 01 04 00 08 04 DE AD BE EF";
constexpr const char* kLogin = "40 01 60 04 FFFFFFFFFFFF DEADBEEF";

struct FaultTest : ::testing::Test {
    FaultTest() {
        host("32 05 05 05 05");
        reader->field().place(tag);
    }
    /// Sends a command under one rule. @return all frames that come, and how it ends: "ACK, 27 00, -" for silence.
    /// Damaged frames are "?".
    std::string under(const std::string& rule, const char* command) {
        EXPECT_EQ(reader->addFault(std::string_view(rule)), "");
        return all(command);
    }
    std::string all(const char* command) {
        std::string frames, frame = host.send(command);
        for (int count = 0; count < 6 && frame != "gone" && frame != "silence"; ++count) {
            frame = host.read();
            frames += (frames.empty() ? "" : ", ") + (frame == "silence" ? "-" : frame == "damaged" ? "?" : frame);
        }
        return frames.empty() ? frame : frames;
    }

    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    std::shared_ptr<VirtualTag> tag =
        std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, hex("DEADBEEF")));
    TestHost host{reader};
};

TEST_F(FaultTest, EachEffectOnTheWire) {
    const std::string carriedOut =
        "no ack > 27 00, -; no reply > ACK, -; nack > NACK, 27 00, -; wrong ack > ?, 27 00, -; late ack > -; "
        "late reply > ACK, -; overdue 500 > ACK, -; reply twice > ACK, 27 00, 27 00, -; "
        "endless > ACK, ?, ?, ?, ?, ?; xor 7 80 > ACK, ?, -; xor 99 01 > ACK, 27 00, -; "
        "wrong checksum > ACK, ?, -; wrong code > ACK, 29 00, -; cut 5 > ACK, ?, -; cut 0 > ACK, -; "
        "short 0 > ACK, 27, -; pad 3 > ACK, 27 00 00 00 00, -; extended 65545 > ACK, 65545 bytes, -; "
        "extended 12 > ACK, ?, -";
    const std::string notCarriedOut =
        "no answer > -; error > ACK, ERROR, -; status 14 > ACK, 27 14, -; already awake > ACK, 27 00 00, -; "
        "vanish before > gone; vanish between > ACK, gone; vanish after > ACK, 27 00, gone";
    for (const bool done : {true, false}) {
        std::istringstream effects(done ? carriedOut : notCarriedOut);
        for (std::string each; std::getline(effects >> std::ws, each, ';');) {
            SCOPED_TRACE(each);
            const std::size_t arrow = each.find(" > ");
            reader->comeBack();
            host.device.OpenInterface("", 0, 0);
            host("26 00");
            EXPECT_EQ(under("any 1 " + each.substr(0, arrow), "26 15"), each.substr(arrow + 3));
            EXPECT_EQ(reader->ledByte() == 0x15, done);
            if (!reader->isPresent()) continue;
            host.device.discardInput();
            const std::string after = all("24");
            EXPECT_TRUE(after.ends_with("ACK, 25 00 00 17 2A 00 00 01 CC 04 31 05 02 01 03, -")) << after;
            reader->clearFaults();
        }
    }
}

TEST_F(FaultTest, HeldBackFramesComeBeforeTheNextAnswer) {
    under("26 1 late reply", "26 15");
    EXPECT_EQ(all("02"), "27 00, ACK, 03 04 02, -");
    under("26 1 late ack", "26 15");
    EXPECT_EQ(all("02"), "ACK, 27 00, ACK, 03 04 02, -");
    EXPECT_EQ(all("02"), "ACK, 03 04 02, -");
    under("26 1 overdue 300", "26 15");
    EXPECT_EQ(host.read(), "27 00") << "in process it comes after the first time-out";
    under("26 1 overdue 300", "26 15");
    host.device.discardInput();
    EXPECT_EQ(all("02"), "ACK, 03 04 02, -");
}

TEST_F(FaultTest, TagsLeaveReturnAndChangePlaces) {
    reader->field().place(std::make_shared<UltralightTag>(UltralightTag::blankImage(hex("04112233445566"))), "other");
    reader->field().setPresent("other", false);
    const auto found = [&] { return host("4A 01 00"); };
    EXPECT_EQ(found(), kFound);
    EXPECT_EQ(host(kLogin), "41 00");
    reader->addFault("40 1 tag blinks");
    EXPECT_EQ(host("40 01 30 04"), "41 01");
    EXPECT_EQ(found(), kFound);
    reader->addFault("4A 1 tag gone");
    reader->addFault("4A 2 tag back");
    EXPECT_EQ(found(), "4B 00");
    EXPECT_EQ(found(), kFound);
    reader->addFault("4A 1 tag swapped other");
    EXPECT_EQ(found(), "4B 01 01 44 00 00 07 04 11 22 33 44 55 66");
    reader->addFault("4A 1 tag swapped");
    EXPECT_EQ(found(), "4B 01 01 44 00 00 07 04 11 22 33 44 55 99") << "a twin with another UID";
    reader->addFault("4A 1 already awake");
    EXPECT_EQ(found(), "4B 00 00");
}

TEST(FaultPlanText, MistakesNameLineAndCause) {
    const std::pair<const char*, const char*> mistakes[] = {
        {"4A 1 no reply\n4G 1 no reply", "line 2: unknown command \"4G\""},
        {"4A5 1 no reply", "line 1: unknown command \"4A5\""},
        {"\n\n4A no reply", "line 3: a count is missing"},
        {"4A", "line 1: a count is missing"},
        {"4A 0 nack", "line 1: a count is missing"},
        {"4A from nack", "line 1: a count is missing"},
        {"4A 1", "line 1: what happens is missing"},
        {"4A 1 no luck", "line 1: \"no\" is no effect; known are: no answer, "},
        {"4A 1 nack now", "line 1: \"now\" is one word too many"},
        {"4A 1 xor A 01", "line 1: \"xor\" takes a decimal offset and a byte in hexadecimal"},
        {"4A 1 status 1FF", "line 1: \"status\" takes a byte in hexadecimal"},
        {"4A 1 cut -1", "line 1: \"cut\" takes a decimal number"},
        {"4A 1 power lost", "line 1: \"power lost\" goes with \"write\" only"},
        {"write 1 nack", "line 1: \"nack\" does not go with \"write\""},
        {"4A 1 lost", "line 1: \"lost\" goes with \"block\" and \"deselect\" only"},
        {"blocks 1 lost", "line 1: unknown command \"blocks\": two hexadecimal digits, \"any\", \"write\""},
        {"block 1 nack", "line 1: \"nack\" does not go with \"block\" and \"deselect\""},
        {"deselect 1 torn 3", "line 1: \"torn\" goes with \"write\" only"},
        {"block 1 wtx 256", "line 1: \"wtx\" takes a decimal number, at most 255"},
        {"block 1 pcb", "line 1: \"pcb\" takes a byte in hexadecimal"},
        {"block 1 gone", "line 1: \"gone\" is no effect; known are: xor, cut, pad, lost, late, previous, "},
    };
    for (const auto& [given, expected] : mistakes) {
        FaultPlan plan;
        const std::string complaint = plan.addText(given);
        EXPECT_TRUE(complaint.starts_with(expected)) << given << ": " << complaint;
        EXPECT_TRUE(plan.isEmpty()) << "all or nothing";
    }
}

}  // namespace

// The operations on a tag, one or two commands each.

#include "ScriptedDevice.h"
#include "TagUID.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>

namespace {

constexpr std::uint8_t kGuard = 0xA5;

class TagOperations : public ScriptedDriver {
  protected:
    TagOperations() { clear(); }

    void clear() {
        std::ranges::fill(uid, kGuard);
        std::ranges::fill(ats, kGuard);
        atq[0] = atq[1] = sak = uidLen = atsLen = kGuard;
    }
    short activateIdle() { return driver->piccActivateIdle(0, atq, &sak, uid, &uidLen); }
    short activateIdleWithAts() { return driver->piccActivateIdle(0, atq, &sak, uid, &uidLen, ats, &atsLen); }
    short wakeUp(const std::string& tag, bool withAts = false) {
        Bytes bytes = hex(tag);
        const auto length = static_cast<std::uint8_t>(bytes.size());
        return withAts ? driver->piccActivateWakeup(0, atq, &sak, bytes.data(), length, ats, &atsLen)
                       : driver->piccActivateWakeup(0, atq, &sak, bytes.data(), length);
    }

    std::uint8_t atq[2], sak, uid[16], uidLen, ats[255], atsLen;
};

// The UID length is a byte of the reader's: it may be anything, and the frame may end anywhere.
TEST_F(TagOperations, ActivationNeverTrustsALength) {
    for (unsigned length = 0; length <= 255; ++length) {
        for (std::size_t present = 0; present <= 246; present += present < 14 ? 1 : 29) {
            Bytes body = hex("4B 01 01 04 00 08");
            body.push_back(static_cast<std::uint8_t>(length));
            body.insert(body.end(), present, 0x11);
            clear();
            script->expects({}).answers(ack()).answers(frame(0xD5, body));
            const bool fits = length != 0 && length <= present;
            ASSERT_EQ(activateIdle(), fits ? kBflOk : kBflNoTag) << length << " of " << present;
            ASSERT_EQ(uidLen, fits ? length : 0) << "the reported length goes up for the caller to refuse";
            ASSERT_TRUE(std::all_of(uid + 10, uid + sizeof uid, [](std::uint8_t b) { return b == kGuard; }));
        }
    }
    for (const char* cut : {"4B 00", "4B 01", "4B 01 01", "4B 01 01 04 00 08"}) {
        script->dialogue("4A 01 00", cut);
        EXPECT_EQ(activateIdle(), kBflNoTag) << cut;
        EXPECT_EQ(uidLen, 0);
    }
}

TEST_F(TagOperations, ActivationWithAtsSwitchesTheReaderThereAndBack) {
    const auto play = [this](const std::string& reply) {
        script->dialogue("12 1C", "13").dialogue("4A 01 00", reply).dialogue("12 0C", "13");
    };
    play("4B 01 01 44 03 20 04 01 02 03 04 06 75 77 81 02 80");
    EXPECT_EQ(activateIdleWithAts(), kBflOk);
    EXPECT_EQ(atsLen, 6);
    EXPECT_TRUE(std::equal(ats, ats + 6, hex("06 75 77 81 02 80").begin()));
    EXPECT_EQ(ats[6], kGuard);
    play("4B 01 01 04 00 08 04 DE AD BE EF");
    EXPECT_EQ(activateIdleWithAts(), kBflNoAts) << "a Classic has none";
    EXPECT_TRUE(atsLen == 0 && uidLen == 4) << "but was found";
    play("4B 00");
    EXPECT_EQ(driver->piccActivateIdleLoop(0, atq, &sak, uid, &uidLen, 9, ats, &atsLen), kBflNoTag);

    script->dialogue("12 1C", "13").dialogue("4A 01 00", "4B 00").refuses(cmd("12 0C"));
    EXPECT_EQ(activateIdleWithAts(), kBflErrorFrame) << "the reset's failure replaces the other";
    script->refuses(cmd("12 1C"));
    EXPECT_EQ(activateIdleWithAts(), kBflErrorFrame);
    EXPECT_EQ(before("4A 01 00", "4B 00").piccActivateIdleLoop(0, atq, &sak, uid, &uidLen, 9), kBflNoTag);
}

TEST_F(TagOperations, WakeUpTakesOnlyTheTagThatWasNamed) {
    const struct {
        const char* what;
        const char* reply;
        short status;
        const char* outputs;  // atq and sak
    } cases[] = {
        {"the tag", "4B 01 01 04 00 08 04 DE AD BE EF", kBflOk, "04 00 08"},
        {"not in the field", "4B 00", kBflNoTag, "A5 A5 A5"},
        {"already awake", "4B 00 01", kBflOk, "A5 A5 A5"},
        {"another tag", "4B 01 01 04 00 08 04 DE AD BE EE", kBflNoTag, "04 00 08"},
        {"another length", "4B 01 01 44 00 00 07 DE AD BE EF 01 02 03", kBflNoTag, "44 00 00"},
        {"no UID", "4B 01 01 04 00 08 00", kBflNoTag, "04 00 08"},
        {"UID beyond the frame", "4B 01 01 04 00 08 09 DE AD BE EF", kBflNoTag, "A5 A5 A5"},
        {"cut", "4B 01 01", kBflNoTag, "A5 A5 A5"},
    };
    for (const auto& c : cases) {
        clear();
        script->dialogue("4A 01 00 DE AD BE EF", c.reply);
        EXPECT_EQ(wakeUp("DE AD BE EF"), c.status) << c.what;
        EXPECT_EQ((Bytes{atq[0], atq[1], sak}), hex(c.outputs)) << c.what;
    }
    script->refuses(cmd("4A 01 00 DE AD BE EF"));
    EXPECT_EQ(wakeUp("DE AD BE EF"), kBflErrorFrame);
    script->dialogue("4A 01 00 04 11 22 33 44 55 66", "4B 01 01 44 00 00 07 04 11 22 33 44 55 66");
    EXPECT_EQ(wakeUp("04 11 22 33 44 55 66"), kBflOk);
    Bytes endless(255, 0x01);
    EXPECT_EQ(driver->piccActivateWakeup(0, atq, &sak, endless.data(), 255), kBflOutOfRange) << "fits no frame";
}

TEST_F(TagOperations, SelectionLooksTwiceAtATagThatIsAwakeAlready) {
    const TagUID tag(hex("DE AD BE EF").data(), 4, 0);
    const std::tuple<const char*, short, bool> cases[] = {{"4B 01 01 04 00 08 04 DE AD BE EF", kBflOk, true},
                                                          {"4B 00", kBflNoTag, false},  // it was another one
                                                          {"4B 00 01", kBflOk, false}};
    for (const auto& [second, status, isTypeTold] : cases) {
        std::optional<std::uint8_t> told;
        script->dialogue("4A 01 00 DE AD BE EF", "4B 00 01").dialogue("44 01", "45 00");
        script->dialogue("4A 01 00 DE AD BE EF", second);
        EXPECT_EQ(driver->piccSelectKnown(0x52, tag, told), status);
        EXPECT_EQ(told.has_value(), isTypeTold);
    }
}

TEST_F(TagOperations, WakeUpWithAts) {
    const std::pair<const char*, short> cases[] = {
        {"4B 01 01 44 03 20 04 01 02 03 04 06 75 77 81 02 80", kBflOk},
        {"4B 00 01 06 75 77 81 02 80 00 00 00 00 00 00", kBflNoAts},  // the answer of a card that is awake holds none
        {"4B 00", kBflNoTag}};
    for (const auto& [reply, status] : cases) {
        script->dialogue("12 1C", "13").dialogue("4A 01 00 01 02 03 04", reply).dialogue("12 0C", "13");
        EXPECT_EQ(wakeUp("01 02 03 04", true), status);
        EXPECT_EQ(atsLen, status == kBflOk ? 6 : 0);
    }
}

TEST_F(TagOperations, MifareCommands) {
    Bytes key = hex("FF FE FD FC FB FA"), tag = hex("DE AD BE EF"), value = hex("01 00 00 00");
    script->dialogue("40 01 61 04 FF FE FD FC FB FA DE AD BE EF", "41 14");
    EXPECT_EQ(driver->piccAuthKey(0x61, tag.data(), key.data(), 4), 0x14);
    EXPECT_EQ(driver->piccAuthKey(0x62, tag.data(), key.data(), 4), kBflOutOfRange);
    EXPECT_EQ(driver->piccAuthKey(0x60, tag.data(), nullptr, 4), kBflOutOfRange);
    script->dialogue("40 01 C1 04 01 00 00 00", "41 00").dialogue("40 01 B0 05", "41 00");
    EXPECT_EQ(driver->piccValue(0xC1, 4, value.data(), 5), kBflOk);
    script->dialogue("40 01 C0 04 01 00 00 00", "41 13");
    EXPECT_EQ(driver->piccValue(0xC0, 4, value.data(), 5), 0x13) << "nothing is transferred then";
    for (const std::uint8_t operation : Bytes{0xC2, 0xC3, 0x30})
        EXPECT_EQ(driver->piccValue(operation, 4, value.data(), 5), kBflOutOfRange);
    EXPECT_EQ(before("44 01", "45 01").piccHalt(), 1);
    EXPECT_EQ(before("44 01", "45").piccHalt(), kBflBadFrame);
}

// A reply that is sound but short must not pass as tag data.
TEST_F(TagOperations, ReadWantsSixteenBytes) {
    std::uint8_t data[16];
    for (std::size_t size = 0; size <= 17; ++size) {
        Bytes body = hex("41 00");
        body.insert(body.end(), size, 0x77);
        std::ranges::fill(data, kGuard);
        script->expects(cmd("40 01 30 09")).answers(ack()).answers(frame(0xD5, body));
        EXPECT_EQ(driver->piccRead(9, data), size >= 16 ? kBflOk : kBflBadFrame) << size;
        EXPECT_EQ(data[0], size >= 16 ? 0x77 : kGuard);
    }
    EXPECT_EQ(before("40 01 30 09", "41 14").piccRead(9, data), 0x14);
    EXPECT_EQ(driver->piccRead(9, nullptr), kBflOutOfRange);
}

TEST_F(TagOperations, ExchangeKeepsToTheCallersBuffer) {
    Bytes sent(254, 0x0A), received(300, kGuard);
    std::uint16_t length = 0;
    for (const std::uint16_t bad : std::initializer_list<std::uint16_t>{0, 253, 254}) {
        length = 300;
        EXPECT_EQ(driver->piccExchangeBlock(sent.data(), bad, received.data(), &length, 0, 0), kBflBadSendLength);
    }
    script->expects({}).answers(ack()).answers(rsp("43 00"));
    EXPECT_EQ(driver->piccExchangeBlock(sent.data(), 252, received.data(), &length, 1, 99), kBflOk);
    EXPECT_EQ(length, 0);
    for (const std::uint16_t capacity : std::initializer_list<std::uint16_t>{0, 2, 3, 4, 252}) {
        length = capacity;
        std::ranges::fill(received, kGuard);
        script->dialogue("42 0A", "43 00 C1 C2 C3");
        const bool fits = capacity >= 3;
        EXPECT_EQ(driver->piccExchangeBlock(sent.data(), 1, received.data(), &length, 0, 0),
                  fits ? kBflOk : kBflBadFrame);
        EXPECT_EQ(received[0], fits ? 0xC1 : kGuard);
        EXPECT_EQ(length, fits ? 3 : capacity);
    }
    length = 300;
    for (const auto& [reply, status] : {std::pair{"43 01", short{1}}, {"43", short{kBflBadFrame}}})
        EXPECT_EQ(before("42 0A", reply).piccExchangeBlock(sent.data(), 1, received.data(), &length, 0, 0), status);
}

TEST_F(TagOperations, RelayHandsOverTheWholeReply) {
    Bytes command = hex("40 01 30 04");
    std::uint8_t* reply = nullptr;
    int length = 99;
    script->dialogue("40 01 30 04", "41 14").dialogue("40 01 30 04", "41 14");
    EXPECT_EQ(driver->relayNFCCmd(command.data(), 4, reply, length), kBflOk) << "a status byte is the caller's";
    EXPECT_EQ(Bytes(reply, reply + length), hex("41 14"));
    delete[] std::exchange(reply, nullptr);
    EXPECT_EQ(driver->tamaCommand(command.data(), 4), 0x14) << "and no longer than for the relay";
    EXPECT_EQ(driver->relayNFCCmd(command.data(), 0, reply, length), kBflOutOfRange);
    EXPECT_EQ(driver->relayNFCCmd(nullptr, 4, reply, length), kBflOutOfRange);
    EXPECT_TRUE(length == 0 && reply == nullptr);
}

}  // namespace

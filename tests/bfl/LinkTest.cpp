// One command over the link: frame, ACK, reply, checks, scrambling, key agreement and key change.

#include "ScriptedDevice.h"

#include "HexText.h"
#include "HostRdCom.h"
#include "KeyPool.h"
#include "LinkCipher.h"
#include "LinkWatch.h"
#include "Md5.h"
#include "Rc4.h"
#include "TamaFrame.h"

#include <algorithm>
#include <functional>
#include <new>
#include <string>
#include <thread>

namespace {

class Link : public ScriptedDriver {
  protected:
    short command(const std::string& text = "4A 01 00") {
        Bytes bytes = hex(text);
        return driver->tamaCommand(bytes.data(), static_cast<int>(bytes.size()));
    }
};

TEST(Md5, GivesThePublishedDigests) {  // RFC 1321, A.5
    const std::pair<std::string, std::string> cases[] = {
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& [text, digest] : cases)
        EXPECT_EQ(hexText(md5({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}).data(), 16), digest);
}

TEST(KeyPool, RotatesEachByteByItsNeighbour) {
    std::uint8_t value[16] = {0x81, 0x03, 0x81, 0x03, 0x41, 0x00, 0xFF, 0x07, 0x80};
    const KeyValue rotated = rotateKey(value);
    // 81 by its own 1 to the right; 03 by 1 to the left; 81 by 3 to the right; 03 by 1; 41 by 3 to the left; ...
    const Bytes expected = hex("C0 06 30 06 0A 00 FF 83 01 00 00 00 00 00 00 00");
    EXPECT_TRUE(std::equal(rotated.begin(), rotated.end(), expected.begin())) << hexText(rotated.data(), 16);
}

TEST(KeyPool, GivesANewValueEachTime) {
    seedKeyPool();
    std::uint8_t first[16], second[16];
    nextKeyPoolValue(first);
    nextKeyPoolValue(second);
    EXPECT_FALSE(std::ranges::equal(first, second));
    EXPECT_TRUE(std::ranges::equal(md5(first), second));
}

TEST(LinkCipherTest, TheZeroKeyLeavesDataAlone) {
    LinkCipher cipher;
    const Bytes plain = hex("01 02 03"), key(16, 0x5A);
    Bytes data = plain;
    cipher.crypt(data.data(), 3);
    EXPECT_EQ(data, plain);
    for (const bool isScrambled : {true, false}) {
        cipher.setKey(key.data());
        cipher.crypt(data.data(), 0);
        cipher.crypt(data.data(), 3);
        EXPECT_EQ(data != plain, isScrambled);
    }
    cipher.setKey(nullptr);
    EXPECT_FALSE(cipher.hasKey());
}

TEST_F(Link, SendsThePlainFrameInTheClear) {
    script->expects(hex("00 00 FF 04 FC D4 4A 01 00 E1 00")).answers(ack()).answers(rsp("4B 00"));
    EXPECT_EQ(command(), kBflOk);
}

TEST_F(Link, RefusesCommandsThatNoFrameHolds) {
    Bytes bytes(1100, 0x42);
    for (const int length : {0, -1, 255, 1016, 1017, 1100})
        EXPECT_EQ(driver->tamaCommand(bytes.data(), length), kBflOutOfRange) << length;
    EXPECT_EQ(driver->tamaCommand(nullptr, 3), kBflOutOfRange);
    EXPECT_TRUE(script->written.empty());
    script->expects({}).answers(ack()).answers(rsp("43 00"));
    EXPECT_EQ(driver->tamaCommand(bytes.data(), 254), kBflOk);
    EXPECT_EQ(script->written.back().size(), 262u);
}

TEST_F(Link, RefusesWhatIsNoAckOrNoReply) {
    const Bytes goodReply = rsp("41 00 11 22");
    const auto with = [&goodReply](std::size_t offset, std::uint8_t value) {
        Bytes bad = goodReply;
        bad[offset] = value;
        return bad;
    };
    Bytes tooLong = goodReply;
    tooLong.push_back(0);
    const struct {
        const char* what;
        Bytes ackFrame, reply;
        short status;
    } cases[] = {
        {"a NACK", hex("00 00 FF FF 00 00"), {}, kBflBadFrame},
        {"an ACK of 5 bytes", hex("00 00 FF 00 FF"), {}, kBflBadFrame},
        {"nothing", {}, {}, kBflBadFrame},
        {"a reply for an ACK", goodReply, {}, kBflBadFrame},
        {"ERROR", ack(), errorFrame(), kBflErrorFrame},
        {"nothing for a reply", ack(), {}, kBflBadStart},
        {"preamble", ack(), with(0, 1), kBflBadStart},
        {"start code", ack(), with(2, 0xFE), kBflBadStart},
        {"LCS", ack(), with(4, 0), kBflBadFrame},
        {"LEN of another frame", ack(), with(3, 0x04), kBflBadFrame},
        {"too short", ack(), {goodReply.begin(), goodReply.end() - 1}, kBflBadFrame},
        {"too long", ack(), tooLong, kBflBadFrame},
        {"DCS", ack(), with(goodReply.size() - 2, 0x5A), kBflBadFrame},
        {"TFI", ack(), frame(0xD4, hex("41 00 11 22")), kBflBadFrame},
        {"reply to another command", ack(), rsp("4B 00"), kBflBadFrame},
        {"ERROR frame with another code", ack(), hex("00 00 FF 01 FF 7E 82 00"), kBflBadFrame},
        {"no status byte", ack(), rsp("41"), kBflBadFrame},
        {"the reader's status", ack(), rsp("41 14"), 0x14},
    };
    LinkWatch watch;
    ASSERT_TRUE(driver->watchLink(watch));
    for (const auto& bad : cases) {
        script->expects({}).answers(bad.ackFrame);
        if (bad.ackFrame == ack()) script->answers(bad.reply);
        EXPECT_EQ(command("40 01 30 04"), bad.status) << bad.what;
        const bool isSound =
            bad.status >= 0 || bad.status == kBflErrorFrame || bad.what == std::string("no status byte");
        EXPECT_NE(watch.isBroken(), isSound) << bad.what;
    }
    driver->unwatchLink();
}

TEST_F(Link, CountsFramesAboveTheBufferOnlyAsBad) {
    const Bytes piece(1024, 0xAA);
    for (const std::uint32_t reported : {1024u, 1025u, 65545u}) {
        script->expects({}).readGives(kDeviceOk, piece, reported);
        EXPECT_EQ(command(), kBflBadFrame) << "as ACK, " << reported;
        script->expects({}).answers(ack()).readGives(kDeviceOk, piece, reported);
        EXPECT_EQ(command(), kBflBadStart) << "as reply, " << reported;
    }
}

TEST_F(Link, TellsAFailedDeviceFromASilentOne) {
    script->expects({}).readGives(kDeviceTimedOut);
    EXPECT_EQ(command(), kBflDeviceTimedOut);
    script->expects({}).answers(ack()).readGives(kDeviceTimedOut, hex("00 00 FF"));
    EXPECT_EQ(command(), kBflDeviceTimedOut);
    script->expects({}).answers(ack()).readGives(kDeviceFailed);
    EXPECT_EQ(command(), kBflDeviceFailed);
    script->gone = true;
    script->writeFails(kDeviceFailed);  // one failure is not the end, but that the device is gone
    EXPECT_EQ(command(), kBflDeviceFailed);
    LinkWatch late;
    ASSERT_TRUE(driver->watchLink(late));
    EXPECT_EQ(command(), kBflDeviceFailed) << "it is not asked again";
    EXPECT_TRUE(late.isLost()) << "whoever watches from now on hears of it too";
    EXPECT_TRUE(driver->isDeviceGone());
    driver->unwatchLink();
    script->gone = false;
    driver->interfaceOpen(49, 0);
    EXPECT_FALSE(driver->isDeviceGone());
    script->writeFails(kDeviceFailed);
    EXPECT_EQ(command(), kBflDeviceFailed);
    driver->interfaceClose();
    EXPECT_EQ(command(), kBflNoDevice);
}

TEST_F(Link, GivesASilentReaderUpUntilTheNextOperation) {
    LinkWatch watch;
    ASSERT_TRUE(driver->watchLink(watch));
    for (const bool isAcknowledged : {false, true}) {  // an ACK alone is no sign of life
        for (int i = 0; i < 3; ++i) {
            script->expects({});
            if (isAcknowledged) script->answers(ack());
            script->readGives(kDeviceTimedOut);
            EXPECT_EQ(command(), kBflDeviceTimedOut);
        }
        const std::size_t sent = script->written.size();
        EXPECT_EQ(command(), kBflDeviceTimedOut);
        EXPECT_EQ(script->written.size(), sent) << "the fourth command is not sent";
        LinkWatch nested;
        EXPECT_FALSE(driver->watchLink(nested));
        EXPECT_TRUE(driver->isReaderLost());
        std::thread([this] { EXPECT_FALSE(driver->isReaderLost()) << "another thread has lost nothing"; }).join();
        watch = {};  // the next operation has one of its own
        script->dialogue("4A 01 00", "4B 00");
        EXPECT_EQ(command(), kBflOk);
    }
    driver->unwatchLink();
}

TEST_F(Link, AsksOnceForTheReadersNumberAfterAFailedCommand) {
    const auto late = rsp("4B 01");
    const struct {
        std::function<void()> firstCommand;
        std::vector<Bytes> frames;  ///< That come after the number was asked for.
        short status = kBflOk;
    } cases[] = {
        {[] {}, {}},
        {[&] { script->readGives(kDeviceTimedOut); }, {ack(), late, ack(), rsp("25 00")}},
        {[&] { script->readGives(kDeviceTimedOut); }, {ack(), errorFrame(), ack(), errorFrame()}},
        {[&] { script->readGives(kDeviceTimedOut); }, {hex("00 00 FF FF 00 00"), late, {}, ack(), rsp("25")}},
        {[&] { script->answers(ack()).readGives(kDeviceTimedOut); }, {ack(), errorFrame()}},
        {[&] { script->answers(ack()).readGives(kDeviceTimedOut); }, {late, ack(), rsp("25 14")}},
        {[&] { script->answers(ack()).answers(rsp("99")); }, {Bytes(1024, 0xFF), ack(), rsp("25 00")}},
        {[&] { script->answers(late); }, {late, ack(), rsp("25 00")}},
        {[&] { script->answers(ack()).readGives(kDeviceFailed); }, {late, ack(), rsp("25 00")}},
    };
    for (const auto& c : cases) {
        script->expects({});
        c.firstCommand();
        const bool fails = !c.frames.empty();
        if (!fails) script->answers(ack()).answers(rsp("4B 00"));
        EXPECT_EQ(command() != kBflOk, fails);
        if (fails) script->expects(cmd("24"));
        for (const Bytes& each : c.frames)
            script->answers(each);
        script->dialogue("4A 01 00", "4B 00");
        EXPECT_EQ(command(), kBflOk) << &c - cases;
        EXPECT_EQ(script->discarded, &c - cases) << "a clean dialogue pays nothing";
    }
    script->expects(cmd("24")).readGives(kDeviceTimedOut);
    EXPECT_EQ(command("24"), kBflDeviceTimedOut);
    script->expects(cmd("02")).readGives(kDeviceTimedOut);  // a late reply to 24 is not taken for its own
    EXPECT_EQ(command(), kBflDeviceTimedOut);
    script->expects(cmd("24")).answers(rsp("03 04")).answers(rsp("25 00")).dialogue("4A 01 00", "4B 00");
    EXPECT_EQ(command(), kBflOk);
}

TEST(TheScrambledPart, EndsWithTheDataAndWithWhatHasCome) {
    Bytes bytes = rsp("4B 01 02 03");
    EXPECT_EQ(tama::scrambledPart(bytes).size(), 3u);
    bytes.resize(9);
    EXPECT_EQ(tama::scrambledPart(bytes).size(), 2u);
    bytes[3] = 2;
    EXPECT_TRUE(tama::scrambledPart(bytes).empty());
}

TEST_F(Link, GoesOnWithoutAKeyAfterADamagedAgreement) {
    Bytes damaged = rsp("1D");
    damaged[damaged.size() - 2] ^= 1;
    script->expects({}).answers(ack()).answers(damaged).writeFails(kDeviceFailed);
    EXPECT_EQ(driver->pcdConfig(), kBflDeviceFailed) << "that of the step after it";
}

TEST_F(Link, WipesTheReplyThatBringsTheSessionKey) {
    std::uint8_t last[16];
    nextKeyPoolValue(last);
    const auto challenge = md5(last);  // the next value of the pool
    const KeyValue confirmation = rotateKey(challenge.data());
    Bytes body = hex("1D 00");
    body.insert(body.end(), confirmation.begin(), confirmation.end());
    body.resize(24);
    body.resize(40, 0xA5);
    Bytes reply = frame(0xD5, body);
    LinkCipher cipher;
    cipher.setKey(confirmation.data());
    cipher.crypt(tama::scrambledPart(reply).data(), 39);
    script->expects({}).answers(ack()).answers(reply).writeFails(kDeviceFailed);
    EXPECT_EQ(driver->pcdConfig(), kBflDeviceFailed);
    EXPECT_EQ(script->written.back()[6], 0x1E) << "the agreement was sound";
    const auto* const object = reinterpret_cast<const std::uint8_t*>(driver.get());
    EXPECT_EQ(std::search_n(object, object + sizeof *driver, 16, 0xA5), object + sizeof *driver);
}

TEST(KeyMaterial, IsWipedAfterItsUse) {
    const Bytes key(16, 0x5A);
    CommandObject command;
    command.SetDataBuffer(key.data(), 16);
    command.AddParam(key.data(), 16);
    command.ResetBuffers();
    EXPECT_EQ(command.GetDataBuffer()[15] | command.GetCommandBuffer()[15], 0);
    alignas(Rc4) std::uint8_t room[sizeof(Rc4)] = {};
    Rc4* const stream = new (room) Rc4;
    stream->setKey(key);
    stream->~Rc4();
    EXPECT_LT(std::accumulate(std::begin(room), std::end(room), 0), 1000);
}

TEST(TheDriver, IsOneObjectForAllItsUsers) {
    NfcTamaBfl* raw = NfcTamaBfl::Instance();
    auto first = NfcTamaBfl::acquire(), second = NfcTamaBfl::acquire();
    EXPECT_EQ(first.get(), raw);
    EXPECT_EQ(second.get(), raw);
    first.reset();
    EXPECT_EQ(NfcTamaBfl::Instance(), raw);
    second.reset();
    Qvl14443bfl* next = NfcTamaBfl::Instance();
    EXPECT_EQ(next->getBflType(), BflTypeNfcTama);
    delete next;
}

}  // namespace

// One command over the link: frame, ACK, reply, checks, scrambling, key agreement and key change.

#include "ScriptedDevice.h"

#include "KeyPool.h"
#include "LinkCipher.h"
#include "Md5.h"
#include "NfcTamaBfl.h"

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

namespace {

/// The second of the day decides after how many commands the key changes: waits for one that leaves room for a script.
std::shared_ptr<NfcTamaBfl> driverWithALongInterval() {
    constexpr int kLongestScript = 12;
    while (nextRekeyInterval() <= kLongestScript)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    return NfcTamaBfl::acquire();
}

class Link : public ScriptedDriver {
  protected:
    Link() : driver(driverWithALongInterval()) { driver->interfaceOpen(49, 0); }

    short command(const std::string& text) {
        Bytes bytes = hex(text);
        return driver->tamaCommand(bytes.data(), static_cast<int>(bytes.size()));
    }

    std::shared_ptr<NfcTamaBfl> driver;
};

std::string hexOf(std::span<const std::uint8_t> bytes) {
    static const char* const kDigits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t b : bytes) {
        text += kDigits[b >> 4];
        text += kDigits[b & 15];
    }
    return text;
}

TEST(Md5, GivesThePublishedDigests) {  // RFC 1321, A.5
    const std::pair<std::string, std::string> cases[] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"}};
    for (const auto& [text, digest] : cases)
        EXPECT_EQ(hexOf(md5({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()})), digest) << text;
}

TEST(KeyPool, RotatesEachByteByItsNeighbour) {
    std::uint8_t value[16] = {0x81, 0x03, 0x81, 0x03, 0x41, 0x00, 0xFF, 0x07, 0x80};
    const KeyValue rotated = rotateKey(value);
    // 81 by its own 1 to the right; 03 by 1 to the left; 81 by 3 to the right; 03 by 1; 41 by 3 to the left; ...
    const Bytes expected = hex("C0 06 30 06 0A 00 FF 83 01 00 00 00 00 00 00 00");
    EXPECT_TRUE(std::equal(rotated.begin(), rotated.end(), expected.begin())) << hexOf(rotated);
}

TEST(KeyPool, GivesANewValueEachTime) {
    seedKeyPool();
    std::uint8_t first[16], second[16];
    nextKeyPoolValue(first);
    nextKeyPoolValue(second);
    EXPECT_FALSE(std::equal(first, first + 16, second));
    const auto stirred = md5(first);
    EXPECT_TRUE(std::equal(stirred.begin(), stirred.end(), second));
    for (int i = 0; i < 100; ++i) {
        const int interval = nextRekeyInterval();
        EXPECT_TRUE(interval >= 1 && interval <= 168) << interval;
    }
}

TEST(LinkCipherTest, TheZeroKeyLeavesDataAlone) {
    LinkCipher cipher;
    Bytes data = hex("01 02 03");
    cipher.crypt(data.data(), 3);
    EXPECT_EQ(data, hex("01 02 03"));
    const Bytes key(16, 0x5A);
    cipher.setKey(key.data());
    cipher.crypt(data.data(), 0);
    cipher.crypt(data.data(), 3);
    EXPECT_NE(data, hex("01 02 03"));
    cipher.setKey(key.data());
    cipher.crypt(data.data(), 3);
    EXPECT_EQ(data, hex("01 02 03"));
    cipher.setKey(nullptr);
    EXPECT_FALSE(cipher.hasKey());
}

TEST_F(Link, SendsThePlainFrameInTheClear) {
    script->expects(hex("00 00 FF 04 FC D4 4A 01 00 E1 00")).answers(ack()).answers(rsp("4B 00"));
    EXPECT_EQ(command("4A 01 00"), kBflOk);
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

struct BadAnswer {
    const char* what;
    Bytes ackFrame;
    Bytes reply;
    short status;
};

TEST_F(Link, RefusesWhatIsNoAckOrNoReply) {
    Bytes goodReply = rsp("41 00 11 22");
    const auto with = [&goodReply](std::size_t offset, std::uint8_t value) {
        Bytes bad = goodReply;
        bad[offset] = value;
        return bad;
    };
    const std::uint8_t lenWithoutDcs = 0x05;
    Bytes wrongDcs = goodReply;
    ++wrongDcs[wrongDcs.size() - 2];
    Bytes tooShort(goodReply.begin(), goodReply.end() - 1);
    Bytes tooLong = goodReply;
    tooLong.push_back(0);
    const std::vector<BadAnswer> cases = {
        {"a NACK", hex("00 00 FF FF 00 00"), {}, kBflBadFrame},
        {"an ACK of 5 bytes", hex("00 00 FF 00 FF"), {}, kBflBadFrame},
        {"nothing", {}, {}, kBflBadFrame},
        {"a reply for an ACK", goodReply, {}, kBflBadFrame},
        {"ERROR", ack(), errorFrame(), kBflErrorFrame},
        {"nothing for a reply", ack(), {}, kBflBadStart},
        {"preamble", ack(), with(0, 1), kBflBadStart},
        {"start code", ack(), with(2, 0xFE), kBflBadStart},
        {"LCS", ack(), with(4, 0), kBflBadFrame},
        {"LEN of another frame", ack(), with(3, lenWithoutDcs - 1), kBflBadFrame},
        {"too short", ack(), tooShort, kBflBadFrame},
        {"too long", ack(), tooLong, kBflBadFrame},
        {"DCS", ack(), wrongDcs, kBflBadFrame},
        {"TFI", ack(), frame(0xD4, hex("41 00 11 22")), kBflBadFrame},
        {"reply to another command", ack(), rsp("4B 00"), kBflBadFrame},
        {"ERROR frame with another code", ack(), hex("00 00 FF 01 FF 7E 82 00"), kBflBadFrame},
        {"no status byte", ack(), rsp("41"), kBflBadFrame},
        {"the reader's status", ack(), rsp("41 14"), 0x14},
    };
    for (const BadAnswer& bad : cases) {
        script->expects({}).answers(bad.ackFrame);
        if (bad.ackFrame == ack()) script->answers(bad.reply);
        EXPECT_EQ(command("40 01 30 04"), bad.status) << bad.what;
    }
}

TEST_F(Link, CountsFramesAboveTheBufferOnlyAsBad) {
    const Bytes piece(1024, 0xAA);
    for (const std::uint32_t reported : {1024u, 1025u, 65545u}) {
        script->expects({}).readGives(kDeviceOk, piece, reported);
        EXPECT_EQ(command("4A 01 00"), kBflBadFrame) << "as ACK, " << reported;
        script->expects({}).answers(ack()).readGives(kDeviceOk, piece, reported);
        EXPECT_EQ(command("4A 01 00"), kBflBadStart) << "as reply, " << reported;
    }
}

TEST_F(Link, TellsAFailedDeviceFromASilentOne) {
    script->expects({}).readGives(kDeviceTimedOut);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    script->expects({}).answers(ack()).readGives(kDeviceTimedOut, hex("00 00 FF"));
    EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    script->expects({}).answers(ack()).readGives(kDeviceFailed);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceFailed);
    script->writeFails(kDeviceFailed);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceFailed) << "one failure is not the end";
    script->gone = true;
    script->writeFails(kDeviceFailed);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceFailed);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceFailed) << "a device that is gone is not asked again";
    script->gone = false;
    driver->interfaceOpen(49, 0);
    script->writeFails(kDeviceFailed);
    EXPECT_EQ(command("4A 01 00"), kBflDeviceFailed);
    driver->interfaceClose();
    EXPECT_EQ(command("4A 01 00"), kBflNoDevice);
}

TEST_F(Link, GivesASilentReaderUpUntilTheNextOperation) {
    for (int i = 0; i < 3; ++i) {
        script->expects({}).readGives(kDeviceTimedOut);
        EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    }
    const std::size_t sent = script->written.size();
    EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    EXPECT_EQ(script->written.size(), sent) << "the fourth command is not sent";
    driver->operationBegins();
    script->dialogue("4A 01 00", "4B 00");
    EXPECT_EQ(command("4A 01 00"), kBflOk);
    for (int i = 0; i < 3; ++i) {
        script->expects({}).answers(ack()).readGives(kDeviceTimedOut);
        EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut) << "an ACK alone is no sign of life";
    }
    EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    EXPECT_TRUE(script->finished());
}

TEST_F(Link, DropsWhatIsLeftOverBeforeTheNextCommand) {
    script->dialogue("4A 01 00", "4B 00");
    EXPECT_EQ(command("4A 01 00"), kBflOk);
    EXPECT_EQ(script->discarded, 0) << "a clean dialogue pays nothing";
    script->expects({}).readGives(kDeviceTimedOut).dialogue("4A 01 00", "4B 00").dialogue("4A 01 00", "4B 00");
    EXPECT_EQ(command("4A 01 00"), kBflDeviceTimedOut);
    EXPECT_EQ(command("4A 01 00"), kBflOk);
    EXPECT_EQ(command("4A 01 00"), kBflOk);
    EXPECT_EQ(script->discarded, 1);
}

/// The reader's half of the key agreement, worked out here.
class KeyedLink : public Link {
  protected:
    void playAgreement(const Bytes& sessionKey) {
        // The challenge is known only when it has been written, so the script is completed on the way.
        setTamaDeviceFactory([this, sessionKey](const TamaDeviceRequest&) {
            return std::make_unique<AgreeingDevice>(script, sessionKey);
        });
        driver->interfaceOpen(49, 0);
    }

    class AgreeingDevice : public ScriptedDevice {
      public:
        AgreeingDevice(std::shared_ptr<Script> s, Bytes key)
            : ScriptedDevice(s), mShared(std::move(s)), mKey(std::move(key)) {}
        std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                         std::uint32_t timeout) override {
            if (len == 25 && data[6] == 0x1C) {  // the 17-byte form
                const KeyValue k = rotateKey(data + 7);
                Bytes body = hex("1D 00");
                body.insert(body.end(), k.begin(), k.end());
                body.insert(body.end(), 6, 0xEE);
                body.insert(body.end(), mKey.begin(), mKey.end());
                Bytes reply = frame(0xD5, body);
                LinkCipher cipher;
                cipher.setKey(k.data());
                cipher.crypt(reply.data() + 7, static_cast<int>(body.size()) - 1);
                mShared->steps.push_front({Step::kRead, reply});
                mShared->steps.push_front({Step::kRead, ack()});
                mShared->steps.push_front({Step::kWrite, {}});
            }
            return ScriptedDevice::WriteBytesUnblocked(data, len, count, timeout);
        }

      private:
        std::shared_ptr<Script> mShared;
        Bytes mKey;
    };

    /// A scrambled reply under the stream that both sides share.
    Bytes scrambled(Bytes whole, LinkCipher& stream) {
        stream.crypt(whole.data() + 7, whole[3] - 2);
        return whole;
    }
    void playConfig(LinkCipher& reader) {
        // What the host scrambles runs over the same stream, so the reader follows it byte by byte.
        const auto follow = [&](std::size_t dataBytes, const std::string& reply) {
            Bytes skipped(dataBytes);
            reader.crypt(skipped.data(), static_cast<int>(dataBytes));
            script->expects({}).answers(ack()).answers(scrambled(rsp(reply), reader));
        };
        follow(16, "1F 00");
        for (const std::size_t size : {2u, 4u, 2u, 4u})
            follow(size, "33");
        follow(1, "13");
    }
};

TEST_F(KeyedLink, ScramblesBothWaysWithOneStream) {
    const Bytes session(16, 0x77);
    playAgreement(session);
    LinkCipher reader;
    reader.setKey(session.data());
    playConfig(reader);
    ASSERT_EQ(driver->pcdConfig(), kBflOk);

    // The command of one byte takes nothing from the stream and equals its plain frame.
    script->expects(cmd("24")).answers(ack()).answers(scrambled(rsp("25 27"), reader));
    EXPECT_EQ(command("24"), kBflOk);
    Bytes listed = cmd("4A 01 00");
    const std::uint8_t plainDcs = listed[listed.size() - 2];
    script->expects(scrambled(listed, reader)).answers(ack()).answers(scrambled(rsp("4B 00"), reader));
    EXPECT_EQ(command("4A 01 00"), kBflOk);
    EXPECT_EQ(script->written.back()[9], plainDcs) << "the checksum is that of the plain bytes";
}

TEST_F(KeyedLink, RunsInTheClearAfterAnErrorOrAZeroKey) {
    playAgreement(Bytes(16, 0x00));
    for (int i = 0; i < 6; ++i)
        script->expects({}).answers(ack()).answers(i == 0 ? rsp("1F 00") : i == 5 ? rsp("13") : rsp("33"));
    EXPECT_EQ(driver->pcdConfig(), kBflOk);
    script->dialogue("4A 01 00", "4B 00");
    EXPECT_EQ(command("4A 01 00"), kBflOk);
}

TEST_F(Link, ServesAReaderThatDoesNotKnowTheKeyCommand) {
    script->expects({}).answers(ack()).answers(errorFrame());
    for (const char* config : {"32 01 01", "32 02 00 0B 0C", "32 04 05", "32 05 05 05 05"})
        script->dialogue(config, "33");
    script->dialogue("12 0C", "13");
    EXPECT_EQ(driver->pcdConfig(), kBflOk);
}

TEST_F(KeyedLink, ChangesTheKeyAtTheInterval) {
    const Bytes session(16, 0x21);
    playAgreement(session);
    LinkCipher reader;
    reader.setKey(session.data());
    playConfig(reader);
    ASSERT_EQ(driver->pcdConfig(), kBflOk);

    // At the latest after 168 commands the host asks for a new key under the old one.
    int changes = 0;
    const Bytes next(16, 0x42);
    for (int i = 0; i < 168 && changes == 0; ++i) {
        script->expects({}).answers(ack()).answers(scrambled(rsp("25 27"), reader));
        // Whether the change comes with this command shows only in what is written next.
        LinkCipher after = reader;
        Bytes body = hex("1D 00");
        body.insert(body.end(), next.begin(), next.end());
        const Bytes keyReply = scrambled(frame(0xD5, body), after);
        script->expects(cmd("1C")).answers(ack()).answers(keyReply);
        ASSERT_EQ(command("24"), kBflOk);
        changes = script->finished() ? 1 : 0;
        if (changes == 0) script->steps.clear();
    }
    ASSERT_EQ(changes, 1);
    reader.setKey(next.data());
    script->expects(cmd("24")).answers(ack()).answers(scrambled(rsp("25 27"), reader));
    EXPECT_EQ(command("24"), kBflOk);
}

TEST_F(Link, EndsTheAgreementOnARefusal) {
    script->expects({}).answers(ack()).answers(rsp("1D 00"));  // not even scrambled: fails its checks
    for (const char* config : {"32 01 01", "32 02 00 0B 0C", "32 04 05", "32 05 05 05 05"})
        script->expects({}).answers(ack()).answers(rsp("33")), static_cast<void>(config);
    script->expects({}).answers(ack()).answers(rsp("13"));
    EXPECT_EQ(driver->pcdConfig(), kBflOk) << "a failed agreement is none, and the rest goes on";
}

TEST(TheDriver, IsOneObjectForAllItsUsers) {
    NfcTamaBfl* raw = NfcTamaBfl::Instance();
    EXPECT_EQ(raw, NfcTamaBfl::Instance());
    auto first = NfcTamaBfl::acquire();
    auto second = NfcTamaBfl::acquire();
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

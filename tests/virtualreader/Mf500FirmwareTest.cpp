// The MF RC500 reader, message by message on a link in the clear.

#include "CommandDoor.h"
#include "Dialogue.h"
#include "HostCalcCrc.h"
#include "VirtualMf500Reader.h"

#include <set>

namespace {

/// A host that tells the replies as text, one after the other; those that come late have their delay in front.
class Mf500Messages : public ::testing::Test, protected ReaderSink {
  protected:
    Mf500Messages() {
        reader.connect(this);
        speak("20 05 00 > 00 00");
    }
    std::string ask(std::string_view message) {
        heard.clear();
        reader.receive(hex(message));
        return heard;
    }
    void speak(std::string_view dialogue) {
        ::speak(dialogue, [this](std::string_view message) { return ask(message); });
    }
    /// What a card answers to a block, its CRC checked and removed; or the reply that reports a failure.
    std::string exchange(std::string_view digits) {
        const Bytes block = hex(digits);
        const auto size = static_cast<std::uint16_t>(block.size() + 2);
        const std::uint8_t length[] = {static_cast<std::uint8_t>(size), static_cast<std::uint8_t>(size >> 8)};
        const Bytes reply = hex(ask("48" + text(length) + "01 00000000" + std::string(digits) + "0000"));
        if (reply.size() < 6 || reply[0] != 0) return heard;
        std::uint8_t crc[2];
        HostCalcCrc(0, static_cast<std::uint32_t>(reply.size() - 6), reply.data() + 4, crc);
        EXPECT_TRUE(std::equal(crc, crc + 2, reply.end() - 2) && reply[2] + 256u * reply[3] == reply.size() - 4);
        return text(std::span(reply).subspan(4, reply.size() - 6));
    }

    VirtualMf500Reader reader{{.knowsLinkKey = false}};

  private:
    void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) override {
        heard += (heard.empty() ? "" : ", ") + (delayMs != 0 ? std::to_string(delayMs) + " ms: " : "") + text(frame);
    }
    void onBabble() override { ADD_FAILURE(); }
    void onQuiet() override {}
    std::string heard;
};

TEST_F(Mf500Messages, OfTheReaderItself) {
    speak("64 > 00 00 30 88 F8 00 00; 63 > 00 00 0E 00 4D 46 20 52 43 35 30 30 20 32 2E 31 2E 33; 46 02 01 > 00 00; "
          "16 A0A1A2A3A4A5 > 00 00 5A F0 5A E1 5A D2 5A C3 5A B4 5A A5; 47 > 00 00 02 08 03 03 09; 45 > 00 00; "
          "47 > 00 00 02 08 03 03 00; 22 > 00 00 2A 00 00 01; 20 00 00 > 00 00");
    EXPECT_FALSE(reader.isFieldOn());
    speak("20 05 00 > 00 00");
    EXPECT_TRUE(reader.isFieldOn());
}

/// Unknown commands, wrong lengths, values out of range.
TEST_F(Mf500Messages, ThatHostsShouldNotSend) {
    speak("77 > E9 FF; 09 > E9 FF; 09 01 > E9 FF; 22 00 > C4 FF {0*4}; 41 93 21 00000000 > C4 FF {0*4}; "
          "41 94 00 00000000 > C4 FF {0*4}; 11 > C4 FF 00 00; 11 27 > C4 FF 00 00; 10 01 > C4 FF; 20 > C4 FF; "
          "48 0900 01 00000000 010203 > C4 FF 00 00; 48 0000 01 00000000 > CD FF 00 00; 46 04 00 > CB FF; "
          "1B C3 04 00000000 04 > C4 FF; 44 00 04 01 02 > C4 FF {0*3}; 44 00 05 0102030405 > FF FF {0*3}; "
          "18 60 01020304 000000000000000000000000 04 > F7 FF");
    EXPECT_EQ(ask(""), "");
    EXPECT_EQ(exchange(text(Bytes(255))), "CD FF 00 00");
}

TEST_F(Mf500Messages, SeparateTagsWhoseUidsBeginAlike) {
    constexpr std::uint8_t kKnownBits[] = {0, 7, 13, 24, 31, 32};
    const std::vector<const char*> kSets[] = {
        {"01020304"},
        {"01020304", "01020384", "01020305"},
        {"11223344", "04010203040506", "04010203040506070809"},
        {"04010203040506", "04010203040586", "04010243040506"},
        {"04010203040506070809", "0401020304050607080A", "04010203040506070909"},
    };
    for (const auto& uids : kSets) {
        reader.field().clear();
        std::set<std::string> placed, found;
        for (const char* uid : uids) {
            reader.field().place(std::make_shared<SmartCard>(hex(uid), hex("7577810280")));
            placed.insert(text(hex(uid)));
        }
        for (std::size_t i = 0; i < uids.size(); ++i) {
            found.insert(ask("43 00").substr(18));
            speak("1D > 00 00");
        }
        EXPECT_EQ(found, placed);
        for (const char* digits : uids) {
            speak("43 00 > FF FF {0*4}; 11 26 > FF FF 00 00");  // All are halted.
            EXPECT_TRUE(ask("11 52").starts_with("00 00"));
            const Bytes uid = hex(digits);
            for (std::size_t level = 0, levels = uid.size() / 3; level < levels; ++level) {
                const bool isLast = level + 1 == levels;
                const std::string code = std::to_string(93 + 2 * level);
                Bytes part(uid.begin() + static_cast<std::ptrdiff_t>(3 * level), uid.end());
                if (!isLast) part.insert(part.begin(), 0x88);
                part.resize(4);
                for (const std::uint8_t& known : kKnownBits)
                    EXPECT_TRUE(ask("41" + code + text({&known, 1}) + text(part))
                                    .starts_with("00 00 " + text(std::span(part).first(known / 8u))));
                Bytes nobodys = part;
                nobodys[0] ^= 0x55;
                EXPECT_EQ(ask("41" + code + "08" + text(nobodys)), "FF FF 00 00 00 00");
                EXPECT_EQ(ask("42" + code + text(part)), isLast ? "00 00 20" : "00 00 04");
            }
            speak("1D > 00 00");
            const auto length = static_cast<std::uint8_t>(uid.size());
            const Bytes woken = hex(ask("44 00" + text({&length, 1}) + digits));
            ASSERT_EQ(woken.size(), 5u);
            EXPECT_EQ(woken[4], 0x20);
            EXPECT_TRUE(woken[2] & (length == 4 ? 0x04 : length == 7 ? 0x40 : 0x80)) << "laid over the others";
            speak("1D > 00 00; 44 00 04 09090909 > FF FF {0*3}");
        }
    }
}

TEST_F(Mf500Messages, ReadWriteAndCountOnAClassic) {
    const auto tag =
        std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, hex("DEADBEEF")), hex("DEADBEEF"));
    reader.field().place(tag);
    const std::string wake = "44 00 04 DEADBEEF > 00 00 04 00 08; ", drop = wake + "19 04 > F6 FF {0*16}; ";
    const std::string value = "05 00 00 00 FA FF FF FF 05 00 00 00 04 FB 04 FB";
    const std::string more = "07 00 00 00 F8 FF FF FF 07 00 00 00 04 FB 04 FB";
    speak(drop + "19 04 > FF FF {0*16}; " + wake + "18 60 DEADBEEF F05AF05AF05AF05AF05AF05A 04 > FC FF; " + wake +
          "18 61 DEADBEEF 0F0F0F0F0F0F0F0F0F0F0F0F 04 > 00 00; " + wake +
          "18 60 DEADBEEF 0F0F0F0F0F0F0F0F0F0F0F0F 04 > 00 00");
    speak("1A 05 101112131415161718191A1B1C1D1E1F > 00 00; 19 05 > 00 00 {16+16}; 1A 04 " + value + " > 00 00");
    speak("1B C1 04 02000000 04 > 00 00; 1B C2 04 02000000 06 > 00 00; 1B C0 04 02000000 04 > 00 00");
    speak("19 04 > 00 00 " + value + "; 19 06 > 00 00 " + more + "; 1B C1 05 02000000 05 > F6 FF");
    EXPECT_EQ(tag->memory()->writeCount(), 5u);
}

TEST_F(Mf500Messages, ExchangeBlocksWithACard) {
    reader.field().place(scriptedCard({0x08, 1, 2, 3}, hex("7877810280")));
    speak("44 00 04 08010203 > 00 00 04 00 20");
    std::string longest = "0B 01 80 01 " + counting(0, 248);
    ::speak("E0 81 > 06 78 77 81 02 80; D1 11 0A > D1; 0A 01 80 01 77 > 0A 01 80 01 77 90 00; " + longest + " > " +
                longest + " 90 00",
            [this](std::string_view block) { return exchange(block); });
    speak("48 0400 00 00000000 0A018000 > 00 00 04 00 0A 01 90 00; 11 52 > FF FF 00 00");  // No CRC either way.
    reader.addFault("block 1 pad 251");
    EXPECT_EQ(exchange("0B 01 80 00"), "ED FF 00 00");
    EXPECT_EQ(exchange("CA 01"), "CA 01");
    speak("11 26 > FF FF 00 00; 44 00 04 08010203 > 00 00 04 00 20");  // Deselected and halted.
}

TEST_F(Mf500Messages, AreAnsweredOrNotAsThePlanHasIt) {
    ASSERT_EQ(reader.addFaults("# a plan\n22 1 no answer\n\n  22 2 no reply # the second\n22 3 late reply\n"
                               "22 5 reply twice\n22 6 overdue 70\n"),
              "");
    speak("22 > ");
    EXPECT_EQ(reader.commandCount(0x22), 0u) << "lost on the way";
    speak("22 > ; 22 > ");
    EXPECT_EQ(reader.commandCount(0x22), 2u);
    speak("11 26 > 00 00 2A 00 00 01, FF FF 00 00; 22 > 00 00 2A 00 00 01; "
          "22 > 00 00 2A 00 00 01, 00 00 2A 00 00 01; 22 > 70 ms: 00 00 2A 00 00 01");
    for (const char* effect : {"no ack", "nack", "wrong ack", "late ack", "error", "endless", "wrong checksum",
                               "wrong code", "extended 20", "already awake"}) {
        const std::string complaint = reader.addFaults("22 1 short 1\n22 1 " + std::string(effect));
        EXPECT_TRUE(complaint.starts_with("line 2: \"") && complaint.ends_with("for this model of reader"))
            << complaint;
    }
    speak("22 > 00 00 2A 00 00 01");  // A text with a mistake is refused whole.
}

}  // namespace

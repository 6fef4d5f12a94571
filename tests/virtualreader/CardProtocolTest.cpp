#include "AirReader.h"
#include "Dialogue.h"
#include "TempDirectory.h"
#include "TestHost.h"

#include "CardScript.h"
#include "FaultPlan.h"
#include "SmartCard.h"
#include "TagImage.h"
#include "TagMemory.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
using State = VirtualTag::State;

std::unique_ptr<CardApplication> script(std::initializer_list<const char*> lines) {
    std::vector<CardRule> rules;
    for (const char* line : lines)
        EXPECT_EQ(parseCardRule(line, rules.emplace_back()), "") << line;
    return std::make_unique<CardScript>(std::move(rules));
}

/// A card that was selected, and who speaks to it. 64-byte frames, CID and NAD unless the ATS says otherwise.
struct Partner {
    explicit Partner(std::initializer_list<const char*> lines, std::string_view ats = "45 03")
        : card(hex("04A1B2C3D4E5F6"), hex(ats), script(lines)), reader(card) {
        card.setFaults(&faults);
        EXPECT_EQ(reader.select(), "20");
    }
    void speak(std::string_view dialogue) {
        ::speak(dialogue, [this](std::string_view block) { return reader.send(block); });
    }
    FaultPlan faults;
    SmartCard card;
    AirReader reader;
};

TEST(CardBlocks, AnswersGoOutInChainsThatFitTheReader) {
    Partner plain({"80 count 31"});
    // R-blocks with the card's own number ask for the last block again; a NAK with the other one whether it is there.
    plain.speak("E0 00 > 03 45 03; 02 80 > 12 {0+13}; A2 > 12 {0+13}; B2 > 12 {0+13}; A3 > 13 {13+13}; B2 > A3; "
                "A2 > 02 {26+5}; A3 > -; B2 > 02 {26+5}; 03 80 > 13 {0+13}; 02 00 > 02 6D 00; A3 > -");
    Partner numbered({"80 count 20"});  // Only the first block has the NAD.
    numbered.speak("E0 03 > 03 45 03; 0E 03 41 80 > 1E 03 14 {0+11}; AB 04 > -; A3 > -; AB 03 > 0B 03 {11+9}; "
                   "BA 03 > AB 03; C2 > -; CA 03 > CA 03; 0A 03 80 > -");
    EXPECT_EQ(numbered.card.state(), State::halted);
}

TEST(CardBlocks, CommandsComeInChainsAndTooLongOnesAreIgnored) {
    Partner card({"8012?? echo 9000", "* echo"}, "40 02");  // 16-byte frames, 14 of which are not CRC.
    card.speak("E0 80 > 03 40 02; 1A 05 8012 > AA 05; BA 05 > AA 05; BB 05 > AA 05; 1B 05 > AB 05; "
               "0A 05 7F > 0A 05 80 12 7F 90 00; 03 8012 > 03 80 12; 02 0102030405060708090A0B0C0D0E > -; "
               "02 0102030405060708090A0B0C0D > 02 {1+13}");
}

TEST(CardBlocks, TheCardAsksForTimeAndWaitsUntilItIsGranted) {
    Partner card({"80 9000 wtx 5x2", "81 count 20 wtx 59"});
    card.speak("E0 04 > 03 45 03; 0A 04 80 > FA 04 05; BA 04 > FA 04 05; 0B 04 80 > -; AB 04 > -; FA 04 06 > -; "
               "F2 05 > -; FA 04 05 05 > -; FA 04 05 > FA 04 05; FA 04 05 > 0A 04 90 00; FA 04 05 > -; "
               "BA 04 > 0A 04 90 00; 0B 04 81 > FA 04 3B; FA 04 3B > 1B 04 {0+12}; AA 04 > 0A 04 {12+8}; "
               "0B 04 80 > FA 04 05; CA 04 > CA 04");
    EXPECT_EQ(card.card.state(), State::halted);
}

TEST(CardBlocks, TheBitRateIsAgreedBeforeTheFirstBlockOnly) {
    Partner card({"80 9000"});
    card.speak("E0 51 > 03 45 03; D2 11 00 > -; D1 12 00 > -; D1 11 > -; D1 11 00 > D1; D1 11 00 > -; "
               "0A 01 80 > 0A 01 90 00; CA 01 > CA 01");
    EXPECT_EQ(card.reader.select(VirtualTag::Request::wupa), "20");
    card.speak("E0 51 > 03 45 03; 0A 01 80 > 0A 01 90 00; D1 11 00 > -; 0B 01 80 > 0B 01 90 00");
}

TEST(CardBlocks, CardNumbersDecideWhoseBlockItIs) {
    constexpr std::string_view kBoth = "75 77 81 02 80";
    Partner learning({}, kBoth), numbered({}, kBoth), strict({}, kBoth);
    Partner withoutCid({}, "40 00"), withNad({}, "40 01");
    // From the first block on it has that number, and may no longer be told a bit rate.
    learning.speak("E0 50 > 06 75 77 81 02 80; D0 11 00 > D0; 0A 03 00 > 0A 03 6D 00; D0 11 00 > -; 0B 04 00 > -; "
                   "CA 03 > CA 03");
    numbered.speak("E0 52 > 06 75 77 81 02 80; 02 00 > -; 0A 03 00 > -; 0A 02 00 > 0A 02 6D 00");
    strict.card.quirks().strictCid = true;
    strict.speak("E0 50 > 06 75 77 81 02 80; 0A 03 00 > -; 0A 00 00 > 0A 00 6D 00");
    withoutCid.speak("E0 50 > 03 40 00; 0A 00 00 > -; 06 00 00 > -");
    withoutCid.card.quirks().undeclaredCidTaken = true;
    withoutCid.speak("0A 00 00 > 0A 00 6D 00");
    withNad.speak("E0 50 > 03 40 01; 06 21 00 > 06 12 6D 00");
}

TEST(CardBlocks, ACardInTheProtocolHearsNoRequests) {
    Partner partner({});
    partner.speak("E0 50 > 03 45 03");
    std::uint16_t atqa = 0;
    EXPECT_FALSE(partner.card.request(VirtualTag::Request::wupa, atqa));
    partner.speak("02 00 > 02 6D 00");
    partner.card.fieldOff();
    partner.card.quirks().freshUid = true;
    partner.card.fieldOn();
    EXPECT_NE(text(partner.card.uid()), "04 A1 B2 C3 D4 E5 F6");
    EXPECT_EQ(partner.card.uid()[0], 0x08);
}

TEST(CardBlocks, WhatIsNoBlockOrNoSoundOneIsIgnored) {
    Partner card({"80 9000"});
    card.speak("E0 50 > 03 45 03");
    for (const char* damaged : {"", "0A", "06", "0E 00", "06 88 80", "A2 00", "A6", "B6 00", "C2 00", "F2", "F2 01"})
        EXPECT_EQ(card.reader.send(damaged), "-") << damaged;
    for (unsigned pcb = 0; pcb < 256; ++pcb) {
        const bool known = (pcb & 0xE2) == 0x02 || (pcb & 0xE6) == 0xA2 || (pcb & 0xF7) == 0xC2;
        const std::uint8_t block[] = {static_cast<std::uint8_t>(pcb), 0x00, 0x00};
        for (std::size_t length = 1; !known && length <= 3; ++length)
            EXPECT_EQ(card.reader.send(text({block, length})), "-") << text({block, length});
    }
    card.speak("02 80 > 02 90 00");
}

TEST(CardFaults, EachEffectOnTheAir) {
    constexpr std::pair<const char*, const char*> kEffects[] = {
        {"block 1 lost", "02 80 > -; B2 > 02 00 01 02"},
        {"block from 2 lost", "02 80 > 02 00 01 02; 03 80 > -; B3 > -"},
        {"block 1 late", "02 80 > -; 03 00 > 02 00 01 02; B3 > 03 6D 00"},
        {"block from 2 late", "02 80 > 02 00 01 02; 03 00 > -; 02 80 > 03 6D 00; 03 00 > 02 00 01 02"},
        {"block 2 previous", "02 80 > 02 00 01 02; 03 00 > 02 00 01 02; B3 > 03 6D 00"},
        {"block 1 previous", "02 80 > -"},
        {"block 1 xor 2 0F", "02 80 > 02 00 0E 02; B2 > 02 00 01 02"},
        {"block 1 xor 4 0F", "02 80 > 02 00 01 02"},
        {"block 1 cut 1", "02 80 > 02; B2 > 02 00 01 02"},
        {"block 1 cut 0", "02 80 > -"},
        {"block 1 cut 9", "02 80 > 02 00 01 02"},
        {"block 1 pad 2", "02 80 > 02 00 01 02 00 00"},
        {"block 1 wrong number", "02 80 > 03 00 01 02; B2 > 02 00 01 02"},
        {"block 1 wrong number", "1A 05 80 > AB 05; BA 05 > AA 05"},
        {"block 1 ack", "0A 05 80 > AA 05; BA 05 > 0A 05 00 01 02"},
        {"block 1 pcb E2", "02 80 > E2 00 01 02"},
        {"block 1 wtx 60", "02 80 > F2 3C; B2 > F2 3C; F2 3C > 02 00 01 02"},
        {"block 1 wtx 9", "1A 05 80 > FA 05 09; FA 05 09 > AA 05; 0B 05 > 0B 05 00 01 02"},
        {"block 1 wtx 9", "02 81 > F2 09; F2 09 > 02 90 00"},
        {"block 2 wtx 9", "02 81 > F2 03; F2 03 > F2 09; F2 09 > 02 90 00"},
        {"block from 1 wtx 5", "02 80 > F2 05; F2 05 > F2 05; F2 05 > F2 05; C2 > C2"},
        {"block 1 empty chain", "0E 05 21 80 > 1E 05 12; AB 05 > 0B 05 00 01 02"},
        {"block 2 empty chain", "02 80 > 02 00 01 02; B2 > 12; A3 > 03 00 01 02"},
        {"block from 1 empty chain", "02 80 > 12; A3 > 13; A2 > 12; B2 > 12; A3 > 13; C2 > C2"},
        {"block 1 deaf", "02 80 > 02 00 01 02; 03 80 > -; B2 > -; C2 > -"},
        {"deselect 1 lost", "02 80 > 02 00 01 02; C2 > -; 03 80 > -"},
        {"deselect 1 stays awake", "02 80 > 02 00 01 02; C2 > C2; 03 80 > 03 00 01 02; C2 > C2; 02 80 > -"}};
    for (const auto& [rule, dialogue] : kEffects) {
        SCOPED_TRACE(rule);
        Partner partner({"80 000102", "81 9000 wtx 3"});
        EXPECT_EQ(partner.faults.addRule(rule), "");
        partner.speak("E0 50 > 03 45 03");
        partner.speak(dialogue);
    }
    Partner large({"80 9000"});
    large.faults.addRule("block 1 pad 1000");
    large.speak("E0 50 > 03 45 03");
    EXPECT_EQ(hex(large.reader.send("02 80")).size(), AirAnswer::kCapacity);
    large.speak("B2 > 02 90 00");
}

/// A .card file of a Type 4 Tag whose file has 24 bytes and an empty record in it, with answers of its own in front.
struct Type4 : ::testing::Test {
    Type4() {
        directory.write("empty.ndef", std::string("\0\3\xD0\0\0", 5) + std::string(19, '\0'));
        directory.write("more.script", "# more of them\nanswer 80CA??00 count 100 # long\n\nanswer 80CA* 6A88\n");
        path = directory.write("a.card", "kind card\nuid 01020304\nanswer 80CA0102 0102 9000 wtx 4\n"
                                         "script more.script\nndef empty.ndef\nanswer 00CB* echo\n");
        made = makeTag(path);
        EXPECT_EQ(made.message, "");
    }
    const TempDirectory directory;
    std::string path;
    MadeTag made;
};

TEST_F(Type4, CommandsAndStatusWords) {
    AirReader reader(*made.tag);
    reader.select();
    EXPECT_EQ(reader.send("E0 80"), "06 75 77 81 02 80");
    std::string pcb = "03";
    speak("00B0000001 > 69 86; 00A4000C02E104 > 6A 82; 00A4040007D276000085010000 > 6A 82; "
          "00A4040007D2760000850101 00 > 90 00; 00D6000001FF > 69 86; 00A4000C02E103 > 90 00; "
          "00B000000F > 00 0F 20 00 FF 00 FF 04 06 E1 04 00 18 00 00 90 00; 00D6000001FF > 69 82; "
          "00A4000C02E105 > 6A 82; 00B0000D00 > 00 00 90 00; 00A4000002E104 > 90 00; 00B0000002 > 00 03 90 00; "
          "00B0000203 > D0 00 00 90 00; 00B0001700 > 00 90 00; 00B0001800 > 6B 00; 00B0001702 > 67 00; "
          "00B0800001 > 6A 86; 00B00000 > 67 00; 00B000000000 > 67 00; 00A4020002E104 > 6A 86; "
          "00A4000C03E104 > 67 00; 00A4000C01E1 > 67 00; 00A4000C > 67 00; 00D6000200 > 67 00; "
          "00D6001801AA > 6B 00; 00D6001702AAAA > 67 00; 00D6FFFF01AA > 6A 86; 00D6000503D10000 > 90 00; "
          "00D6001702AA > 67 00; 00B0000306 > 00 00 D1 00 00 00 90 00; 80B0000001 > 6E 00; 00CA000000 > 6D 00; "
          "00A4 > 67 00; 00CB0102 > 00 CB 01 02; 80CA0202 > 6A 88",
          [&](std::string_view command) {
              pcb = pcb == "02" ? "03" : "02";
              const std::string answer = reader.send(pcb + std::string(command));
              return answer.starts_with(pcb + ' ') ? answer.substr(3) : "wrong block: " + answer;
          });
    EXPECT_EQ(reader.send("C2"), "C2");
    reader.select(VirtualTag::Request::wupa);
    reader.send("E0 80");
    EXPECT_EQ(reader.send("02 00B0000001"), "02 69 86") << "activation forgets the selection";
    EXPECT_EQ(reader.send("03 80CA0100"), "03 " + counting(0, 100)) << "the script comes after the line before it";
    EXPECT_EQ(reader.send("02 80CA0102"), "F2 04");
}

TEST_F(Type4, WhatIsWrittenGoesBackToItsFile) {
    const auto twin = made.tag->twin();
    const std::uint8_t record[] = {0x00, 0x00};
    made.tag->memory()->write(0, record);
    EXPECT_EQ(imagePathOf(path), directory / "empty.ndef");
    EXPECT_EQ(saveTag(*made.tag, imagePathOf(path)), "");
    EXPECT_EQ(directory.read("empty.ndef"), std::string("\0\0\xD0", 3) + std::string(21, '\0'));
    EXPECT_EQ(text(twin->memory()->at(0, 3)), "00 03 D0") << "a twin has a memory of its own";
}

TEST_F(Type4, BehindAReaderWithItsFaults) {
    const auto reader = std::make_shared<VirtualTamaReader>();
    TestHost host{reader};
    reader->field().place(made.tag);
    const auto under = [&](std::string_view rule, const char* command) {
        EXPECT_EQ(reader->addFault(rule), "");
        std::string reply = host(command);
        reader->clearFaults();
        return reply;
    };
    speak("4A 01 00 > 4B 01 01 04 00 20 04 01 02 03 04 06 75 77 81 02 80; 42 02 80CA0100 > 43 00 12 {0+61}; "
          "42 A3 > 43 00 03 {61+39}; 42 0A 05 80CA0102 > 43 00 FA 05 04; 42 FA 05 04 > 43 00 0A 05 01 02 90 00",
          host);
    EXPECT_EQ(under("block 1 lost", "42 0B 05 00CB"), "43 01");
    EXPECT_EQ(under("block 1 pad 300", "42 BB 05"), "43 07") << "more than a reply holds";
    EXPECT_EQ(host("42 BB 05"), "43 00 0B 05 00 CB");
    for (const char* select : {"42 02 00A4040007D2760000850101", "42 02 00A4000C02E104"})
        EXPECT_TRUE(host(select).ends_with(" 90 00"));
    EXPECT_EQ(under("write 1 torn 2", "42 02 00D6000A04AABBCCDD"), "43 01");
    EXPECT_EQ(text(made.tag->memory()->at(10, 4)), "AA BB 00 00");
    EXPECT_FALSE(reader->field().list()[0].present);
}

TEST(CardFiles, MistakesSayFileLineAndCause) {
    const TempDirectory directory;
    directory.write("tiny", std::string(4, '\0'));
    directory.write("vast", std::string(40000, '\0'));
    directory.write("raw", "\xD1\x01\x04U\x01x.y");
    directory.write("s", "answer 80 90\n\nkind card\n");
    directory.write("t", "answer 80 9\n");
    constexpr std::pair<std::string_view, const char*> kMistakes[] = {
        {"answer", "line 2: a pattern is missing, for instance"},
        {"answer 80", "line 2: a response is missing"},
        {"answer 80 wtx 5", "line 2: a response is missing"},
        {"answer 8 90", "line 2: \"8\" is no pattern"},
        {"answer 8?00 90", "line 2: \"8?00\" is no pattern"},
        {"answer 80*00 90", "line 2: \"80*00\" is no pattern"},
        {"answer 80 900", "line 2: \"900\" is no response"},
        {"answer 80 ??", "line 2: \"??\" is no response"},
        {"answer 80 count", "line 2: \"count\" takes a number of bytes, at most 131072"},
        {"answer 80 count 131073", "line 2: \"count\" takes"},
        {"answer 80 90 wtx", "line 2: \"wtx\" takes a multiplier, 1 to 59"},
        {"answer 80 90 wtx 60", "line 2: \"wtx\" takes"},
        {"answer 80 90 wtx 5x0", "line 2: \"wtx\" takes"},
        {"answer 80 90 wtx 5x", "line 2: \"wtx\" takes"},
        {"answer 80 90 wtx 5 00", "line 2: \"00\" is one word too many"},
        {"script", "line 2: \"script\" takes the name of a file"},
        {"script none", "none: there is no such file"},
        {"script s", "s: line 3: \"kind\" is unknown; a script has \"answer\" only"},
        {"script t", "t: line 1: \"9\" is no response"},
        {"ndef none", "none: there is no such file"},
        {"ndef tiny", "tiny: 4 bytes are no NDEF file of a Type 4 Tag; right are 5 to 32767"},
        {"ndef vast", "vast: 40000 bytes are no NDEF file"},
        {"ndef raw", "raw: the first two bytes announce a message of 53505 bytes, but only 6 follow"},
        {"answer 80 90\nkind mini", "\"answer\", \"script\" and \"ndef\" go with the kind \"card\" only"}};
    for (const auto& [line, complaint] : kMistakes) {
        const MadeTag made = makeTag(directory.write("a.card", "kind card\n" + std::string(line) + "\n"));
        EXPECT_EQ(made.tag, nullptr) << line;
        EXPECT_NE(made.message.find(complaint), std::string::npos) << made.message;
    }
}

}  // namespace

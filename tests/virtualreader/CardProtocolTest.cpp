#include "AirReader.h"
#include "TempDirectory.h"
#include "TestHost.h"

#include "CardScript.h"
#include "FaultPlan.h"
#include "SmartCard.h"
#include "TagImage.h"
#include "TagMemory.h"
#include "VirtualField.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
using State = VirtualTag::State;

std::string counting(std::size_t from, std::size_t count) {
    Bytes bytes(count);
    for (std::size_t i = 0; i < count; ++i)
        bytes[i] = static_cast<std::uint8_t>(from + i);
    return text(bytes);
}

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
    /// {from+count} stands for bytes that count up.
    static std::string spelled(std::string_view answer) {
        std::string all(answer);
        for (std::size_t at; (at = all.find('{')) != std::string::npos;) {
            std::size_t from = 0, count = 0;
            EXPECT_EQ(std::sscanf(all.c_str() + at, "{%zu+%zu}", &from, &count), 2) << answer;
            all.replace(at, all.find('}', at) + 1 - at, counting(from, count));
        }
        return all;
    }
    /// Steps "block > answer", one a line.
    void speak(std::string_view dialogue) {
        while (!dialogue.empty()) {
            const std::string_view step = dialogue.substr(0, dialogue.find('\n'));
            dialogue.remove_prefix(std::min(step.size() + 1, dialogue.size()));
            const std::size_t arrow = step.find(" > ");
            ASSERT_NE(arrow, std::string_view::npos) << step;
            EXPECT_EQ(reader.send(step.substr(0, arrow)), spelled(step.substr(arrow + 3))) << step;
        }
    }
    FaultPlan faults;
    SmartCard card;
    AirReader reader;
};

TEST(CardBlocks, AnswersGoOutInChainsThatFitTheReader) {
    Partner plain({"80 count 31"});
    plain.speak("E0 00 > 03 45 03\n"
                "02 80 > 12 {0+13}\n"
                "A2 > 12 {0+13}\n"  // Its own number: once more.
                "B2 > 12 {0+13}\n"
                "A3 > 13 {13+13}\n"
                "B2 > A3\n"  // The other number: it is there, and goes on all the same.
                "A2 > 02 {26+5}\n"
                "A3 > -\n"  // There is no more.
                "B2 > 02 {26+5}\n"
                "03 80 > 13 {0+13}\n"
                "02 00 > 02 6D 00\n");  // A new command ends the chain.
    Partner numbered({"80 count 20"});
    numbered.speak("E0 03 > 03 45 03\n"
                   "0E 03 41 80 > 1E 03 14 {0+11}\n"  // Only the first block has the NAD.
                   "AB 04 > -\n"
                   "A3 > -\n"
                   "AB 03 > 0B 03 {11+9}\n"
                   "BA 03 > AB 03\n"
                   "C2 > -\n"
                   "CA 03 > CA 03\n"
                   "0A 03 80 > -\n");
    EXPECT_EQ(numbered.card.state(), State::halted);
}

TEST(CardBlocks, CommandsComeInChainsAndTooLongOnesAreIgnored) {
    Partner card({"8012?? echo 9000", "* echo"}, "40 02");  // 16-byte frames, 14 of which are not CRC.
    card.speak("E0 80 > 03 40 02\n"
               "1A 05 8012 > AA 05\n"
               "BA 05 > AA 05\n"  // The acknowledgement was lost.
               "BB 05 > AA 05\n"
               "1B 05 > AB 05\n"  // A part may be empty.
               "0A 05 7F > 0A 05 80 12 7F 90 00\n"
               "03 8012 > 03 80 12\n"
               "02 0102030405060708090A0B0C0D0E > -\n"
               "02 0102030405060708090A0B0C0D > 02 01 02 03 04 05 06 07 08 09 0A 0B 0C 0D\n");
}

TEST(CardBlocks, TheCardAsksForTimeAndWaitsUntilItIsGranted) {
    Partner card({"80 9000 wtx 5x2", "81 count 20 wtx 59"});
    card.speak("E0 04 > 03 45 03\n"
               "0A 04 80 > FA 04 05\n"
               "BA 04 > FA 04 05\n"
               "0B 04 80 > -\n"  // No time for a command now,
               "AB 04 > -\n"     // nor is there a chain to go on with.
               "FA 04 06 > -\n"
               "F2 05 > -\n"
               "FA 04 05 05 > -\n"
               "FA 04 05 > FA 04 05\n"
               "FA 04 05 > 0A 04 90 00\n"
               "FA 04 05 > -\n"
               "BA 04 > 0A 04 90 00\n"
               "0B 04 81 > FA 04 3B\n"
               "FA 04 3B > 1B 04 {0+12}\n"
               "AA 04 > 0A 04 {12+8}\n"
               "0B 04 80 > FA 04 05\n"
               "CA 04 > CA 04\n");
    EXPECT_EQ(card.card.state(), State::halted);
}

TEST(CardBlocks, WhatIsNoBlockOrNoSoundOneIsIgnored) {
    Partner card({"80 9000"});
    card.speak("E0 50 > 03 45 03\n");
    for (const char* damaged : {"", "0A", "06", "0E 00", "06 88 80", "A2 00", "A6", "B6 00", "C2 00", "F2", "F2 01"})
        EXPECT_EQ(card.reader.send(damaged), "-") << damaged;
    for (unsigned pcb = 0; pcb < 256; ++pcb) {
        const bool known = (pcb & 0xE2) == 0x02 || (pcb & 0xE6) == 0xA2 || (pcb & 0xF7) == 0xC2;
        const std::uint8_t block[] = {static_cast<std::uint8_t>(pcb), 0x00, 0x00};
        for (std::size_t length = 1; !known && length <= 3; ++length)
            EXPECT_EQ(card.reader.send(text({block, length})), "-") << text({block, length});
    }
    card.speak("02 80 > 02 90 00\n");
}

/// A reader that knows no trouble: one command, one answer, in chains of the greatest blocks.
std::string transceive(AirReader& air, const Bytes& command, std::size_t commandFrame, std::size_t answerFrame) {
    Bytes answer;
    unsigned number = 0;
    std::string heard;
    for (std::size_t at = 0, part = 0; at == 0 || at < command.size(); at += part, number ^= 1) {
        part = std::min(commandFrame - 4, command.size() - at);
        Bytes block{static_cast<std::uint8_t>(0x0A | number | (at + part < command.size() ? 0x10 : 0)), 0x07};
        block.insert(block.end(), command.begin() + static_cast<std::ptrdiff_t>(at),
                     command.begin() + static_cast<std::ptrdiff_t>(at + part));
        heard = air.send(text(block));
        if (block[0] & 0x10) {
            const std::uint8_t receipt[] = {static_cast<std::uint8_t>(0xAA | number), 0x07};
            if (heard != text(receipt)) return "not acknowledged: " + heard;
        }
        if (part == 0) break;
    }
    for (number = command.empty() ? 0 : number ^ 1;; number ^= 1) {
        const Bytes block = hex(heard);
        const bool more = !block.empty() && (block[0] & 0x10);
        if (block.size() < 2 || (block[0] & 0xEF) != (0x0A | number) || block[1] != 0x07) return "wrong: " + heard;
        if (more ? block.size() != answerFrame - 2 : block.size() > answerFrame - 2) return "wrong size";
        answer.insert(answer.end(), block.begin() + 2, block.end());
        if (!more) return text(answer);
        const std::uint8_t receipt[] = {static_cast<std::uint8_t>(0xAA | (number ^ 1)), 0x07};
        heard = air.send(text(receipt));
    }
}

TEST(CardBlocks, EveryFrameSizeCarriesEveryLength) {
    constexpr std::size_t kSizes[] = {16, 24, 32, 40, 48, 64, 96, 128, 256, 512};
    for (unsigned index = 0; index < std::size(kSizes); ++index) {
        for (const std::size_t count : {std::size_t{0}, kSizes[index] - 4, kSizes[index] - 3, std::size_t{5000}}) {
            SCOPED_TRACE(std::to_string(kSizes[index]) + ", " + std::to_string(count));
            const std::uint8_t ats[] = {static_cast<std::uint8_t>(0x40 | (9 - index)), 0x02};
            const std::uint8_t rats[] = {0xE0, static_cast<std::uint8_t>(index << 4 | 7)};
            Partner partner({"* echo"}, text(ats));
            partner.reader.send(text(rats));
            const std::string content = counting(3, count);
            EXPECT_EQ(transceive(partner.reader, hex(content), kSizes[9 - index], kSizes[index]), content);
        }
    }
}

TEST(CardBlocks, SeveralCardsInOneFieldAnswerToTheirOwnNumbers) {
    VirtualField field;
    AirAnswer answer;
    const auto send = [&](std::string_view frame) {
        field.exchange(hex(frame), answer);
        return answer.kind() == AirAnswer::Kind::silence ? "-" : text(answer.bytes());
    };
    field.setOn(true);
    for (std::uint8_t number = 1; number <= 2; ++number) {
        const CascadePart part{0x0A, 0x0B, 0x0C, number, static_cast<std::uint8_t>(0x0A ^ 0x0B ^ 0x0C ^ number)};
        const char* const rule[] = {"", "80 0101", "80 0202"};
        field.place(std::make_shared<SmartCard>(std::span(part).first(4), hex("45 02"), script({rule[number]})));
    }
    for (std::uint8_t number = 1; number <= 2; ++number) {
        const CascadePart part{0x0A, 0x0B, 0x0C, number, static_cast<std::uint8_t>(0x0A ^ 0x0B ^ 0x0C ^ number)};
        const std::uint8_t rats[] = {0xE0, static_cast<std::uint8_t>(0x50 | number)};
        ASSERT_TRUE(field.request(VirtualTag::Request::reqa));
        ASSERT_TRUE(field.select(0, part));
        EXPECT_EQ(send(text(rats)), "03 45 02");
    }
    EXPECT_EQ(send("0A 02 80"), "0A 02 02 02");
    EXPECT_EQ(send("0A 01 80"), "0A 01 01 01");
    EXPECT_EQ(send("CA 01"), "CA 01");
    EXPECT_EQ(send("0B 01 80"), "-");
    EXPECT_EQ(send("0B 02 80"), "0B 02 02 02");
}

TEST(CardFaults, EachEffectOnTheAir) {
    constexpr struct {
        const char *rule, *dialogue;
    } kEffects[] = {
        {"block 1 lost", "02 80 > -\nB2 > 02 00 01 02"},
        {"block from 2 lost", "02 80 > 02 00 01 02\n03 80 > -\nB3 > -"},
        {"block 1 late", "02 80 > -\n03 00 > 02 00 01 02\nB3 > 03 6D 00"},
        {"block from 2 late", "02 80 > 02 00 01 02\n03 00 > -\n02 80 > 03 6D 00\n03 00 > 02 00 01 02"},
        {"block 2 previous", "02 80 > 02 00 01 02\n03 00 > 02 00 01 02\nB3 > 03 6D 00"},
        {"block 1 previous", "02 80 > -"},
        {"block 1 xor 2 0F", "02 80 > 02 00 0E 02\nB2 > 02 00 01 02"},
        {"block 1 xor 4 0F", "02 80 > 02 00 01 02"},
        {"block 1 cut 1", "02 80 > 02\nB2 > 02 00 01 02"},
        {"block 1 cut 0", "02 80 > -"},
        {"block 1 cut 9", "02 80 > 02 00 01 02"},
        {"block 1 pad 2", "02 80 > 02 00 01 02 00 00"},
        {"block 1 wrong number", "02 80 > 03 00 01 02\nB2 > 02 00 01 02"},
        {"block 1 wrong number", "1A 05 80 > AB 05\nBA 05 > AA 05"},
        {"block 1 ack", "0A 05 80 > AA 05\nBA 05 > 0A 05 00 01 02"},
        {"block 1 pcb E2", "02 80 > E2 00 01 02"},
        {"block 1 wtx 60", "02 80 > F2 3C\nB2 > F2 3C\nF2 3C > 02 00 01 02"},
        {"block 1 wtx 9", "1A 05 80 > FA 05 09\nFA 05 09 > AA 05\n0B 05 > 0B 05 00 01 02"},
        {"block 1 wtx 9", "02 81 > F2 09\nF2 09 > 02 90 00"},
        {"block 2 wtx 9", "02 81 > F2 03\nF2 03 > F2 09\nF2 09 > 02 90 00"},
        {"block from 1 wtx 5", "02 80 > F2 05\nF2 05 > F2 05\nF2 05 > F2 05\nC2 > C2"},
        {"block 1 empty chain", "0E 05 21 80 > 1E 05 12\nAB 05 > 0B 05 00 01 02"},
        {"block 2 empty chain", "02 80 > 02 00 01 02\nB2 > 12\nA3 > 03 00 01 02"},
        {"block from 1 empty chain", "02 80 > 12\nA3 > 13\nA2 > 12\nB2 > 12\nA3 > 13\nC2 > C2"},
        {"block 1 deaf", "02 80 > 02 00 01 02\n03 80 > -\nB2 > -\nC2 > -"},
        {"deselect 1 lost", "02 80 > 02 00 01 02\nC2 > -\n03 80 > -"},
        {"deselect 1 stays awake", "02 80 > 02 00 01 02\nC2 > C2\n03 80 > 03 00 01 02\nC2 > C2\n02 80 > -"},
    };
    for (const auto& each : kEffects) {
        SCOPED_TRACE(each.rule);
        Partner partner({"80 000102", "81 9000 wtx 3"});
        EXPECT_EQ(partner.faults.addRule(each.rule), "");
        partner.speak("E0 50 > 03 45 03\n");
        partner.speak(each.dialogue);
    }
    Partner large({"80 9000"});
    large.faults.addRule("block 1 pad 1000");
    large.speak("E0 50 > 03 45 03\n");
    EXPECT_EQ(hex(large.reader.send("02 80")).size(), AirAnswer::kCapacity);
    large.speak("B2 > 02 90 00\n");
}

TEST(CardFaults, ADeafCardHearsAgainInAnotherField) {
    Partner partner({"80 9000"});
    partner.faults.addRule("deselect 1 deaf");
    partner.speak("E0 50 > 03 45 03\n02 80 > 02 90 00\nC2 > C2\n");
    EXPECT_EQ(partner.reader.select(VirtualTag::Request::wupa), "no answer to the request");
    partner.card.fieldOff();
    partner.card.fieldOn();
    EXPECT_EQ(partner.reader.select(), "20");
    partner.speak("E0 50 > 03 45 03\n02 80 > 02 90 00\nC2 > C2\n");
    EXPECT_EQ(partner.reader.select(VirtualTag::Request::wupa), "20");
}

TEST(CardFaults, MistakesInRules) {
    constexpr struct {
        const char *rule, *complaint;
    } kMistakes[] = {
        {"blocks 1 lost", "\"blocks\" is no command: two hexadecimal digits, \"any\", \"write\", \"block\" or"},
        {"4A 1 lost", "\"lost\" goes with \"block\" and \"deselect\" only"},
        {"block 1 nack", "\"nack\" does not go with \"block\" and \"deselect\""},
        {"deselect 1 torn 3", "\"torn\" goes with \"write\" only"},
        {"block 1 wtx 256", "\"wtx\" takes a decimal number, at most 255"},
        {"block 1 pcb", "\"pcb\" takes a byte in hexadecimal"},
        {"block 1 gone", "\"gone\" is no effect; known are: xor, cut, pad, lost, late, previous, wrong number, ack, "},
    };
    for (const auto& each : kMistakes) {
        FaultPlan plan;
        const std::string complaint = plan.addRule(each.rule);
        EXPECT_TRUE(complaint.starts_with(each.complaint)) << complaint;
    }
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
    constexpr struct {
        const char *command, *answer;
    } kDialogue[] = {
        {"00B0000001", "69 86"},
        {"00A4000C02E104", "6A 82"},
        {"00A4040007D276000085010000", "6A 82"},
        {"00A4040007D2760000850101 00", "90 00"},
        {"00D6000001FF", "69 86"},
        {"00A4000C02E103", "90 00"},
        {"00B000000F", "00 0F 20 00 FF 00 FF 04 06 E1 04 00 18 00 00 90 00"},
        {"00D6000001FF", "69 82"},
        {"00A4000C02E105", "6A 82"},
        {"00B0000D00", "00 00 90 00"},
        {"00A4000002E104", "90 00"},
        {"00B0000002", "00 03 90 00"},
        {"00B0000203", "D0 00 00 90 00"},
        {"00B0001700", "00 90 00"},
        {"00B0001800", "6B 00"},
        {"00B0001702", "67 00"},
        {"00B0800001", "6A 86"},
        {"00B00000", "67 00"},
        {"00B000000000", "67 00"},
        {"00A4020002E104", "6A 86"},
        {"00A4000C03E104", "67 00"},
        {"00A4000C01E1", "67 00"},
        {"00A4000C", "67 00"},
        {"00D6000200", "67 00"},
        {"00D6001801AA", "6B 00"},
        {"00D6001702AAAA", "67 00"},
        {"00D6FFFF01AA", "6A 86"},
        {"00D6000503D10000", "90 00"},
        {"00D6001702AA", "67 00"},
        {"00B0000306", "00 00 D1 00 00 00 90 00"},
        {"80B0000001", "6E 00"},
        {"00CA000000", "6D 00"},
        {"00A4", "67 00"},
        {"00CB0102", "00 CB 01 02"},
        {"80CA0202", "6A 88"},
    };
    AirReader reader(*made.tag);
    reader.select();
    EXPECT_EQ(reader.send("E0 80"), "06 75 77 81 02 80");
    unsigned number = 0;
    for (const auto& step : kDialogue) {
        const std::string pcb = number ? "03" : "02";
        EXPECT_EQ(reader.send(pcb + step.command), pcb + " " + step.answer) << step.command;
        number ^= 1;
    }
    EXPECT_EQ(reader.send("C2"), "C2");
    reader.select(VirtualTag::Request::wupa);
    reader.send("E0 80");
    EXPECT_EQ(reader.send("02 00B0000001"), "02 69 86") << "activation forgets the selection";
    EXPECT_EQ(reader.send("03 80CA0100"), "03 " + counting(0, 100)) << "the script stands behind the line before it";
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
    EXPECT_EQ(host("4A 01 00"), "4B 01 01 04 00 20 04 01 02 03 04 06 75 77 81 02 80");
    EXPECT_EQ(host("42 02 80CA0100"), "43 00 12 " + counting(0, 61)) << "the reader takes frames of 64 bytes";
    EXPECT_EQ(host("42 A3"), "43 00 03 " + counting(61, 39));
    EXPECT_EQ(host("42 0A 05 80CA0102"), "43 00 FA 05 04");
    EXPECT_EQ(host("42 FA 05 04"), "43 00 0A 05 01 02 90 00");
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
    const struct {
        const char *line, *complaint;
    } kMistakes[] = {
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
        {"answer 80 90\nkind mini", "\"answer\", \"script\" and \"ndef\" go with the kind \"card\" only"},
    };
    for (const auto& each : kMistakes) {
        const MadeTag made = makeTag(directory.write("a.card", "kind card\n" + std::string(each.line) + "\n"));
        EXPECT_EQ(made.tag, nullptr) << each.line;
        EXPECT_NE(made.message.find(each.complaint), std::string::npos) << made.message;
    }
}

}  // namespace

// Smart cards and the chip of the reader: commands from everywhere they may come from, and what is made of the answers.

#include "HexBytes.h"
#include "QvltagFixture.h"

namespace {

constexpr const char* kUid = "04112233445566";

/// With an MF RC500 the library leaves the number 0 to cards that take none.
int firstCid() { return isMf500UnderTest() ? 1 : 0; }

std::string cardRows() {
    return "Card        04112233445566\nCID         " + std::to_string(firstCid()) +
           "\nATS         067577810280  (frames of 64 bytes, CID, no NAD)\nHistorical  80  .\n";
}

class ApduTest : public QvltagTest {
  protected:
    std::string card(const std::string& answers, const char* uid = kUid) {
        return place.write(std::string(uid) + ".card", std::string("kind card\nuid ") + uid + "\n" + answers);
    }
    Words apdu(const std::string& image, const Words& arguments) {
        return joined({"--no-wait", "--virtual", image, "apdu"}, arguments);
    }
    /// All objects after the one of the card.
    std::vector<Json> exchanges(const std::string& image, const Words& arguments, int status) {
        auto all = runJson(apdu(image, arguments), status);
        EXPECT_EQ(all.empty() ? "" : all[0].value("card", ""), kUid);
        if (!all.empty()) all.erase(all.begin());
        return all;
    }
    /// A Type 4 Tag with this message, in hexadecimal; `answers` come before its own.
    std::string type4(const std::string& message, const std::string& answers = {}) {
        const auto bytes = hex(message);
        std::string file{static_cast<char>(bytes.size() >> 8), static_cast<char>(bytes.size())};
        file.append(bytes.begin(), bytes.end());
        place.write("message.ndef", file + std::string(8, '\0'));
        return card(answers + "ndef message.ndef\n");
    }

    const std::string kSimple = "answer 00A40400* 9000\nanswer 00B0* 48656C6C6F 9000\n";
};

TEST_F(ApduTest, ShowsCardCommandsAndAnswers) {
    const Result text = run(apdu(card(kSimple + "answer 00CA* count 17 6282\n"),
                                 {"00:A4:04:00 07 d2760000850101 00", "00b0000005", "00CA0000"}));
    EXPECT_EQ(text.status, 1) << "the last status word is a warning";
    EXPECT_EQ(text.out, cardRows() + "> 00a4040007d276000085010100  ......v......\n"
                                     "< 9000  done\n"
                                     "> 00b0000005  .....\n"
                                     "< 48656c6c6f  Hello\n"
                                     "< 9000  done\n"
                                     "> 00ca0000  ....\n"
                                     "< 000102030405060708090a0b0c0d0e0f  ................\n"
                                     "< 10                                .\n"
                                     "< 6282  warning: the file or record ended before Le bytes were "
                                     "read\n");
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(
        runJson(apdu(card(kSimple), {"00b0000005"}), 0),
        (std::vector<Json>{
            {{"card", kUid},
             {"cid", firstCid()},
             {"ats", "067577810280"},
             {"frameSize", 64},
             {"takesCid", true},
             {"takesNad", false},
             {"historical", "80"}},
            {{"command", "00b0000005"}, {"data", "48656c6c6f"}, {"sw", "9000"}, {"meaning", "done"}, {"fine", true}}}));
}

TEST_F(ApduTest, SaysWhatStatusWordsMean) {
    const std::pair<std::string, const char*> kWords[] = {
        {"6110", "done, 16 more bytes"},     {"6100", "256 more bytes"},
        {"6c05", "wrong Le: 5 bytes would"}, {"63c3", "3 tries left"},
        {"6381", "the file is full"},        {"62f0", "memory is unchanged"},
        {"6a82", "file or application not"}, {"6982", "authenticate first"},
        {"69f0", "command not allowed"},     {"6e00", "class (CLA) not supported"},
        {"91ae", "the application's"},       {"1234", "no status word"},
    };
    std::string answers;
    Words commands;
    for (const auto& [word, meaning] : kWords) {
        answers += "answer 0001" + word + " " + word + "\n";
        commands.push_back("0001" + word);
    }
    const auto all = exactly(std::size(kWords), exchanges(card(answers), commands, 1));
    for (std::size_t i = 0; i < all.size(); ++i) {
        const auto& [word, meaning] = kWords[i];
        EXPECT_EQ(all[i].value("sw", ""), word);
        EXPECT_THAT(all[i].value("meaning", ""), HasSubstr(meaning));
        EXPECT_EQ(all[i]["fine"], Json(word.starts_with("61"))) << word;
    }
}

TEST_F(ApduTest, FollowGetsAllOfAnAnswer) {
    const std::string image = card("answer 81CA0000 0102 6102\nanswer 00C0000002 0304 6103\nanswer 00C0000003 05 9000\n"
                                   "answer 02CA0000 6101\nanswer 02C0000001 06 9000\n"
                                   "answer 00CB0000 6C03\nanswer 00CB000003 070809 9000\n"
                                   "answer 00CC000001FF00 6C02\nanswer 00CC000001FF02 0A0B 9000\n"
                                   "answer 00CD0000000000 6C00\nanswer 00CD0000000100 0C 9000\n"
                                   "answer 00CE* 6C01\nanswer 00CF0000 6101\nanswer 00C0000001 6101\n");
    const std::tuple<const char*, const char*, std::string, Words> kRows[] = {
        {"81ca0000", "0102030405", "9000", {"00c0000002", "00c0000003"}},
        {"02ca0000", "06", "9000", {"02c0000001"}},
        {"00cb0000", "070809", "9000", {"00cb000003"}},
        {"00cc000001ff00", "0a0b", "9000", {"00cc000001ff02"}},
        {"00cd0000000000", "0c", "9000", {"00cd0000000100"}},
        {"00ce000005", "", "6c01", {"00ce000001"}},
    };
    for (const auto& [command, data, sw, followUps] : kRows) {
        const Json object = only(exchanges(image, {command, "--follow"}, sw == "9000" ? 0 : 1));
        EXPECT_EQ(object.value("data", "none"), data) << command;
        EXPECT_EQ(object.value("sw", ""), sw) << command;
        EXPECT_EQ(object["followUps"], Json(followUps)) << command;
    }
    EXPECT_EQ(only(exchanges(image, {"00cf0000", "--follow"}, 0))["followUps"].size(), 512u) << "a card without end";
}

TEST_F(ApduTest, TakesScriptsAndPipes) {
    const std::string image = card(kSimple);
    const std::string lines = "# a session\n\n00 A4 04 00  # select\n 00:20:00:00\n00B0000005";
    const Words script{"--script", place.write("session.apdu", lines)};
    EXPECT_EQ(exchanges(image, script, 1).size(), 3u);
    const auto stopped = exactly(3, exchanges(image, {script[0], script[1], "--stop-on-error"}, 1));
    EXPECT_EQ(stopped[1].value("sw", ""), "6d00");
    EXPECT_EQ(stopped[2].value("note", ""), "1 more command not sent");

    for (const bool isWrong : {false, true}) {
        const auto child = start(apdu(image, {}));
        child->say(lines + (isWrong ? "\n00 B0 0q" : ""));
        child->close(ChildProgram::input);
        EXPECT_THAT(child->rest(), EndsWith("< 48656c6c6f  Hello\n< 9000  done\n"));
        EXPECT_EQ(child->rest(ChildProgram::errors).find("line 6: character 8, 'q',") != std::string::npos, isWrong);
        EXPECT_EQ(child->wait(), isWrong ? 2 : 1);
    }
}

TEST_F(ApduTest, NamesThePlaceOfAMistakeBeforeAnythingIsSent) {
    const std::pair<Words, std::string> kMistakes[] = {
        {{"00A40400", "00A4x400"}, "command 2: character 5, 'x', is no hexadecimal digit"},
        {{"00 A4 4 00"}, "command 1: the byte at character 7 lacks its second digit"},
        {{"00A404"}, "a command APDU begins with 4 bytes, CLA INS P1 P2; here are 3"},
        {{"--raw", ""}, "there are no bytes"},
        {{"--script", place.write("wrong.apdu", "00A40400\n# -\n00 A4 0-")}, "wrong.apdu, line 3: character 8, '-'"},
        {{"--script", place / "none.apdu"}, "none.apdu cannot be read: No such file"},
        {{"--script", place / "tmp"}, "tmp cannot be read: Is a directory"},
        {{"--ndef", "00A40400"}, "excludes"},
        {{"--raw", "--nad", "1", "60"}, "excludes"},
        {{"--nad", "256", "00A40400"}, "not in range"},
    };
    for (const auto& [arguments, meaning] : kMistakes) {
        const Json object = only(runJson(apdu("new:card", arguments), 2));
        EXPECT_EQ(object.value("error", ""), "usage");
        EXPECT_THAT(object.value("meaning", ""), HasSubstr(meaning));
    }
}

TEST_F(ApduTest, FindsTheWantedCardOnly) {
    const Words noCard = apdu("new:1k", {"00A40400"});
    EXPECT_EQ(only(runJson(noCard, 1)).value("reason", ""), "no tag");
    const std::string other = card("answer 00A4* 01 9000\n", "04F10101010101");
    const std::string wanted = card("answer 00A4* 02 9000\n");
    for (const Words& order : {Words{other, wanted}, Words{wanted, other}}) {
        const auto all = runJson(
            {"--virtual", order[0], "--virtual", order[1], "--wait", "20", "apdu", "--uid", kUid, "00A40400"}, 0);
        ASSERT_EQ(all.size(), 2u);
        EXPECT_EQ(all[0].value("card", ""), kUid);
        EXPECT_EQ(all[1].value("data", ""), "02");
    }
    const auto missing = runJson({"--virtual", other, "apdu", "--timeout", "0.2", "--uid", kUid, "00A40400"}, 1);
    EXPECT_EQ(missing.back().value("error", ""), "wait over");

    const auto reader = plugReaderIn();
    EXPECT_EQ(reader->ask("place " + other + " as other"), "ok other");
    EXPECT_EQ(reader->ask("place " + wanted + " as wanted"), "ok wanted");
    const auto child = start({"--wait", "20", "apdu", "--uid", kUid});
    EXPECT_THAT(child->line(), HasSubstr(kUid));
    EXPECT_THAT(reader->ask("list"), HasSubstr("  halted  ")) << "the other one answers first, and is put aside";
    child->close(ChildProgram::input);
    EXPECT_EQ(child->wait(), 0);
}

TEST_F(ApduTest, RawBytesHaveNoStatusWord) {
    const auto all = exchanges(card("answer 60 AF010203\nanswer 61 00\n"), {"--raw", "60", "61"}, 0);
    EXPECT_EQ(all, (std::vector<Json>{{{"command", "60"}, {"data", "af010203"}}, {{"command", "61"}, {"data", "00"}}}));
}

TEST_F(ApduTest, AnAnswerThatIsTooLongDoesNotSpillIntoTheNext) {
    const auto all =
        exactly(2, exchanges(card(kSimple + "answer 0099* count 9000 9000\n"), {"00990000", "00A40400"}, 1));
    EXPECT_EQ(all[0].value("error", ""), "answer too long");
    EXPECT_EQ(all[0].value("status", 0), -50);
    EXPECT_EQ(all[1].value("sw", ""), "9000");
}

TEST_F(ApduTest, DeselectsAfterWhateverHappened) {
    // The TAMA reader has commands for activation and deselection; to an MF RC500 both are blocks like any other.
    const bool isMf500 = isMf500UnderTest();
    const std::string firstCommand = isMf500 ? "fault 48 2 " : "fault 42 1 ";
    const std::string notDeselected = isMf500 ? "fault deselect from 1 lost" : "fault 44 from 1 status 14";
    const std::string complaint = isMf500 ? "no tag" : "reader status";
    const std::tuple<Words, Words, Words, int> kRows[] = {
        {{notDeselected}, {"00A40400"}, {"9000", complaint}, 1},
        {{firstCommand + "tag gone", notDeselected}, {"00A40400", "00A40400"}, {"card lost", "1 more command"}, 1},
        {{firstCommand + "tag blinks"}, {"--retry", "00A40400"}, {"9000"}, 0},
    };
    for (const auto& [faults, arguments, said, status] : kRows) {
        const auto reader = plugReaderIn();
        EXPECT_EQ(reader->ask("place " + card(kSimple) + " as card"), "ok card");
        for (const std::string& fault : faults)
            EXPECT_EQ(reader->ask(fault), "ok");
        const Result text = run(joined({"--no-wait", "apdu"}, arguments));
        EXPECT_EQ(text.status, status) << text.out << text.err;
        for (const std::string& each : said)
            EXPECT_THAT(text.out + text.err, HasSubstr(each));
    }
}

TEST_F(ApduTest, ShowsTheRecordsOfAType4Tag) {
    const std::string image = type4("9101085504612E622FC29B64"  // a link with a control character
                                    "1101075402646548C3A421"    // a text in German
                                    "3A030201612F62690102"      // of type a/b and with an id, in two chunks
                                    "16000103"                  // the second one
                                    "110102548261"              // a text that breaks off
                                    "500300613A62");            // of no kind
    const Result text = run(apdu(image, {"--ndef"}));
    EXPECT_EQ(text.status, 0) << text.err;
    EXPECT_EQ(text.out, cardRows() + "URI   https://a.b/.d\nText  H\xC3\xA4! (de)\nType  a/b\n"
                                     "      010203  ...\nType  urn:nfc:wkt:T\n      8261  .a\nType  empty\n");
    const auto records = exactly(5, exchanges(image, {"--ndef"}, 0));
    EXPECT_EQ(records[1], Json({{"record", 2}, {"text", "H\u00e4!"}, {"language", "de"}}));
    EXPECT_EQ(records[2], Json({{"record", 3}, {"id", "i"}, {"type", "a/b"}, {"data", "010203"}}));

    std::string longText;
    while (longText.size() < 2 * 600)
        longText += "7A";
    const Json many = only(exchanges(type4("C1010000025B54026465" + longText), {"--ndef"}, 0));
    EXPECT_EQ(many.value("text", ""), std::string(600, 'z')) << "read in slices";
    EXPECT_THAT(only(exchanges(type4(""), {"--ndef"}, 0)).value("note", ""), HasSubstr("empty"));
    EXPECT_EQ(run({"--virtual", DEMO "/link.card", "apdu", "--ndef"}).status, 0);
}

TEST_F(ApduTest, TrustsNoLengthOfAType4Tag) {
    // What is said, and of which tags: answers before the tag's own, and the message.
    const std::pair<const char*, std::vector<std::pair<std::string, const char*>>> kRows[] = {
        {"the card has no NDEF application (status word 6a82)", {{"00A40400* 6A82", ""}}},
        {"the card has no capability container", {{"00A4000C02E103 6A82", ""}}},
        {"the card has no NDEF file", {{"00A4000C02E104 6A82", ""}}},
        {"names no NDEF file",
         {{"00B000000F 000F20003B00340506E104010000FF 9000", ""},
          {"00B000000F 000E20003B00340406E104010000FF 9000", ""}}},
        {"may not be read", {{"00B000000F 000F20003B00340406E10401008000 9000", ""}}},
        {"impossible sizes",
         {{"00B000000F 000F20003B00340406E104000100FF 9000", ""},
          {"00B000000F 000F20000000340406E104010000FF 9000", ""}}},
        {"longer than its file", {{"00B000000F 000F20003B00340406E104000900FF 9000", "D101045402656566"}}},
        {"is longer than its file", {{"00B0000002 FFFF 9000", ""}}},
        {"gives 16 bytes where 15 are read", {{"00B000000F count 16 9000", ""}}},
        {"gives 0 bytes", {{"00B000000F 9000", ""}}},
        {"no status word", {{"00B000000F 90", ""}}},
        {"cannot be read (status word 6982", {{"00B00002* 6982", "D1010054"}}},
        {"in the middle of a record", {{"", "D1"}, {"", "D101FF5504"}, {"", "C101FFFFFFFF5504"}, {"", "D901015504"}}},
        {"the last record of the message is missing", {{"", "91010055"}}},
        {"do not begin with the first one", {{"", "51010055"}}},
        {"does not end with its last record", {{"", "D1010055D1010055"}, {"", "F1010054"}}},
        {"do not fit together", {{"", "B101005451010054"}, {"", "D6010054"}}},
    };
    for (const auto& [meaning, tags] : kRows)
        for (const auto& [answers, message] : tags) {
            const std::string rule = answers.empty() ? "" : "answer " + answers + "\n";
            const Json complaint = only(exchanges(type4(message, rule), {"--ndef"}, 1));
            EXPECT_EQ(complaint.value("reason", ""), "unsuitable content");
            EXPECT_THAT(complaint.value("meaning", ""), HasSubstr(meaning)) << answers << message;
        }
}

TEST_F(ApduTest, RelayReachesTheChipOfTheReader) {
    // The library has no way for raw commands to an MF RC500.
    const bool canRelay = !isMf500UnderTest();
    const Result text = run({"--virtual", "new:1k", "relay", "02"});
    EXPECT_EQ(text.status, canRelay ? 0 : 1) << text.err;
    EXPECT_EQ(text.out, canRelay ? "> 02  .\n< 030402  ...\nFirmware 4.2\n" : "");
    EXPECT_EQ(text.err.empty(), canRelay);
    const auto all = runJson({"--virtual", "new:1k", "relay", "00 00 41:42", "7F", "02"}, 1);
    ASSERT_FALSE(all.empty());
    EXPECT_EQ(all.back().value("error", ""), canRelay ? "refused by the reader" : "not implemented");
    EXPECT_EQ(all.back().value("status", 0), canRelay ? -100 : 3139);
    EXPECT_EQ(only(runJson({"relay", "02"}, 3)).value("error", ""), "no reader");
    EXPECT_EQ(only(runJson({"relay", "02", "2"}, 2)).value("meaning", ""),
              "command 2: the byte at character 1 lacks its second digit");
}

}  // namespace

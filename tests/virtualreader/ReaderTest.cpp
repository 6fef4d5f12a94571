// The commands of the virtual reader.

#include "Dialogue.h"
#include "TestHost.h"

#include "MifareClassicTag.h"
#include "SmartCard.h"
#include "UltralightTag.h"

#include <gtest/gtest.h>

namespace {

const std::string kLogin = "40 01 60 04 FFFFFFFFFFFF DEADBEEF";

struct ReaderTest : ::testing::Test {
    ReaderTest() { host("32 05 05 05 05"); }

    std::shared_ptr<VirtualTag> classic(const char* uid = "DEADBEEF", std::size_t bytes = 1024) {
        return std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(bytes, hex(uid)), hex(uid));
    }
    std::shared_ptr<VirtualTag> ultralight() {
        return std::make_shared<UltralightTag>(UltralightTag::blankImage(hex("04112233445566")));
    }
    std::shared_ptr<VirtualTag> card(const char* uid = "04A1B2C3D4E5F6") {
        return std::make_shared<SmartCard>(hex(uid), hex("7577810280"));
    }
    void speak(const std::string& dialogue) { ::speak(dialogue, host); }

    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    VirtualField& field = reader->field();
    TestHost host{reader};
};

TEST_F(ReaderTest, CommandsOfTheReaderAndTheirLengths) {
    speak("12 0C > 13; 32 02 00 0B 0C > 33; 32 04 05 > 33; 26 C0 > 27 00; 4A 01 01 00 FF FF 00 00 > 4B 00; "
          "40 01 30 04 > 41 27; 42 30 04 > 43 01; 44 01 > 45 27; 54 01 > 55 27; "
          "24 > 25 00 00 17 2A 00 00 01 CC 04 31 05 02 01 03");
    for (const char* wrong : {"12", "32 05 05 05", "32 02 00", "32 07 00", "26", "26 C0 00", "24 00", "02 00", "4A 01",
                              "4A 00 00", "4A 03 00", "40 01", "42", "5E 00", "FF"})
        EXPECT_EQ(host(wrong), "ERROR") << wrong;
    EXPECT_EQ(reader->ledByte(), 0xC0);
    EXPECT_TRUE(reader->isFieldOn());
}

TEST_F(ReaderTest, ListingReportsEachKindOfTag) {
    const struct {
        std::shared_ptr<VirtualTag> tag;
        std::string head, uid, cascadedUid;
    } kTags[] = {{classic("DEADBEEF", 320), "04 00 09", "04 DE AD BE EF", "04 DE AD BE EF"},
                 {classic("04112233445566"), "44 00 08", "07 04 11 22 33 44 55 66", "08 88 04 11 22 33 44 55 66"},
                 {ultralight(), "44 00 00", "07 04 11 22 33 44 55 66", "08 88 04 11 22 33 44 55 66"},
                 {card("01020304050607080910"), "84 03 20", "0A 01 02 03 04 05 06 07 08 09 10",
                  "0C 88 01 02 03 88 04 05 06 07 08 09 10"}};
    host("12 0C");
    for (const auto& each : kTags) {
        const std::string name = field.place(each.tag), found = "4B 01 01 " + each.head + ' ';
        reader->options().cascadeTagInUid = true;
        speak("4A 01 00 > " + found + each.cascadedUid);
        reader->options().cascadeTagInUid = false;
        // Halted, it answers to its own UID only; once the field was off, to all.
        speak("4A 01 00 > " + found + each.uid + "; 44 01 > 45 00; 4A 01 00 > 4B 00; 4A 01 00" + each.uid.substr(2) +
              " > " + found + each.uid + "; 4A 01 00" + each.cascadedUid.substr(2) + " > " + found + each.uid +
              "; 4A 01 00 11223344 > 4B 00; 4A 01 00 1122334455 > 4B 00; 32 01 00 > 33; 4A 01 00 > " + found +
              each.uid);
        EXPECT_TRUE(field.remove(name));
    }
    field.place(classic());
    reader->options().atqaHighByteFirst = true;
    speak("4A 01 00 > 4B 01 01 00 04 08 04 DE AD BE EF");
}

TEST_F(ReaderTest, AutomaticRatsAppendsTheAtsAndOpensTheBlockProtocol) {
    field.place(card());
    const std::string found = "4B 01 01 44 03 20 07 04 A1 B2 C3 D4 E5 F6 06 75 77 81 02 80";
    // In the protocol it takes no block commands and hears no requests until the field was off.
    speak("12 1C > 13; 4A 01 00 > " + found + "; 42 0A 05 00A40000 > 43 00 0A 05 6D 00; 40 01 30 00 > 41 27; " +
          "4A 01 00 > 4B 00; 32 01 00 > 33; 4A 01 00 > " + found + "; 44 01 > 45 00; 44 01 > 45 01; " +
          "4A 01 00 04A1B2C3D4E5F6 > " + found);
}

TEST_F(ReaderTest, TwoTargetsTakeTurns) {
    field.place(classic());
    field.place(ultralight());
    // The first answers are laid over each other; a change of targets ends the authentication.
    speak("4A 02 00 > 4B 02 01 44 00 08 04 DE AD BE EF 02 44 00 00 07 04 11 22 33 44 55 66; "
          "40 02 30 00 > 41 00 04 11 22 BF 33 44 55 66 44 48 00 00 00 00 00 00; " +
          kLogin + " > 41 00; 40 01 30 04 > 41 00 {0*16}; 40 02 30 04 > 41 00 {0*16}; 40 01 30 04 > 41 01; " +
          "40 03 30 04 > 41 27; 52 00 > 53 00; 40 01 30 04 > 41 27");
}

TEST_F(ReaderTest, RefusalsOfATagHaveTheirStatus) {
    field.place(classic());
    const std::string value = "64 00 00 00 9B FF FF FF 64 00 00 00 05 FA 05 FA";
    // The reader makes up the operand of a restore. A refused command in another sector drops the tag.
    speak("4A 01 00 > 4B 01 01 04 00 08 04 DE AD BE EF; " + kLogin + " > 41 00; 40 01 A0 04 " + value +
          " > 41 00; 40 01 C2 04 > 41 00; 40 01 B0 06 > 41 00; 40 01 30 06 > 41 00 " + value +
          "; 40 01 A0 04 00 > 41 13; 40 01 30 08 > 41 01; 40 01 30 04 > 41 01; " + kLogin + " > 41 01");
    reader->options().refusedStatus = 0x13;  // The other model's NAK.
    for (const char* refused : {"40 01 30 04 > 41 13", "40 01 60 04 FFFFFFFFFFFF DEADBEEE > 41 14",
                                "40 01 60 04 FFFFFFFFFFFF > 41 13", "40 01 60 04 000000000000 DEADBEEF > 41 14"}) {
        host("4A 01 00");
        speak(refused);
    }
    field.setPresent("tag1", false);
    speak(kLogin + " > 41 01");
}

TEST_F(ReaderTest, EndlessSearchWaitsForATagOrTheHost) {
    host("32 05 FF 01 FF");
    EXPECT_EQ(host("4A 01 00"), "silence");
    field.place(classic());
    EXPECT_EQ(host.read(), "4B 01 01 04 00 08 04 DE AD BE EF");
    field.clear();
    EXPECT_EQ(host("4A 01 00"), "silence");
    host.write(hex("00 00 FF 00 FF 00"));
    field.place(classic());
    EXPECT_EQ(host.read(), "silence") << "the host's ACK gave the search up";
    field.clear();
    EXPECT_EQ(host("4A 01 00"), "silence");
    EXPECT_EQ(host("24").substr(0, 5), "25 00") << "another command does as well";
    field.place(classic());
    EXPECT_EQ(host.read(), "silence");
}

}  // namespace

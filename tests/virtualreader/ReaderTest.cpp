#include "TestHost.h"

#include "MifareClassicTag.h"
#include "SmartCard.h"
#include "UltralightTag.h"

#include <gtest/gtest.h>

namespace {

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
    /// Raw bytes of both answers to a raw frame.
    std::string raw(const char* frame) {
        std::string all;
        host.write(hex(frame));
        for (;;) {
            std::array<std::uint8_t, 1024> buffer;
            std::uint32_t count = 0;
            if (host.device.ReadBytesUnBlocked(buffer.data(), 1024, &count, 0) != kDeviceOk) return all;
            all += (all.empty() ? "" : " | ") + text({buffer.data(), count});
        }
    }

    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
    VirtualField& field = reader->field();
    TestHost host{reader};
};

TEST_F(ReaderTest, PublishedFramesByteForByte) {
    EXPECT_EQ(raw("00 00 FF 04 FC D4 4A 01 00 E1 00"), "00 00 FF 00 FF 00 | 00 00 FF 03 FD D5 4B 00 E0 00");
    field.place(classic());
    reader->options().atqaHighByteFirst = true;
    EXPECT_EQ(raw("00 00 FF 04 FC D4 4A 01 00 E1 00"),
              "00 00 FF 00 FF 00 | 00 00 FF 0C F4 D5 4B 01 01 00 04 08 04 DE AD BE EF 96 00");
    EXPECT_EQ(host("40 01 60 04 000000000000 DEADBEEF"), "41 14");
    EXPECT_EQ(raw("00 00 FF 02 FE D4 02 2A 00"), "00 00 FF 00 FF 00 | 00 00 FF 04 FC D5 03 04 02 22 00");
}

TEST_F(ReaderTest, CommandsOfTheReaderAndTheirLengths) {
    struct {
        const char *command, *reply;
    } constexpr kDialogue[] = {
        {"12 0C", "13"},
        {"12", "ERROR"},
        {"32 01 01", "33"},
        {"32 02 00 0B 0C", "33"},
        {"32 04 05", "33"},
        {"32 05 05 05 05", "33"},
        {"32 05 05 05", "ERROR"},
        {"32 02 00", "ERROR"},
        {"32 07 00", "ERROR"},
        {"26 C0", "27 00"},
        {"26", "ERROR"},
        {"26 C0 00", "ERROR"},
        {"24", "25 00 00 17 2A 00 00 01 CC 04 31 05 02 01 03"},
        {"24 00", "ERROR"},
        {"02 00", "ERROR"},
        {"4A 01", "ERROR"},
        {"4A 00 00", "ERROR"},
        {"4A 03 00", "ERROR"},
        {"4A 01 01 00 FF FF 00 00", "4B 00"},
        {"40 01", "ERROR"},
        {"40 01 30 04", "41 27"},
        {"42", "ERROR"},
        {"42 30 04", "43 01"},
        {"44 01", "45 27"},
        {"54 01", "55 27"},
        {"5E 00", "ERROR"},
        {"FF", "ERROR"},
    };
    for (const auto& step : kDialogue)
        EXPECT_EQ(host(step.command), step.reply) << step.command;
    EXPECT_EQ(reader->ledByte(), 0xC0);
    EXPECT_TRUE(reader->isFieldOn());
    host("32 01 00");
    EXPECT_FALSE(reader->isFieldOn());
}

TEST_F(ReaderTest, ListingReportsEachKindOfTag) {
    struct {
        std::shared_ptr<VirtualTag> tag;
        const char *plain, *cascaded;
    } const kTags[] = {
        {classic("DEADBEEF", 320), "4B 01 01 04 00 09 04 DE AD BE EF", "4B 01 01 04 00 09 04 DE AD BE EF"},
        {classic("88000001", 4096), "4B 01 01 02 00 18 04 88 00 00 01", "4B 01 01 02 00 18 04 88 00 00 01"},
        {classic("04112233445566"), "4B 01 01 44 00 08 07 04 11 22 33 44 55 66",
         "4B 01 01 44 00 08 08 88 04 11 22 33 44 55 66"},
        {ultralight(), "4B 01 01 44 00 00 07 04 11 22 33 44 55 66", "4B 01 01 44 00 00 08 88 04 11 22 33 44 55 66"},
        {card("01020304050607080910"), "4B 01 01 84 03 20 0A 01 02 03 04 05 06 07 08 09 10",
         "4B 01 01 84 03 20 0C 88 01 02 03 88 04 05 06 07 08 09 10"},
    };
    host("12 0C");
    for (const auto& each : kTags) {
        const std::string name = field.place(each.tag);
        const std::string uid = text(each.tag->uid());
        const std::string cascadedUid = std::string(each.cascaded).substr(21);
        EXPECT_EQ(host("4A 01 00"), each.plain);
        EXPECT_EQ(host("4A 01 00"), each.plain) << "a tag left awake is found again";
        reader->options().cascadeTagInUid = true;
        EXPECT_EQ(host("4A 01 00"), each.cascaded);
        reader->options().cascadeTagInUid = false;
        EXPECT_EQ(host("44 01"), "45 00");
        EXPECT_EQ(host("4A 01 00"), "4B 00") << "halted";
        EXPECT_EQ(host("4A 01 00" + uid), each.plain);
        EXPECT_EQ(host("4A 01 00" + cascadedUid), each.plain);
        EXPECT_EQ(host("4A 01 00 11223344"), "4B 00");
        EXPECT_EQ(host("4A 01 00 1122334455"), "4B 00") << "no UID has that length";
        host("32 01 00");
        EXPECT_EQ(host("4A 01 00"), each.plain) << "the field comes on by itself, and the halt is forgotten";
        EXPECT_TRUE(field.remove(name));
        EXPECT_EQ(host("4A 01 00"), "4B 00");
    }
}

TEST_F(ReaderTest, AutomaticRatsAppendsTheAtsAndOpensTheBlockProtocol) {
    field.place(card());
    host("12 1C");
    const std::string found = "4B 01 01 44 03 20 07 04 A1 B2 C3 D4 E5 F6 06 75 77 81 02 80";
    EXPECT_EQ(host("4A 01 00"), found);
    EXPECT_EQ(host("42 0A 05 00A40000"), "43 00 0A 05 6D 00");
    EXPECT_EQ(host("42 0A 06 00A40000"), "43 01") << "another card was meant";
    EXPECT_EQ(host("40 01 30 00"), "41 27");
    EXPECT_EQ(host("4A 01 00"), "4B 00") << "a card in the protocol hears no requests";
    host("32 01 00");
    EXPECT_EQ(host("4A 01 00"), found);
    EXPECT_EQ(host("44 01"), "45 00");
    EXPECT_EQ(host("44 01"), "45 01") << "already gone to rest";
    EXPECT_EQ(host("4A 01 00 04A1B2C3D4E5F6"), found);

    field.clear();
    field.place(classic());
    EXPECT_EQ(host("4A 01 00"), "4B 01 01 04 00 08 04 DE AD BE EF") << "no ATS without the protocol bit";
}

TEST_F(ReaderTest, TwoTargetsTakeTurns) {
    field.place(classic());
    field.place(ultralight());
    // The first answer to the request is that of both tags, laid over each other.
    EXPECT_EQ(host("4A 02 00"), "4B 02 01 44 00 08 04 DE AD BE EF 02 44 00 00 07 04 11 22 33 44 55 66");
    EXPECT_EQ(host("40 02 30 00"), "41 00 04 11 22 BF 33 44 55 66 44 48 00 00 00 00 00 00");
    EXPECT_EQ(host("40 01 60 04 FFFFFFFFFFFF DEADBEEF"), "41 00");
    EXPECT_EQ(host("40 01 30 04").size(), 53u);
    EXPECT_EQ(host("40 02 30 03").size(), 53u);
    EXPECT_EQ(host("40 01 30 04"), "41 01") << "the change of targets ended the authentication";
    EXPECT_EQ(host("40 03 30 04"), "41 27");
    EXPECT_EQ(host("52 00"), "53 00");
    EXPECT_EQ(host("40 01 30 04"), "41 27");
}

TEST_F(ReaderTest, BlockCommandsOnAClassic) {
    constexpr const char* kLogin = "40 01 60 04 FFFFFFFFFFFF DEADBEEF";
    field.place(classic());
    host("4A 01 00");
    EXPECT_EQ(host(kLogin), "41 00");
    EXPECT_EQ(host("40 01 A0 04 640000009BFFFFFF6400000005FA05FA"), "41 00");
    EXPECT_EQ(host("40 01 C1 04 05000000"), "41 00");
    EXPECT_EQ(host("40 01 B0 05"), "41 00");
    EXPECT_EQ(host("40 01 30 05"), "41 00 69 00 00 00 96 FF FF FF 69 00 00 00 05 FA 05 FA");
    EXPECT_EQ(host("40 01 C0 05 09000000"), "41 00");
    EXPECT_EQ(host("40 01 B0 05"), "41 00");
    EXPECT_EQ(host("40 01 C2 05"), "41 00") << "restore, the reader makes up the operand";
    EXPECT_EQ(host("40 01 B0 06"), "41 00");
    EXPECT_EQ(host("40 01 30 06"), "41 00 60 00 00 00 9F FF FF FF 60 00 00 00 05 FA 05 FA");
    EXPECT_EQ(host("40 01 A0 04 00"), "41 13");
    EXPECT_EQ(host("40 01 30 08"), "41 01") << "another sector";
    EXPECT_EQ(host("40 01 30 04"), "41 01") << "dropped";
    EXPECT_EQ(host(kLogin), "41 01");
    host("4A 01 00");
    reader->options().refusedStatus = 0x13;
    EXPECT_EQ(host("40 01 30 04"), "41 13") << "the other model's word for a NAK";
    host("4A 01 00");
    EXPECT_EQ(host("40 01 60 04 FFFFFFFFFFFF DEADBEEE"), "41 14") << "another tag's UID";
    host("4A 01 00");
    EXPECT_EQ(host("40 01 60 04 FFFFFFFFFFFF"), "41 13");
    field.setPresent("tag1", false);
    EXPECT_EQ(host(kLogin), "41 01");

    field.clear();
    field.place(ultralight());
    host("4A 01 00");
    EXPECT_EQ(host("40 01 A2 04 01020304"), "41 00");
    EXPECT_EQ(host("40 01 A0 05 AABBCCDD000000000000000000000000"), "41 00");
    EXPECT_EQ(host("40 01 30 04"), "41 00 01 02 03 04 AA BB CC DD 00 00 00 00 00 00 00 00");
    EXPECT_EQ(host("40 01 60 04 FFFFFFFFFFFF 04112233"), "41 14");
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

TEST_F(ReaderTest, PluggedOutAndInItHasForgottenEverything) {
    field.place(classic());
    host("26 C0");
    host("4A 01 00");
    reader->vanish();
    EXPECT_EQ(host("24"), "gone");
    EXPECT_EQ(host.read(), "gone");
    EXPECT_EQ(host.device.OpenInterface("", 0, 0), kDeviceFailed);
    reader->comeBack();
    EXPECT_EQ(host("24"), "gone") << "the old handle stays dead";
    EXPECT_EQ(host.device.OpenInterface("", 0, 0), kDeviceOk);
    EXPECT_EQ(host("24").substr(0, 5), "25 00");
    EXPECT_EQ(host("40 01 30 04"), "41 27");
    EXPECT_FALSE(reader->isFieldOn());
    EXPECT_EQ(reader->ledByte(), 0);
}

}  // namespace

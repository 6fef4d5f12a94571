// The operations that concern the reader: opening, configuration, identity, field, LED.

#include "ScriptedDevice.h"

#include "NfcTamaBfl.h"

#include <algorithm>
#include <string>

namespace {

class ReaderOperations : public ScriptedDriver {
  protected:
    ReaderOperations() : driver(NfcTamaBfl::acquire()) { driver->interfaceOpen(49, 0); }

    void name(const char* text) { driver->setDeviceName(reinterpret_cast<const std::uint8_t*>(text)); }
    const char* name() { return reinterpret_cast<const char*>(driver->getDeviceName()); }

    std::shared_ptr<NfcTamaBfl> driver;
};

TEST_F(ReaderOperations, OpenTakesTheBaudRateFromASerialName) {
    const struct {
        const char* given;
        const char* opened;
        std::uint32_t baudRate;
    } cases[] = {
        {"COM3;19200", "COM3", 19200}, {"COM3", "COM3", 9600},        {"COM12;115200;7", "COM12", 115200},
        {"COM3;fast", "COM3", 9600},   {"com3;9600", "com3;9600", 0}, {"/dev/reader;1", "/dev/reader;1", 0},
    };
    for (const auto& c : cases) {
        name(c.given);
        EXPECT_EQ(driver->interfaceOpen(49, 0), kBflOpened) << c.given;
        EXPECT_EQ(script->name, c.opened);
        EXPECT_EQ(script->baudRate, c.baudRate) << c.given;
        EXPECT_STREQ(name(), c.opened);
    }
    name("COM3;19200");
    driver->interfaceOpen(1, 2);
    driver->interfaceOpen(1, 2);
    EXPECT_EQ(script->baudRate, 9600u) << "the rate was cut off the name by the first open";
    EXPECT_GT(script->closed, 0) << "an open device is closed first";
}

TEST_F(ReaderOperations, OpenFailsWithTheDevice) {
    script->openResult = kDeviceFailed;
    EXPECT_EQ(driver->interfaceOpen(49, 0), kBflNotOpened);
    script->openResult = 1;
    EXPECT_EQ(driver->interfaceOpen(49, 0), kBflOpened) << "only a negative result is a failure";
    setTamaDeviceFactory([](const TamaDeviceRequest&) { return nullptr; });
    EXPECT_EQ(driver->interfaceOpen(49, 0), kBflNotOpened);
    EXPECT_EQ(driver->interfaceClose(), kBflOk);
    EXPECT_EQ(driver->interfaceClose(), kBflOk);
}

TEST_F(ReaderOperations, ConfigStopsAtTheFirstRefusedCommand) {
    const char* const kConfig[] = {"32 01 01", "32 02 00 0B 0C", "32 04 05", "32 05 05 05 05", "12 0C"};
    for (std::size_t failing = 0; failing <= std::size(kConfig); ++failing) {
        script->expects({}).answers(ack()).answers(errorFrame());
        for (std::size_t i = 0; i < std::min(failing, std::size(kConfig)); ++i)
            script->dialogue(kConfig[i], i == 4 ? "13" : "33");
        if (failing < std::size(kConfig)) script->expects(cmd(kConfig[failing])).answers(ack()).answers(errorFrame());
        EXPECT_EQ(driver->pcdConfig(), failing < std::size(kConfig) ? kBflErrorFrame : kBflOk) << failing;
    }
}

TEST_F(ReaderOperations, IdentityComesFromOneReply) {
    const char* const kIdentity = "25 00 01 02 03 04 05 06 CC 04 31 05 02 0A 1F";
    std::uint8_t snr[6] = {};
    std::uint16_t length = 0;
    script->dialogue("24", kIdentity);
    EXPECT_EQ(driver->pcdGetSnr(snr, length), kBflOk);
    EXPECT_EQ(length, 6);
    EXPECT_TRUE(std::ranges::equal(snr, hex("01 02 03 04 05 06")));

    std::uint8_t version[55];
    script->dialogue("24", kIdentity);
    EXPECT_EQ(driver->pcdGetFwVersion(version, length), kBflOk);
    const std::string text = "NFC Reader/Writer 2.10.1F for VID 0x04CC PID 0x0531";
    EXPECT_EQ(reinterpret_cast<const char*>(version), text);
    EXPECT_EQ(length, text.size());
}

TEST_F(ReaderOperations, IdentityFailsWithoutTouchingTheBuffer) {
    const struct {
        const char* reply;
        short status;
    } cases[] = {{"25 27", 0x27},
                 {"25", kBflBadFrame},
                 {"25 00 01 02 03", kBflBadFrame},
                 {"25 00 01 02 03 04 05 06 CC 04 31 05 02 0A", kBflBadFrame}};
    for (const auto& c : cases) {
        std::uint8_t buffer[55] = {0x5A};
        std::uint16_t length = 99;
        script->dialogue("24", c.reply);
        EXPECT_EQ(driver->pcdGetSnr(buffer, length), c.status) << c.reply;
        EXPECT_EQ(length, 6);
        length = 99;
        script->dialogue("24", c.reply);
        EXPECT_EQ(driver->pcdGetFwVersion(buffer, length), c.status) << c.reply;
        EXPECT_EQ(length, 99);
        EXPECT_EQ(buffer[0], 0x5A);
    }
    std::uint16_t length = 0;
    EXPECT_EQ(driver->pcdGetSnr(nullptr, length), kBflOutOfRange);
    EXPECT_EQ(driver->pcdGetFwVersion(nullptr, length), kBflOutOfRange);
}

TEST_F(ReaderOperations, FieldResetSwitchesOffAndOn) {
    script->dialogue("32 01 00", "33").dialogue("32 01 01", "33");
    EXPECT_EQ(driver->pcdRfReset(1), kBflOk);
    script->dialogue("32 01 00", "33").dialogue("26 C0", "27 00");
    EXPECT_EQ(driver->pcdRfReset(0), kBflOk) << "0 leaves the field off and switches the LEDs off";
    script->dialogue("32 01 00", "33").dialogue("26 C0", "27 05");
    EXPECT_EQ(driver->pcdRfReset(0), kBflOk) << "the LED's result does not count";
    script->expects({}).answers(ack()).answers(errorFrame());
    EXPECT_EQ(driver->pcdRfReset(1), kBflErrorFrame);
    script->dialogue("32 01 00", "33").expects({}).answers(ack()).answers(errorFrame());
    EXPECT_EQ(driver->pcdRfReset(1), kBflErrorFrame);
}

TEST_F(ReaderOperations, LedByte) {
    const struct {
        std::uint8_t led, ctrl, dur;
        const char* sent;
    } cases[] = {{1, 1, 40, "26 7F"}, {0, 0, 0, "26 C0"}, {3, 0, 0, "26 00"}, {9, 7, 31, "26 3F"}, {2, 0, 1, "26 81"}};
    for (const auto& c : cases) {
        script->dialogue(c.sent, "27 00");
        EXPECT_EQ(driver->switchLED(c.led, c.ctrl, c.dur), kBflOk) << c.sent;
    }
    script->dialogue("26 C0", "27 10");
    EXPECT_EQ(driver->switchLED(0, 0, 0), 0x10);
    script->dialogue("26 C0", "27");
    EXPECT_EQ(driver->switchLED(0, 0, 0), kBflBadFrame);
}

TEST_F(ReaderOperations, AttributesAndKeysNeedNoReader) {
    std::uint8_t fsci = 0, fsdi = 0, piccDiv = 9, pcdDiv = 9, attrib = 0;
    EXPECT_EQ(driver->pcdGetAttrib(&fsci, &fsdi, &piccDiv, &pcdDiv, &attrib), kBflOk);
    EXPECT_EQ((Bytes{fsci, fsdi, piccDiv, pcdDiv, attrib}), hex("07 07 00 00 01"));
    EXPECT_EQ(driver->pcdGetAttrib(&fsci, nullptr, &piccDiv, &pcdDiv, &attrib), kBflOutOfRange);
    EXPECT_EQ(driver->pcdSetAttrib(9, 9), kBflOk);
    EXPECT_EQ(driver->pcdSetDefaultAttrib(), kBflOk);
    Bytes key = hex("A0 A1 A2 A3 A4 A5"), coded(12);
    EXPECT_EQ(driver->hostCodeKey(key.data(), coded.data()), kBflOk);
    EXPECT_TRUE(std::equal(key.begin(), key.end(), coded.begin()));
    EXPECT_EQ(driver->hostCodeKey(nullptr, coded.data()), kBflOutOfRange);
    EXPECT_EQ(driver->hostCodeKey(key.data(), nullptr), kBflOutOfRange);
    EXPECT_TRUE(script->written.empty());
}

}  // namespace

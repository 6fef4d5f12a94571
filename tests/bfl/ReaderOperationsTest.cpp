// The operations that concern the reader: opening, configuration, identity, field, LED.

#include "ScriptedDevice.h"

#include "Mf500bfl.h"

#include <algorithm>
#include <string>

namespace {

class ReaderOperations : public ScriptedDriver {
  protected:
    void name(const char* text) { driver->setDeviceName(reinterpret_cast<const std::uint8_t*>(text)); }
    const char* name() { return reinterpret_cast<const char*>(driver->getDeviceName()); }
};

TEST_F(ReaderOperations, OpenTakesTheBaudRateFromASerialName) {
    const struct {
        const char *given, *opened;
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
        EXPECT_STREQ(name(), c.opened) << "the rate is cut off the name by the first open";
    }
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
        script->refuses({});
        for (std::size_t i = 0; i < std::min(failing, std::size(kConfig)); ++i)
            script->dialogue(kConfig[i], i == 4 ? "13" : "33");
        if (failing < std::size(kConfig)) script->refuses(cmd(kConfig[failing]));
        EXPECT_EQ(driver->pcdConfig(), failing < std::size(kConfig) ? kBflErrorFrame : kBflOk) << failing;
    }
}

TEST_F(ReaderOperations, IdentityComesWholeOrNotAtAll) {
    const std::pair<const char*, short> cases[] = {{"25 00 01 02 03 04 05 06 CC 04 31 05 02 0A 1F", kBflOk},
                                                   {"25 27", 0x27},
                                                   {"25", kBflBadFrame},
                                                   {"25 00 01 02 03", kBflBadFrame},
                                                   {"25 00 01 02 03 04 05 06 CC 04 31 05 02 0A", kBflBadFrame}};
    for (const auto& [reply, status] : cases) {
        std::uint8_t snr[6] = {}, version[55] = {};
        std::uint16_t length = 0, textLength = 99;
        script->dialogue("24", reply).dialogue("24", reply);
        EXPECT_EQ(driver->pcdGetSnr(snr, length), status) << reply;
        EXPECT_EQ(length, 6);
        EXPECT_TRUE(std::ranges::equal(snr, hex(status == kBflOk ? "1 2 3 4 5 6" : "0 0 0 0 0 0")));
        EXPECT_EQ(driver->pcdGetFwVersion(version, textLength), status) << reply;
        EXPECT_STREQ(reinterpret_cast<const char*>(version),
                     status == kBflOk ? "NFC Reader/Writer 2.10.1F for VID 0x04CC PID 0x0531" : "");
        EXPECT_EQ(textLength, status == kBflOk ? 51 : 99);
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
    script->refuses({});
    EXPECT_EQ(driver->pcdRfReset(1), kBflErrorFrame);
    script->dialogue("32 01 00", "33").refuses({});
    EXPECT_EQ(driver->pcdRfReset(1), kBflErrorFrame);
}

TEST_F(ReaderOperations, LedByte) {
    const struct {
        std::uint8_t led, ctrl, dur;
        const char* sent;
    } cases[] = {{1, 1, 40, "26 7F"}, {0, 0, 0, "26 C0"}, {3, 0, 0, "26 00"}, {9, 7, 31, "26 3F"}, {2, 0, 1, "26 81"}};
    for (const auto& c : cases)
        EXPECT_EQ(before(c.sent, "27 00").switchLED(c.led, c.ctrl, c.dur), kBflOk) << c.sent;
    EXPECT_EQ(before("26 C0", "27 10").switchLED(0, 0, 0), 0x10);
    EXPECT_EQ(before("26 C0", "27").switchLED(0, 0, 0), kBflBadFrame);
}

TEST_F(ReaderOperations, AttributesAndKeysNeedNoReader) {
    std::uint8_t a[5] = {9, 9, 9, 9, 9}, coded[6];
    EXPECT_EQ(driver->pcdGetAttrib(&a[0], &a[1], &a[2], &a[3], &a[4]), kBflOk);
    EXPECT_TRUE(std::ranges::equal(a, hex("07 07 00 00 01")));
    EXPECT_EQ(driver->pcdGetAttrib(a, nullptr, a, a, a), kBflOutOfRange);
    EXPECT_EQ(driver->hostCodeKey(nullptr, coded), kBflOutOfRange);
    EXPECT_EQ(driver->hostCodeKey(coded, nullptr), kBflOutOfRange);
}

TEST(ADeviceName, IsKeptWholeAndCutAtItsEnd) {
    struct : Qvl14443bfl {
        BflType getBflType() override { return BflTypeMf500; }
    } driver;
    const auto name = [&driver] { return std::string(reinterpret_cast<const char*>(driver.getDeviceName())); };
    const std::string names[] = {"", "a/rather/long/name", "COM3;9600", std::string(300, 'x')};
    for (const std::string& given : names) {
        driver.setDeviceName(reinterpret_cast<const std::uint8_t*>(given.c_str()));
        EXPECT_EQ(name(), given.substr(0, 255));
    }
    driver.setDeviceName(driver.getDeviceName() + 250);
    driver.setDeviceName(nullptr);
    EXPECT_EQ(name(), "xxxxx");
    std::uint8_t b[16] = {0xA5};
    std::uint16_t length = 7;
    for (const short result : {driver.interfaceOpen(49, 0), driver.pcdConfig(), driver.pcdGetSnr(b, length),
                               driver.piccRead(0, b), driver.piccHalt(), driver.hostCodeKey(b, b)})
        EXPECT_EQ(result, kBflNotImplemented) << "operations that a driver leaves out fail";
    EXPECT_TRUE(b[0] == 0xA5 && length == 7);
}

}  // namespace

// What a driver answers that overrides nothing.

#include "Mf500bfl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

const char* nameOf(Qvl14443bfl& driver) { return reinterpret_cast<const char*>(driver.getDeviceName()); }

void setName(Qvl14443bfl& driver, const std::string& name) {
    driver.setDeviceName(reinterpret_cast<const std::uint8_t*>(name.c_str()));
}

TEST(ADriverWithoutOperations, AnswersNotImplementedAndTouchesNothing) {
    Mf500bfl driver;
    std::uint8_t b[16];
    std::fill(std::begin(b), std::end(b), std::uint8_t{0xA5});
    std::uint16_t length = 7;
    const short results[] = {driver.interfaceOpen(49, 0),
                             driver.interfaceClose(),
                             driver.pcdConfig(),
                             driver.pcdConfig2(b, b),
                             driver.pcdGetRICVersion(b),
                             driver.pcdGetSnr(b, length),
                             driver.pcdGetFwVersion(b, length),
                             driver.pcdRfReset(5),
                             driver.pcdGetAttrib(b, b, b, b, b),
                             driver.pcdSetAttrib(0, 0),
                             driver.pcdSetDefaultAttrib(),
                             driver.hostCodeKey(b, b),
                             driver.piccRequest(0x26, b),
                             driver.piccCascAnticoll(0x93, 0, b),
                             driver.piccCascSelect(0x93, b, b),
                             driver.piccActivateIdle(0, b, b, b, b, b, b),
                             driver.piccActivateIdle(0, b, b, b, b),
                             driver.piccActivateIdleLoop(0, b, b, b, b, 1, b, b),
                             driver.piccActivateIdleLoop(0, b, b, b, b, 1),
                             driver.piccActivateWakeup(0, b, b, b, 4, b, b),
                             driver.piccActivateWakeup(0, b, b, b, 4),
                             driver.piccAuthKey(0x60, b, b, 0),
                             driver.piccRead(0, b),
                             driver.piccWrite(0, b),
                             driver.piccValue(0xC0, 0, b, 0),
                             driver.piccExchangeBlock(b, 1, b, &length, 0, 0),
                             driver.piccHalt(),
                             driver.switchLED(0, 0, 0)};
    for (const short result : results)
        EXPECT_EQ(result, kBflNotImplemented);
    EXPECT_TRUE(std::ranges::all_of(b, [](std::uint8_t v) { return v == 0xA5; }));
    EXPECT_EQ(length, 7);
    EXPECT_FALSE(driver.isQvlDevice());
    EXPECT_EQ(driver.getBflType(), BflTypeMf500);
}

TEST(ADeviceName, IsKeptWholeAndCutAtItsEnd) {
    Mf500bfl driver;
    EXPECT_STREQ(nameOf(driver), "");
    setName(driver, "a/rather/long/name");
    setName(driver, "COM3;9600");
    EXPECT_STREQ(nameOf(driver), "COM3;9600");
    setName(driver, std::string(300, 'x'));
    EXPECT_EQ(std::string(nameOf(driver)), std::string(255, 'x'));
    driver.setDeviceName(driver.getDeviceName() + 250);
    EXPECT_STREQ(nameOf(driver), "xxxxx");
    driver.setDeviceName(nullptr);
    EXPECT_STREQ(nameOf(driver), "xxxxx");
    Mf500bfl copy(driver);
    EXPECT_STREQ(nameOf(copy), "xxxxx");
}

}  // namespace

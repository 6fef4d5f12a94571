// The serial port at its edge: error values, modes, settings, on a pseudo-terminal.

#include "SerialPort.h"

#include "PseudoTerminal.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

namespace {

class APort : public ::testing::Test {
  protected:
    PseudoTerminal terminal;
    SerialPort port;

    void open(bool overlapped = true) { ASSERT_EQ(port.open(terminal.path().c_str(), 0, 0, overlapped), 0u); }
    std::uint32_t read(std::uint32_t length, std::uint32_t timeout = SerialPort::kNoLimit) {
        return port.read(buffer, length, &got, nullptr, timeout);
    }

    std::uint8_t buffer[64] = {};
    std::uint32_t got = 99;
};

TEST_F(APort, ThatIsClosedRefusesEverything) {
    std::uint32_t count = 9;
    EXPECT_EQ(port.close(), 0u);
    for (const std::uint32_t status :
         {port.setup(9600, 8, 0, 0), port.setEventChar('x', false), port.setMask(1), port.waitEvent(nullptr, 0),
          port.setHandshaking(0), port.setReadTimeouts(0), port.purge(), port.waitForByte(0),
          port.writeString("x", &count, nullptr, 0), port.read(buffer, 1, &count, nullptr, 0)})
        EXPECT_EQ(status, SerialPort::kNotOpen);
    EXPECT_EQ(count, 0u);
    for (const std::int32_t value :
         {port.getBaudrate(), port.getDataBits(), port.getParity(), port.getStopBits(), port.getHandshaking()})
        EXPECT_EQ(value, -1);
    EXPECT_EQ(port.getEventMask(), 0u);
    EXPECT_EQ(port.getEventChar(), 0);
    EXPECT_NE(port.open("/nonexistent/port", 0, 0, true), 0u);
    EXPECT_NE(port.open("/dev/null", 0, 0, true), 0u) << "no terminal";
}

TEST_F(APort, OpensOnceAndReadsAtOnce) {
    open();
    EXPECT_EQ(port.open(terminal.path().c_str(), 0, 0, true), SerialPort::kAlreadyOpen);
    EXPECT_EQ(read(1), 0u);
    EXPECT_EQ(got, 0u) << "nothing there, and no waiting for it";
    EXPECT_EQ(port.getEventMask(), 0xC1u);
    terminal.write("abc");
    EXPECT_EQ(port.waitForByte(2000), 0u);
    EXPECT_EQ(read(2), 0u);
    EXPECT_EQ(std::memcmp(buffer, "ab", 2), 0);
    EXPECT_EQ(read(9), 0u);
    EXPECT_EQ(got, 1u);
    EXPECT_EQ(port.waitForByte(0), SerialPort::kTimeout);
    EXPECT_EQ(port.close(), 0u);
    EXPECT_EQ(port.close(), 0u);
}

TEST_F(APort, ReadsBackItsSettings) {
    open();
    for (const std::uint32_t baudRate : {9600u, 19200u, 115200u, 921600u}) {
        EXPECT_EQ(port.setup(baudRate, 8, 0, 0), 0u);
        EXPECT_EQ(port.getBaudrate(), static_cast<std::int32_t>(baudRate));
    }
    EXPECT_EQ(port.getDataBits(), 8);
    EXPECT_EQ(port.getParity(), 0);
    EXPECT_EQ(port.getStopBits(), 0);
    EXPECT_NE(port.setup(0, 8, 0, 0), 0u) << "no rate at all";
    for (const int mode : {2, 1, 0}) {
        EXPECT_EQ(port.setHandshaking(mode), 0u) << mode;
        EXPECT_EQ(port.getHandshaking(), mode);
    }
    EXPECT_EQ(port.setHandshaking(3), SerialPort::kUnknownMode);
    EXPECT_EQ(port.setHandshaking(-1), SerialPort::kUnknownMode);
    EXPECT_EQ(port.getHandshaking(), 0);
    EXPECT_EQ(port.setReadTimeouts(2), SerialPort::kUnknownMode);
}

TEST_F(APort, WaitsForEventsOfItsMask) {
    open();
    EXPECT_EQ(port.waitEvent(nullptr, 0), SerialPort::kTimeout);
    EXPECT_EQ(port.setEventChar('!', true), 0u);
    EXPECT_EQ(port.getEventChar(), '!');
    EXPECT_EQ(port.getEventMask(), 0xC3u);
    EXPECT_EQ(port.setMask(platform::kLineEventCharacter), 0u);
    terminal.write("a!");
    EXPECT_EQ(port.waitEvent(nullptr, 2000), 0u);
}

TEST_F(APort, TakesOverlappedArgumentsOnlyWhenOpenedForThem) {
    open(false);
    platform::ManualResetEvent done;
    SerialOverlapped record{&done};
    EXPECT_EQ(port.read(buffer, 1, nullptr, &record, SerialPort::kNoLimit), SerialPort::kInvalidFunction);
    EXPECT_EQ(read(1, 100), SerialPort::kInvalidFunction);
    EXPECT_EQ(port.writeString("x", nullptr, nullptr, 100), SerialPort::kInvalidFunction);
    EXPECT_EQ(port.writeString("x", nullptr, nullptr, SerialPort::kNoLimit), 0u);
    EXPECT_EQ(terminal.read(1), "x");
    port.close();
    open(true);
    EXPECT_EQ(port.writeString("yz", &got, &record, 100), 0u);
    EXPECT_EQ(got, 2u);
    EXPECT_TRUE(done.isSet());
    EXPECT_EQ(terminal.read(2), "yz");
}

TEST_F(APort, CanWaitForAllThatWasAskedFor) {
    open();
    EXPECT_EQ(port.setReadTimeouts(1), 0u);
    terminal.write("ab");
    EXPECT_EQ(read(3, 50), SerialPort::kTimeout);
    EXPECT_EQ(got, 2u) << "what came is not lost";
    std::thread sender([this] { terminal.write("cde"); });
    EXPECT_EQ(read(3, 5000), 0u);
    EXPECT_EQ(std::memcmp(buffer, "cde", 3), 0);
    sender.join();
}

TEST_F(APort, GivesUpOnWritingAndNoticesAHangUp) {
    open();
    const std::vector<std::uint8_t> plenty(1 << 20, 0x55);
    EXPECT_EQ(port.write(plenty.data(), 1 << 20, &got, nullptr, 50), SerialPort::kTimeout) << "nobody drains";
    EXPECT_LT(got, 1u << 20);
    terminal.closeMaster();
    const std::uint32_t lost = port.waitForByte(5000);
    EXPECT_NE(lost, 0u);
    EXPECT_NE(lost, SerialPort::kTimeout);
    EXPECT_NE(port.writeString("x", nullptr, nullptr, 100), 0u);
}

}  // namespace

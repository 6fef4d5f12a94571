// The serial port at its edge: error values, modes, settings, on a pseudo-terminal.

#include "SerialPort.h"

#include "PseudoTerminal.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>

namespace {

constexpr std::uint32_t kNoLimit = SerialPort::kNoLimit, kLongMs = 20'000;

struct APort : ::testing::Test {
    PseudoTerminal terminal;
    SerialPort port;
    std::uint8_t buffer[64] = {};
    platform::ManualResetEvent done;
    SerialOverlapped record{&done};
};

TEST_F(APort, GivesTheStatusOfItsState) {
    const struct {
        std::function<std::uint32_t()> call;
        std::uint32_t closed, plain, overlapped;
    } cases[] = {
        {[&] { return port.setup(9600, 8, 0, 0); }, 6, 0, 0},
        {[&] { return port.setup(0, 8, 0, 0); }, 6, EINVAL, EINVAL},
        {[&] { return port.setHandshaking(2); }, 6, 0, 0},
        {[&] { return port.setHandshaking(3); }, 6, 0x80070057, 0x80070057},
        {[&] { return port.setHandshaking(-1); }, 6, 0x80070057, 0x80070057},
        {[&] { return port.setReadTimeouts(2); }, 6, 0x80070057, 0x80070057},
        {[&] { return static_cast<std::uint32_t>(port.getHandshaking()); }, 0xFFFFFFFF, 2, 2},
        {[&] { return static_cast<std::uint32_t>(port.getBaudrate()); }, 0xFFFFFFFF, 9600, 9600},
        {[&] { return port.getEventMask(); }, 0, 0xC1, 0xC1},
        {[&] { return port.setEventChar('!', true); }, 6, 0, 0},
        {[&] { return port.getEventMask(); }, 0, 0xC3, 0xC3},
        {[&] { return port.read(buffer, 1, nullptr, &record, kNoLimit); }, 6, 1, 0},
        {[&] { return port.read(buffer, 1, nullptr, nullptr, 100); }, 6, 1, 0},
        {[&] { return port.waitEvent(nullptr, 0); }, 6, 1, 1460},
        {[&] { return port.writeString("x", nullptr, nullptr, kNoLimit); }, 6, 0, 0},
        {[&] { return port.waitForByte(0); }, 6, 1460, 1460},
        {[&] { return port.purge(); }, 6, 0, 0},
        {[&] { return port.open(terminal.path().c_str(), 0, 0, false); }, 0, 1247, 1247},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.call(), c.closed) << &c - cases;
    for (const bool overlapped : {false, true}) {
        EXPECT_EQ(port.close(), 0u);
        ASSERT_EQ(port.open(terminal.path().c_str(), 0, 0, overlapped), 0u);
        for (const auto& c : cases)
            EXPECT_EQ(c.call(), overlapped ? c.overlapped : c.plain) << &c - cases;
    }
    EXPECT_TRUE(done.isSet());

    std::uint32_t got = 0;
    EXPECT_EQ(port.setReadTimeouts(1), 0u);
    terminal.write("ab");
    EXPECT_EQ(port.read(buffer, 3, &got, nullptr, 20), SerialPort::kTimeout);
    EXPECT_EQ(std::string(buffer, buffer + got), "ab") << "what came is not lost";
    terminal.closeMaster();
    EXPECT_EQ(port.read(buffer, 3, &got, nullptr, kLongMs), std::uint32_t{EIO});
}

}  // namespace

// Whole frames over a real line and over a message socket.

#include "SerialPort.h"
#include "TamaDeviceFactory.h"
#include "TamaFileDevice.h"
#include "TamaSerialDevice.h"

#include "ManualClock.h"
#include "PseudoTerminal.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

constexpr auto kAck = "\x00\x00\xFF\x00\xFF\x00"sv;
constexpr auto kReply = "\x00\x00\xFF\x03\xFD\xD5\x4B\x00\xE0\x00"sv;

std::string readFrame(TamaDevice& device, std::int32_t expected, std::uint32_t* counted = nullptr) {
    std::uint8_t buffer[1024] = {};
    std::uint32_t count = 99;
    EXPECT_EQ(device.ReadBytesUnBlocked(buffer, sizeof buffer, &count, 200), expected);
    if (counted != nullptr) *counted = count;
    return {reinterpret_cast<char*>(buffer), std::min<std::size_t>(count, sizeof buffer)};
}

TEST(ASerialReader, DeliversOneFramePerReadAndEndsABadOneAtOnce) {
    ManualClock clock;
    PseudoTerminal terminal;
    SerialPort other;  // lets what is written stay
    ASSERT_EQ(other.open(terminal.path().c_str(), 0, 0, true), SerialPort::kSuccess);
    terminal.write("stale");
    other.close();
    TamaFrameAssembler assembler;
    TamaSerialDevice device(assembler, 115200);
    ASSERT_EQ(device.OpenInterface(terminal.path().c_str(), 0, 0), kDeviceOk);
    std::string oversized("\x00\x00\xFF\xFF\xFF\xF8\x03\x05"sv);  // Counted, and not copied.
    oversized.resize(1026, 'x');
    const struct {
        std::string line, frames[2];
    } kLines[] = {{std::string(kAck) + std::string(kReply), {std::string(kAck), std::string(kReply)}},
                  {"\x00\x00\xFF\x05\xFA"s, {""}},
                  {oversized, {std::string(1024, '\0')}},
                  {std::string(kAck), {std::string(kAck)}}};
    std::uint32_t count = 0;
    for (const auto& each : kLines) {
        terminal.write(each.line);
        EXPECT_EQ(readFrame(device, kDeviceOk, &count), each.frames[0]);
        EXPECT_EQ(count, each.line == oversized ? 1026u : each.frames[0].size());
        if (!each.frames[1].empty()) {
            EXPECT_EQ(readFrame(device, kDeviceOk), each.frames[1]);
        }
    }
    EXPECT_EQ(device.WriteBytesUnblocked(reinterpret_cast<const std::uint8_t*>("abc"), 3, &count, 1000), kDeviceOk);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(terminal.read(3), "abc");

    clock.setMsPerLook(1000);
    const std::uint64_t start = clock.nowMs();
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "");
    EXPECT_LE(clock.nowMs() - start, 7000u) << "four seconds, looks at the clock included";
    EXPECT_FALSE(device.isGone()) << "it is only silent";
    terminal.write(kReply.substr(0, 7));
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), kReply.substr(0, 7)) << "what came is delivered";
    clock.setMsPerLook(0);
    terminal.write(std::string(kAck) + std::string(kReply));
    device.discardInput();
    terminal.write(kReply);
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply) << "and nothing is carried over";

    const std::vector<std::uint8_t> flood(1 << 20);
    EXPECT_EQ(device.WriteBytesUnblocked(flood.data(), 1 << 20, &count, 30), kDeviceFailed);
    EXPECT_FALSE(device.isGone()) << "it only takes no more";
    terminal.write(kReply.substr(0, 4));
    terminal.closeMaster();
    EXPECT_EQ(readFrame(device, kDeviceFailed), "");
    EXPECT_EQ(device.WriteBytesUnblocked(reinterpret_cast<const std::uint8_t*>("abc"), 3, &count, 100), kDeviceFailed);
    EXPECT_EQ(device.CloseInterface(), kDeviceOk);
    EXPECT_EQ(readFrame(device, kDeviceFailed), "");
    EXPECT_EQ(device.OpenInterface(terminal.path().c_str(), 0, 0), kDeviceFailed);
}

TEST(AMessageReader, DeliversOneMessagePerReadUntilItsPeerIsGone) {
    const TempDirectory directory;
    const std::string path = directory / "reader";
    const int listener = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(listener, 1), 0);
    TamaFileDevice device;
    ASSERT_EQ(device.OpenInterface(path.c_str(), 0, 0), kDeviceOk);
    const int peer = ::accept(listener, nullptr, nullptr);
    const auto send = [&](std::string_view message) {
        EXPECT_EQ(::send(peer, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
    };
    for (const std::string_view message : {kAck, ""sv, kReply})
        send(message);
    EXPECT_EQ(readFrame(device, kDeviceOk), kAck);
    EXPECT_EQ(readFrame(device, kDeviceOk), "") << "an empty message is no closed peer";
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply);
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "");
    send(std::string(1025, 'x'));
    EXPECT_EQ(readFrame(device, kDeviceOk).size(), 1024u) << "a message above the buffer comes cut";
    send(kAck);
    send(kReply);
    device.discardInput();
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "");
    ::close(peer);
    ::close(listener);
    EXPECT_EQ(readFrame(device, kDeviceFailed), "") << "it is gone";
    std::uint32_t count = 0;
    EXPECT_EQ(device.WriteBytesUnblocked(reinterpret_cast<const std::uint8_t*>("x"), 1, &count, 100), kDeviceFailed);
}

TEST(AFloodingReader, IsNotDrainedForEver) {
    const TempDirectory directory;
    TamaFileDevice device;
    ASSERT_EQ(device.OpenInterface(directory.write("flood", std::string(1 << 20, 'x')).c_str(), 0, 0), kDeviceOk);
    device.discardInput();
    EXPECT_EQ(readFrame(device, kDeviceOk).size(), 1024u);
}

TEST(TheFactory, ChoosesByTheName) {
    TamaFrameAssembler assembler;
    EXPECT_NE(dynamic_cast<TamaSerialDevice*>(makeTamaDevice({"COM1", 9600, &assembler}).get()), nullptr);
    for (const char* name : {"/dev/x", "com1", "CO"})
        EXPECT_NE(dynamic_cast<TamaFileDevice*>(makeTamaDevice({name, 0, nullptr}).get()), nullptr);
}

}  // namespace

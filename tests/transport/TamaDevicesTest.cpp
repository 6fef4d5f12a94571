// Whole frames over a real line and over a message socket.

#include "TamaDeviceFactory.h"
#include "TamaFileDevice.h"
#include "TamaSerialDevice.h"

#include "ManualClock.h"
#include "PseudoTerminal.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using namespace std::string_view_literals;

constexpr auto kAck = "\x00\x00\xFF\x00\xFF\x00"sv;
constexpr auto kReply = "\x00\x00\xFF\x03\xFD\xD5\x4B\x00\xE0\x00"sv;

template <typename Device>
std::string readFrame(Device& device, std::int32_t expected, std::uint32_t* counted = nullptr) {
    std::uint8_t buffer[1024] = {};
    std::uint32_t count = 99;
    EXPECT_EQ(device.ReadBytesUnBlocked(buffer, sizeof buffer, &count, 200), expected);
    if (counted != nullptr) *counted = count;
    return {reinterpret_cast<char*>(buffer), std::min<std::size_t>(count, sizeof buffer)};
}

class ASerialReader : public ::testing::Test {
  protected:
    ASerialReader() : device(assembler, 115200) {
        EXPECT_EQ(device.OpenInterface(terminal.path().c_str(), 0, 0), kDeviceOk);
    }
    PseudoTerminal terminal;
    TamaFrameAssembler assembler;
    TamaSerialDevice device;
};

TEST_F(ASerialReader, DeliversOneFramePerRead) {
    terminal.write(std::string(kAck) + std::string(kReply));
    EXPECT_EQ(readFrame(device, kDeviceOk), kAck);
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply);
    std::uint32_t written = 0;
    EXPECT_EQ(device.WriteBytesUnblocked(reinterpret_cast<const std::uint8_t*>("abc"), 3, &written, 1000), kDeviceOk);
    EXPECT_EQ(written, 3u);
    EXPECT_EQ(terminal.read(3), "abc");
}

TEST_F(ASerialReader, EndsABadFrameAtOnceAndStartsAnew) {
    terminal.write("\x00\x00\xFF\x05\xFA"sv);
    EXPECT_EQ(readFrame(device, kDeviceOk), "");
    terminal.write(kAck);
    EXPECT_EQ(readFrame(device, kDeviceOk), kAck);
    // A frame above the buffer is counted and not copied.
    std::string extended("\x00\x00\xFF\xFF\xFF\xE8\x03\x15"sv);
    std::uint32_t counted = 0;
    extended[5] = '\xF8', extended[7] = '\x05';
    extended.resize(1026, 'x');
    terminal.write(extended);
    EXPECT_EQ(readFrame(device, kDeviceOk, &counted), std::string(1024, '\0'));
    EXPECT_EQ(counted, 1026u);
}

TEST_F(ASerialReader, GivesASilentOneFourSecondsAtMost) {
    ManualClock clock;
    clock.setMsPerLook(1000);
    std::uint64_t start = clock.nowMs();
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "");
    EXPECT_LE(clock.nowMs() - start, 7000u) << "looks at the clock included";
    terminal.write(kReply.substr(0, 7));
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), kReply.substr(0, 7)) << "what came is delivered";
    terminal.write(kReply);
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply) << "and nothing is carried over";
}

TEST_F(ASerialReader, DropsLateInputOnDemandAndAtItsEnd) {
    terminal.write(std::string(kReply));
    ASSERT_EQ(readFrame(device, kDeviceOk), kReply);
    terminal.write(std::string(kAck) + std::string(kReply));
    device.discardInput();
    terminal.write(kReply);
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply);
    EXPECT_EQ(device.CloseInterface(), kDeviceOk);
    EXPECT_EQ(readFrame(device, kDeviceFailed), "");
}

TEST_F(ASerialReader, NoticesThatItIsGone) {
    terminal.write(kReply.substr(0, 4));
    terminal.closeMaster();
    std::uint32_t count = 0;
    std::uint8_t buffer[64];
    EXPECT_EQ(device.ReadBytesUnBlocked(buffer, sizeof buffer, &count, 0), kDeviceFailed);
    EXPECT_EQ(device.WriteBytesUnblocked(buffer, 8, &count, 100), kDeviceFailed);
    EXPECT_EQ(device.CloseInterface(), kDeviceOk);
    EXPECT_EQ(device.OpenInterface(terminal.path().c_str(), 0, 0), kDeviceFailed);
}

class AMessageReader : public ::testing::Test {
  protected:
    AMessageReader() : path(directory / "reader"), listener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener, 1), 0);
        EXPECT_EQ(device.OpenInterface(path.c_str(), 0, 0), kDeviceOk);
        peer = ::accept(listener, nullptr, nullptr);
    }
    ~AMessageReader() override {
        ::close(listener);
        if (peer >= 0) ::close(peer);
    }
    void send(std::string_view message) const {
        EXPECT_EQ(::send(peer, message.data(), message.size(), MSG_NOSIGNAL), static_cast<ssize_t>(message.size()));
    }

    TempDirectory directory;
    std::string path;
    int listener;
    int peer = -1;
    TamaFileDevice device;
};

TEST_F(AMessageReader, DeliversOneMessagePerRead) {
    send(kAck);
    send("");
    send(kReply);
    EXPECT_EQ(readFrame(device, kDeviceOk), kAck);
    EXPECT_EQ(readFrame(device, kDeviceOk), "") << "an empty message is no closed peer";
    EXPECT_EQ(readFrame(device, kDeviceOk), kReply);
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "") << "the given time-out holds";
    send(std::string(1025, 'x'));
    EXPECT_EQ(readFrame(device, kDeviceOk).size(), 1024u) << "a message above the buffer comes cut";
    send(kAck);
    send(kReply);
    device.discardInput();
    EXPECT_EQ(readFrame(device, kDeviceTimedOut), "");
    ::close(std::exchange(peer, -1));
    EXPECT_EQ(readFrame(device, kDeviceFailed), "") << "it is gone";
    std::uint32_t count = 0;
    EXPECT_EQ(device.WriteBytesUnblocked(reinterpret_cast<const std::uint8_t*>("x"), 1, &count, 100), kDeviceFailed);
}

TEST(TheFactory, ChoosesByTheName) {
    TamaFrameAssembler assembler;
    EXPECT_NE(dynamic_cast<TamaSerialDevice*>(makeTamaDevice({"COM1", 9600, &assembler}).get()), nullptr);
    for (const char* name : {"/dev/x", "com1", "CO"})
        EXPECT_NE(dynamic_cast<TamaFileDevice*>(makeTamaDevice({name, 0, nullptr}).get()), nullptr);
}

}  // namespace

#include "TempDirectory.h"
#include "TestHost.h"

#include "SocketEndpoint.h"
#include "TerminalEndpoint.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <termios.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kClass = "fe2f504b-5f97-4d4d-873d-559e49009dc6";
constexpr int kPatienceMs = 5000;

/// The host's end of an endpoint: a terminal or a message socket.
class Channel {
  public:
    explicit Channel(int descriptor) : mDescriptor(descriptor) {}
    Channel(Channel&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
    Channel& operator=(Channel&&) = delete;
    ~Channel() { ::close(mDescriptor); }

    static Channel terminal(const std::string& path) { return Channel(::open(path.c_str(), O_RDWR | O_NOCTTY)); }
    static Channel socket(const std::string& path) {
        const int descriptor = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
        return Channel(descriptor);
    }

    bool isOpen() const { return mDescriptor >= 0; }
    void write(const std::vector<std::uint8_t>& bytes) {
        EXPECT_EQ(::write(mDescriptor, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    /// Reads until `count` bytes are there; fewer if the other end is gone or nothing comes any more.
    std::vector<std::uint8_t> read(std::size_t count) {
        std::vector<std::uint8_t> all;
        while (all.size() < count) {
            pollfd waiting{mDescriptor, POLLIN, 0};
            if (::poll(&waiting, 1, kPatienceMs) <= 0) break;
            std::uint8_t bytes[2048];
            const auto got = ::read(mDescriptor, bytes, std::min(sizeof bytes, count - all.size()));
            if (got <= 0) break;
            all.insert(all.end(), bytes, bytes + got);
        }
        return all;
    }
    /// One command. @return the reply as text, "" if it did not come.
    std::string ask(std::string_view command, std::size_t replyBytes) {
        write(TestHost::frame(hex(command)));
        const auto ack = read(6);
        return TestHost::told(ack) == "ACK" ? TestHost::told(read(replyBytes)) : text(ack);
    }
    bool isHungUp() {
        pollfd waiting{mDescriptor, 0, 0};
        return ::poll(&waiting, 1, kPatienceMs) == 1 && (waiting.revents & POLLHUP);
    }

  private:
    int mDescriptor;
};

/// True if `condition` holds before patience ends.
template <typename Condition>
bool eventually(Condition condition) {
    for (const auto end = Clock::now() + std::chrono::milliseconds(kPatienceMs); Clock::now() < end;) {
        if (condition()) return true;
        ::usleep(1000);
    }
    return false;
}

struct EndpointTest : ::testing::Test {
    bool isThere(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

    TempDirectory directory;
    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
};

TEST_F(EndpointTest, TerminalServesOneHostAfterTheOther) {
    TerminalEndpoint endpoint(reader, directory / "new/root", 7);
    ASSERT_EQ(endpoint.start(), "");
    EXPECT_EQ(endpoint.name(), "COM7");
    EXPECT_EQ(endpoint.path(), directory / "new/root/COM7");
    for (int host = 0; host < 3; ++host) {
        Channel channel = Channel::terminal(endpoint.path());
        ASSERT_TRUE(channel.isOpen());
        for (int round = 0; round < 20; ++round)
            EXPECT_EQ(channel.ask("26 15", 10), "27 00");
    }
    Channel channel = Channel::terminal(endpoint.path());
    endpoint.stop();
    EXPECT_FALSE(isThere(endpoint.path()));
    EXPECT_TRUE(channel.isHungUp());
}

TEST_F(EndpointTest, TerminalPacesBothDirections) {
    constexpr int kBaud = 19200, kRounds = 25;
    TerminalEndpoint endpoint(reader, directory.path(), 1, kBaud);
    ASSERT_EQ(endpoint.start(), "");
    Channel channel = Channel::terminal(endpoint.path());
    // 8 bytes there, 6 + 23 bytes back; the time between them is small against the line's.
    const auto begin = Clock::now();
    for (int round = 0; round < kRounds; ++round)
        EXPECT_EQ(channel.ask("24", 23).substr(0, 5), "25 00");
    const std::chrono::duration<double> took = Clock::now() - begin;
    const double line = kRounds * (8 + 6 + 23) * 10.0 / kBaud;
    EXPECT_GT(took.count(), 0.98 * line);
    EXPECT_LT(took.count(), 1.5 * line);
}

TEST_F(EndpointTest, TerminalKeepsTheRateOfALongRun) {
    constexpr int kBaud = 115200;
    constexpr std::size_t kBytes = 6000;
    TerminalEndpoint endpoint(reader, directory.path(), 1, kBaud);
    ASSERT_EQ(endpoint.start(), "");
    Channel channel = Channel::terminal(endpoint.path());
    reader->addFault("26 1 endless");
    channel.write(TestHost::frame(hex("26 15")));
    channel.read(6);
    const auto begin = Clock::now();
    EXPECT_EQ(channel.read(kBytes).size(), kBytes);
    const std::chrono::duration<double> took = Clock::now() - begin;
    EXPECT_NEAR(took.count() * kBaud / 10 / kBytes, 1.0, 0.03);
    channel.write(TestHost::frame(hex("26 00")));
    EXPECT_TRUE(eventually([&] { return reader->ledByte() == 0; })) << "the next command ends it";
}

TEST_F(EndpointTest, ReaderThatVanishesTakesItsPortAlong) {
    TerminalEndpoint terminal(reader, directory.path(), 1);
    ASSERT_EQ(terminal.start(), "");
    {
        Channel channel = Channel::terminal(terminal.path());
        reader->addFault("26 1 vanish between");
        channel.write(TestHost::frame(hex("26 15")));
        EXPECT_EQ(TestHost::told(channel.read(6)), "ACK") << "what was sent before still arrives";
        EXPECT_TRUE(channel.isHungUp());
        EXPECT_FALSE(isThere(terminal.path()));
    }
    reader->comeBack();
    ASSERT_TRUE(eventually([&] { return isThere(terminal.path()); }));
    EXPECT_EQ(Channel::terminal(terminal.path()).ask("26 15", 10), "27 00");
    terminal.stop();

    SocketEndpoint socket(reader, directory.path(), kClass, "reader1");
    ASSERT_EQ(socket.start(), "");
    {
        Channel channel = Channel::socket(socket.path());
        reader->addFault("26 2 vanish after");
        EXPECT_EQ(channel.ask("26 15", 10), "27 00");
        EXPECT_EQ(channel.ask("26 15", 10), "27 00");
        EXPECT_TRUE(channel.isHungUp());
        EXPECT_FALSE(isThere(socket.path()));
    }
    reader->comeBack();
    ASSERT_TRUE(eventually([&] { return isThere(socket.path()); }));
    EXPECT_EQ(Channel::socket(socket.path()).ask("26 15", 10), "27 00");
}

TEST_F(EndpointTest, SocketCarriesOneFrameAMessageToOneHostAtATime) {
    const std::string deep = directory / std::string(60, 'd');
    SocketEndpoint endpoint(reader, deep, kClass, "reader1");
    ASSERT_EQ(endpoint.start(), "");
    EXPECT_GT(endpoint.path().size(), 107u);
    const std::string shortcut = directory / "s";
    std::filesystem::create_symlink(endpoint.path(), shortcut);
    std::optional<Channel> first(Channel::socket(shortcut));
    EXPECT_EQ(first->ask("26 15", 10), "27 00");
    Channel second = Channel::socket(shortcut);
    second.write(TestHost::frame(hex("26 16")));
    EXPECT_EQ(first->ask("26 17", 10), "27 00");
    EXPECT_EQ(reader->ledByte(), 0x17) << "the second host waits";
    first.reset();
    EXPECT_EQ(TestHost::told(second.read(6)), "ACK");
    EXPECT_EQ(TestHost::told(second.read(10)), "27 00");
    reader->addFault("26 1 extended 65545");
    second.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(second.read(6).size(), 6u);
    EXPECT_EQ(second.read(1024).size(), 1024u) << "a long message is cut by the host's buffer, not by the reader";
    reader->addFault("26 1 overdue 30");
    second.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(second.read(6).size(), 6u);
    const auto begin = Clock::now();
    EXPECT_EQ(TestHost::told(second.read(10)), "27 00");
    EXPECT_GT(Clock::now() - begin, std::chrono::milliseconds(20));
    reader->addFault("26 1 endless");
    second.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(second.read(100'000).size(), 100'000u);
    endpoint.stop();
    EXPECT_FALSE(isThere(endpoint.path()));
}

TEST_F(EndpointTest, NamesInUseAreRefusedAndLeftoversReplaced) {
    directory.write("COM1", "a file");
    TerminalEndpoint blocked(reader, directory.path(), 1);
    EXPECT_NE(blocked.start().find("something other than a link has this name"), std::string::npos);
    std::filesystem::create_symlink("/dev/pts/none", directory / "COM2");
    TerminalEndpoint endpoint(reader, directory.path(), 2);
    EXPECT_EQ(endpoint.start(), "");
    EXPECT_EQ(Channel::terminal(endpoint.path()).ask("26 15", 10), "27 00");
    std::filesystem::remove(endpoint.path());
    std::filesystem::create_symlink("/dev/null", endpoint.path());
    endpoint.stop();
    EXPECT_TRUE(isThere(directory / "COM2")) << "somebody else's link stays";
    SocketEndpoint nowhere(reader, directory / "COM1", kClass, "x");
    EXPECT_NE(nowhere.start().find("the directory cannot be made"), std::string::npos);
}

}  // namespace

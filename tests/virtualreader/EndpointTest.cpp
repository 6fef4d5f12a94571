// The lines on which the virtual reader can be reached.

#include "TempDirectory.h"
#include "TestHost.h"

#include "DeviceNode.h"
#include "SocketEndpoint.h"
#include "TerminalEndpoint.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <optional>

#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
constexpr const char* kClass = "fe2f504b-5f97-4d4d-873d-559e49009dc6";
constexpr int kPatienceMs = 5000;

/// The host's end of an endpoint: a terminal or a message socket.
class Channel {
  public:
    explicit Channel(const std::string& path) { EXPECT_TRUE(mNode.open(path.c_str())) << path; }

    void write(const std::vector<std::uint8_t>& bytes) {
        std::size_t count = 0;
        EXPECT_EQ(mNode.write(bytes, count, kPatienceMs), platform::IoResult::done);
    }
    /// Reads until `count` bytes are there; fewer if the other end is gone or nothing comes any more.
    std::vector<std::uint8_t> read(std::size_t count) {
        std::vector<std::uint8_t> all(count);
        std::size_t size = 0, got = 0;
        while (size < count && mNode.read(std::span(all).subspan(size), got, kPatienceMs) == platform::IoResult::done)
            size += got;
        all.resize(size);
        return all;
    }
    /// One command. @return the reply as text, "" if it did not come.
    std::string ask(std::string_view command, std::size_t replyBytes) {
        write(TestHost::frame(hex(command)));
        const auto ack = read(6);
        return TestHost::told(ack) == "ACK" ? TestHost::told(read(replyBytes)) : text(ack);
    }
    bool isHungUp() {
        std::uint8_t byte;
        std::size_t count;
        return mNode.read({&byte, 1}, count, kPatienceMs) == platform::IoResult::failed;
    }

  private:
    platform::DeviceNode mNode;
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

TEST_F(EndpointTest, TerminalPacesBothDirections) {
    constexpr int kBaud = 19200, kRounds = 25;
    TerminalEndpoint endpoint(reader, directory.path(), 1, kBaud);
    ASSERT_EQ(endpoint.start(), "");
    Channel channel(endpoint.path());
    // 8 bytes there, 6 + 23 bytes back; the time between them is small against the line's.
    const auto begin = Clock::now();
    for (int round = 0; round < kRounds; ++round)
        EXPECT_EQ(channel.ask("24", 23).substr(0, 5), "25 00");
    const std::chrono::duration<double> took = Clock::now() - begin;
    const double line = kRounds * (8 + 6 + 23) * 10.0 / kBaud;
    EXPECT_GT(took.count(), 0.98 * line);
    EXPECT_LT(took.count(), 1.5 * line);

    reader->addFault("26 1 endless");
    channel.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(channel.read(500).size(), 500u);
    channel.write(TestHost::frame(hex("26 00")));
    EXPECT_TRUE(eventually([&] { return reader->ledByte() == 0; })) << "the next command ends it";
}

TEST_F(EndpointTest, ReaderThatVanishesTakesItsPortAlong) {
    TerminalEndpoint endpoint(reader, directory / "new/root", 7);
    ASSERT_EQ(endpoint.start(), "");
    EXPECT_EQ(endpoint.path(), directory / "new/root/COM7");
    Channel channel(endpoint.path());
    reader->addFault("26 1 vanish between");
    channel.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(TestHost::told(channel.read(6)), "ACK") << "what was sent before still arrives";
    EXPECT_TRUE(channel.isHungUp());
    EXPECT_FALSE(isThere(endpoint.path()));
    reader->comeBack();
    ASSERT_TRUE(eventually([&] { return isThere(endpoint.path()); }));
    EXPECT_EQ(Channel(endpoint.path()).ask("26 15", 10), "27 00");
    endpoint.stop();
    EXPECT_FALSE(isThere(endpoint.path()));
}

TEST_F(EndpointTest, SocketCarriesOneFrameAMessageToOneHostAtATime) {
    SocketEndpoint endpoint(reader, directory / std::string(60, 'd'), kClass, "reader1");
    ASSERT_EQ(endpoint.start(), "");
    EXPECT_GT(endpoint.path().size(), 107u) << "longer than an address";
    std::optional<Channel> first(endpoint.path());
    EXPECT_EQ(first->ask("26 15", 10), "27 00");
    Channel second(endpoint.path());
    second.write(TestHost::frame(hex("26 16")));
    EXPECT_EQ(first->ask("26 17", 10), "27 00");
    EXPECT_EQ(reader->ledByte(), 0x17) << "the second host waits";
    first.reset();
    EXPECT_EQ(TestHost::told(second.read(6)), "ACK");
    EXPECT_EQ(TestHost::told(second.read(10)), "27 00");
    const auto underFault = [&](const char* rule, std::size_t replyBytes) {
        reader->addFault(std::string_view(rule));
        second.write(TestHost::frame(hex("26 15")));
        EXPECT_EQ(second.read(6).size(), 6u);
        return second.read(replyBytes).size();
    };
    EXPECT_EQ(underFault("26 1 extended 65545", 1024), 1024u) << "cut by the host's buffer, not by the reader";
    const auto begin = Clock::now();
    EXPECT_EQ(underFault("26 1 overdue 30", 10), 10u);
    EXPECT_GT(Clock::now() - begin, std::chrono::milliseconds(20));
    EXPECT_EQ(underFault("26 1 endless", 100'000), 100'000u);
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
    EXPECT_EQ(Channel(endpoint.path()).ask("26 15", 10), "27 00");
    std::filesystem::remove(endpoint.path());
    std::filesystem::create_symlink("/dev/null", endpoint.path());
    endpoint.stop();
    EXPECT_TRUE(isThere(directory / "COM2")) << "somebody else's link stays";
}

}  // namespace

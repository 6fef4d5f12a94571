// The lines on which the virtual reader can be reached.

#include "TempDirectory.h"
#include "TestHost.h"

#include "DeviceNode.h"
#include "SocketEndpoint.h"
#include "TerminalEndpoint.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <set>
#include <thread>

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

struct EndpointTest : ::testing::Test {
    bool isThere(const std::string& path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }
    SocketEndpoint socket(const std::string& name) { return {reader, directory.path(), kClass, name}; }

    TempDirectory directory;
    std::shared_ptr<VirtualTamaReader> reader = std::make_shared<VirtualTamaReader>();
};

TEST_F(EndpointTest, TerminalPacesBothDirections) {
    constexpr int kBaud = 19200, kRounds = 25;
    TerminalEndpoint endpoint(reader, directory.path(), 1, kBaud);
    ASSERT_EQ(endpoint.start(), "");
    Channel channel(endpoint.path());
    // 8 bytes there, 6 + 23 bytes back. A busy machine makes rounds longer, but not each of them.
    const std::chrono::duration<double> line((8 + 6 + 23) * 10.0 / kBaud);
    auto shortest = Clock::duration::max();
    for (int round = 0; round < kRounds; ++round) {
        const auto begin = Clock::now();
        EXPECT_EQ(channel.ask("24", 23).substr(0, 5), "25 00");
        shortest = std::min(shortest, Clock::now() - begin);
    }
    EXPECT_GT(shortest, 0.98 * line);
    EXPECT_LT(shortest, 1.5 * line);

    reader->addFault("26 1 endless");
    channel.write(TestHost::frame(hex("26 15")));
    EXPECT_EQ(channel.read(500).size(), 500u);
    channel.write(TestHost::frame(hex("26 00")));
    for (int ms = 0; reader->ledByte() != 0 && ms < kPatienceMs; ++ms)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(reader->ledByte(), 0) << "the next command ends it";
}

TEST_F(EndpointTest, NameFollowsTheReader) {
    TerminalEndpoint terminal(reader, directory / "new/root", 7);
    SocketEndpoint socket(reader, directory.path(), kClass, std::string(200, 's'));
    EXPECT_EQ(terminal.path(), directory / "new/root/COM7");
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(terminal.start() + socket.start(), "");
        Channel channel(terminal.path());
        reader->addFault("26 1 vanish between");
        channel.write(TestHost::frame(hex("26 15")));
        EXPECT_EQ(TestHost::told(channel.read(6)), "ACK") << "what was sent before still arrives";
        EXPECT_TRUE(channel.isHungUp());
        for (const bool isBack : {false, true, false, true}) {
            isBack ? reader->comeBack() : reader->vanish();
            EXPECT_EQ(terminal.settle() + socket.settle(), "");
            EXPECT_EQ(isThere(terminal.path()), isBack);
            EXPECT_EQ(isThere(socket.path()), isBack);
        }
        EXPECT_EQ(Channel(terminal.path()).ask("26 15", 10), "27 00");
        terminal.stop();
        socket.stop();
    }
    EXPECT_TRUE(std::filesystem::is_empty(directory / "new/root"));
    EXPECT_TRUE(std::filesystem::is_empty(directory / kClass));
}

TEST_F(EndpointTest, HostsThatScanSeeNothingButTheName) {
    std::atomic<bool> hasEnded = false;
    std::set<std::string> seen;
    std::filesystem::create_directory(directory / kClass);
    std::thread host([&] {
        for (bool isLast = false; !isLast;) {
            isLast = hasEnded;  // the reader is back then
            for (const auto& entry : std::filesystem::directory_iterator(directory / kClass))
                seen.insert(entry.path().filename());
        }
    });
    SocketEndpoint endpoint = socket("reader1");
    ASSERT_EQ(endpoint.start(), "");
    for (int round = 0; round < 200; ++round) {
        round % 2 == 0 ? reader->vanish() : reader->comeBack();
        endpoint.settle();
    }
    hasEnded = true;
    host.join();
    EXPECT_EQ(seen, std::set<std::string>{"reader1"});
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
    const std::pair<const char*, std::size_t> faults[] = {// The first is cut by the host's buffer, not by the reader.
                                                          {"26 1 extended 65545", 1024},
                                                          {"26 1 overdue 30", 10},
                                                          {"26 1 endless", 100'000}};
    for (const auto& [rule, replyBytes] : faults) {
        const auto begin = Clock::now();
        reader->addFault(std::string_view(rule));
        second.write(TestHost::frame(hex("26 15")));
        EXPECT_EQ(second.read(6).size(), 6u);
        EXPECT_EQ(second.read(replyBytes).size(), replyBytes);
        EXPECT_TRUE(replyBytes != 10 || Clock::now() - begin > std::chrono::milliseconds(20));
    }
}

TEST_F(EndpointTest, NamesInUseAreRefusedAndLeftoversReplaced) {
    directory.write("COM1", "a file");
    directory.write(std::string(kClass) + "/file", "");
    std::filesystem::create_symlink("/dev/pts/none", directory / "COM2");
    std::filesystem::create_directory(directory / ".COM2");  // of a simulator that was killed
    std::filesystem::create_symlink("none", directory / ".COM2/new");
    TerminalEndpoint blocked(reader, directory.path(), 1), endpoint(reader, directory.path(), 2),
        again(reader, directory.path(), 2);
    SocketEndpoint file = socket("file"), first = socket("one"), second = socket("one");
    EXPECT_THAT(blocked.start(), testing::HasSubstr("something other than a link has this name"));
    EXPECT_THAT(file.start(), testing::HasSubstr("something other than a socket has this name"));
    EXPECT_EQ(endpoint.start() + first.start(), "");
    EXPECT_EQ(Channel(endpoint.path()).ask("26 15", 10), "27 00");
    EXPECT_THAT(again.start(), testing::HasSubstr("COM2: another simulator serves this name"));
    EXPECT_THAT(second.start(), testing::HasSubstr("one: another simulator serves this name"));
    EXPECT_TRUE(Channel(first.path()).ask("26 15", 10) == "27 00") << "undisturbed";
    first.stop();
    EXPECT_EQ(second.start(), "");
    std::filesystem::remove(endpoint.path());
    std::filesystem::create_symlink("/dev/null", endpoint.path());
    endpoint.stop();
    EXPECT_TRUE(isThere(directory / "COM2")) << "somebody else's link stays";
}

}  // namespace

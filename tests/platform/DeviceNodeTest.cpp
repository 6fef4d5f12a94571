// Devices that move whole messages.

#include "DeviceNode.h"

#include "Deadline.h"
#include "ForkedChild.h"
#include "PseudoTerminal.h"
#include "TempDirectory.h"

#include <array>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <vector>

namespace fs = std::filesystem;
using namespace platform;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kLongMs = 20000;              // a wait that must not go to its end
constexpr std::chrono::milliseconds kSystemTick{10};  // the system may end a wait so much too soon

int interruptions = 0;  // reads that a signal is to cut short, which this system does with few drivers only

/// A socket of the far side.
class Socket {
  public:
    explicit Socket(int descriptor) : mDescriptor(descriptor) {}
    ~Socket() { ::close(mDescriptor); }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    bool send(std::size_t size) const {
        const std::vector<std::uint8_t> message(size, 0x5A);
        return ::send(mDescriptor, message.data(), size, MSG_NOSIGNAL) == static_cast<ssize_t>(size);
    }
    ssize_t receive() const {
        std::vector<std::uint8_t> buffer(1 << 17);
        return ::recv(mDescriptor, buffer.data(), buffer.size(), 0);
    }
    int get() const { return mDescriptor; }

  private:
    int mDescriptor;
};

/// Binds a socket at `directory`/`name` by its short name and, with a backlog, listens.
std::unique_ptr<Socket> serve(const std::string& directory, const std::string& name, int type, int backlog) {
    auto socket = std::make_unique<Socket>(::socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    const fs::path former = fs::current_path();
    fs::current_path(directory);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
    const int bound = ::bind(socket->get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
    fs::current_path(former);
    if (bound != 0 || (backlog >= 0 && ::listen(socket->get(), backlog) != 0)) return nullptr;
    return socket;
}

}  // namespace

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (interruptions == 0) return ::syscall(SYS_read, descriptor, buffer, size);
    --interruptions;
    errno = EINTR;
    return -1;
}

namespace {

class DeviceNodeTest : public testing::Test {
  protected:
    void connect() {
        auto listener = serve(mDirectory.path(), "reader", SOCK_SEQPACKET, 1);
        ASSERT_TRUE(listener && mNode.open((mDirectory / "reader").c_str()));
        mPeer = std::make_unique<Socket>(::accept(listener->get(), nullptr, nullptr));
    }
    IoResult read(std::uint32_t timeoutMs = kLongMs) { return mNode.read(mBuffer, mCount, timeoutMs); }
    IoResult write(std::size_t size, std::uint32_t timeoutMs = kLongMs) {
        return mNode.write(std::vector<std::uint8_t>(size, 0xA5), mCount, timeoutMs);
    }

    void expectFullWait(std::uint32_t ms) {
        const auto start = SteadyClock::now();
        EXPECT_EQ(read(ms), IoResult::timedOut) << ms;
        EXPECT_GE(SteadyClock::now() - start + kSystemTick, std::chrono::milliseconds(ms));
    }

    TempDirectory mDirectory;
    DeviceNode mNode;
    std::unique_ptr<Socket> mPeer;
    std::vector<std::uint8_t> mBuffer = std::vector<std::uint8_t>(1024);
    std::size_t mCount = 0;
};

TEST_F(DeviceNodeTest, OpensWhatCanBeOpenedWithoutWaiting) {
    const std::string& in = mDirectory.path();
    ::mkfifo((mDirectory / "fifo").c_str(), 0600);
    fs::create_symlink("nowhere", mDirectory / "dangling");
    fs::create_symlink("loop", mDirectory / "loop");
    const auto deaf = serve(in, "deaf", SOCK_SEQPACKET, -1);
    const auto stream = serve(in, "stream", SOCK_STREAM, 1);
    const auto packets = serve(in, "packets", SOCK_SEQPACKET, 1);
    const auto busy = serve(in, "busy", SOCK_SEQPACKET, 0);
    DeviceNode inTheQueue;
    ASSERT_TRUE(inTheQueue.open((mDirectory / "busy").c_str()));
    // Around the room for a path in an address, 108 bytes.
    std::array<std::string, 3> deep;
    std::array<std::unique_ptr<Socket>, 3> ends;
    for (std::size_t i = 0; i < deep.size(); ++i) {
        deep[i] = std::string(107 + i - mDirectory.path().size() - 3, 'd');
        fs::create_directories(mDirectory / deep[i]);
        ends[i] = serve(mDirectory / deep[i], "s", SOCK_SEQPACKET, 1);
    }
    mDirectory.write("file", "content");

    const std::pair<std::string, bool> cases[] = {{"file", true},
                                                  {"fifo", true},
                                                  {"packets", true},
                                                  {deep[0] + "/s", true},
                                                  {deep[1] + "/s", true},
                                                  {deep[2] + "/s", true},
                                                  {".", false},
                                                  {"absent", false},
                                                  {"loop", false},
                                                  {"deaf", false},
                                                  {deep[2] + "/t", false},
                                                  {"stream", false},
                                                  {"busy", false},
                                                  {"dangling", false},
                                                  {"file/x", false},
                                                  {std::string(300, 'n'), false}};
    for (const auto& [name, opens] : cases) {
        EXPECT_EQ(mNode.open((mDirectory / name).c_str()), opens) << name;
        EXPECT_EQ(mNode.isOpen(), opens) << name;
    }
}

TEST_F(DeviceNodeTest, KeepsMessagesApart) {
    connect();
    for (std::size_t size : {0u, 1u, 1024u, 1025u, 70000u, 0u}) {
        ASSERT_TRUE(mPeer->send(size));
        ASSERT_TRUE(mPeer->send(3));
        EXPECT_EQ(read(), IoResult::done) << size;
        EXPECT_EQ(mCount, std::min(size, mBuffer.size()));
        EXPECT_EQ(read(), IoResult::done);
        EXPECT_EQ(mCount, 3u);
        EXPECT_EQ(write(size), IoResult::done);
        EXPECT_EQ(mCount, size);
        EXPECT_EQ(mPeer->receive(), static_cast<ssize_t>(size));
    }
}

TEST_F(DeviceNodeTest, TellsAClosedPeerFromASilentOne) {
    connect();
    for (std::uint32_t ms : {0u, 20u, 0u, 60u, 20u})
        expectFullWait(ms);
    ASSERT_TRUE(mPeer->send(5));
    EXPECT_EQ(read(kNoLimit), IoResult::done);
    ASSERT_TRUE(mPeer->send(6));
    mPeer.reset();
    EXPECT_EQ(read(), IoResult::done);
    EXPECT_EQ(mCount, 6u);
    EXPECT_EQ(read(), IoResult::failed);
    EXPECT_EQ(mCount, 0u);
    EXPECT_EQ(read(kNoLimit), IoResult::failed);
    EXPECT_EQ(write(1), IoResult::failed);
}

TEST_F(DeviceNodeTest, ForkedChildLeavesTheDialogueOfItsParentAlone) {
    connect();
    ASSERT_TRUE(mPeer->send(5));
    EXPECT_EQ(ForkedChild([&] { return write(1) == IoResult::failed && read() == IoResult::failed; }).wait(), 1);
    EXPECT_EQ(read(), IoResult::done);
    EXPECT_EQ(mCount, 5u);
}

TEST_F(DeviceNodeTest, SignalsDoNotShortenAWait) {
    connect();
    const auto former = std::signal(SIGALRM, [](int) {});
    const itimerval every2Ms{{0, 2000}, {0, 2000}}, off{};
    ::setitimer(ITIMER_REAL, &every2Ms, nullptr);
    expectFullWait(50);
    ::setitimer(ITIMER_REAL, &off, nullptr);
    std::signal(SIGALRM, former);
}

TEST_F(DeviceNodeTest, WriteToAPeerThatDoesNotReadIsBounded) {
    connect();
    IoResult result = IoResult::done;
    for (int i = 0; i < 10000 && result == IoResult::done; ++i)
        result = write(1000, i % 2 == 0 ? 20 : 0);
    EXPECT_EQ(result, IoResult::timedOut);
    EXPECT_EQ(mPeer->receive(), 1000);
}

TEST_F(DeviceNodeTest, MovesBytesThroughOtherNodes) {
    ::mkfifo((mDirectory / "fifo").c_str(), 0600);
    ASSERT_TRUE(mNode.open((mDirectory / "fifo").c_str()));
    EXPECT_EQ(read(10), IoResult::timedOut);
    EXPECT_EQ(write(7), IoResult::done);
    interruptions = 2;
    EXPECT_EQ(read(), IoResult::done);
    EXPECT_EQ(mCount, 7u);
    EXPECT_EQ(write(1 << 20, 20), IoResult::timedOut);
    EXPECT_GT(mCount, 0u);

    ASSERT_TRUE(mNode.open(mDirectory.write("file", "four").c_str()));
    EXPECT_EQ(read(), IoResult::done);
    EXPECT_EQ(mCount, 4u);
    EXPECT_EQ(read(), IoResult::failed);  // nothing more will come

    PseudoTerminal terminal;
    ASSERT_TRUE(mNode.open(terminal.path().c_str()));
    EXPECT_EQ(read(0), IoResult::timedOut);
    terminal.closeMaster();
    EXPECT_EQ(read(), IoResult::failed);
    EXPECT_EQ(write(1), IoResult::failed);
}

}  // namespace

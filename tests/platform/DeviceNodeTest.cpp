// Devices that move whole messages.

#include "DeviceNode.h"

#include "Deadline.h"
#include "PlatformTest.h"

#include <array>
#include <sys/syscall.h>
#include <sys/time.h>

static int interruptions = 0;  // reads that a signal is to cut short, which this system does with few drivers only

extern "C" ssize_t read(int descriptor, void* buffer, std::size_t size) {
    if (interruptions == 0) return ::syscall(SYS_read, descriptor, buffer, size);
    --interruptions;
    errno = EINTR;
    return -1;
}

namespace {

constexpr std::chrono::milliseconds kSystemTick{10};  // the system may end a wait so much too soon

class DeviceNodeTest : public testing::Test {
  protected:
    void connect() {
        auto listener = serve(mDirectory.path(), "reader", SOCK_SEQPACKET, 1);
        ASSERT_TRUE(listener && mNode.open((mDirectory / "reader").c_str()));
        mPeer = std::make_unique<Socket>(::accept(listener->get(), nullptr, nullptr));
    }
    IoResult read(std::uint32_t timeoutMs = kLongMs) { return mNode.read(mBuffer, mCount, timeoutMs); }
    /// Size of what is read, -1 if that fails.
    int sizeRead() { return read() == IoResult::done ? static_cast<int>(mCount) : -1; }
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

    const std::pair<bool, std::vector<std::string>> cases[] = {
        {true, {"file", "fifo", "packets", deep[0] + "/s", deep[1] + "/s", deep[2] + "/s"}},
        {false,
         {".", "absent", "loop", "deaf", deep[2] + "/t", "stream", "busy", "dangling", "file/x",
          std::string(300, 'n')}}};
    for (const auto& [opens, names] : cases)
        for (const std::string& name : names) {
            EXPECT_EQ(mNode.open((mDirectory / name).c_str()), opens) << name;
            EXPECT_EQ(mNode.isOpen(), opens) << name;
        }
}

TEST_F(DeviceNodeTest, KeepsMessagesApart) {
    connect();
    for (std::size_t size : {0u, 1u, 1024u, 1025u, 70000u, 0u}) {
        ASSERT_TRUE(mPeer->send(size) && mPeer->send(3));
        EXPECT_EQ(sizeRead(), static_cast<int>(std::min(size, mBuffer.size())));
        EXPECT_EQ(sizeRead(), 3);
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
    EXPECT_EQ(sizeRead(), 6);
    EXPECT_EQ(read(), IoResult::failed);
    EXPECT_EQ(mCount, 0u);
    EXPECT_EQ(read(kNoLimit), IoResult::failed);
    EXPECT_EQ(write(1), IoResult::failed);
}

TEST_F(DeviceNodeTest, ForkedChildLeavesTheDialogueOfItsParentAlone) {
    connect();
    ASSERT_TRUE(mPeer->send(5));
    EXPECT_EQ(ForkedChild([&] { return write(1) == IoResult::failed && read() == IoResult::failed; }).wait(), 1);
    EXPECT_EQ(sizeRead(), 5);
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
    EXPECT_EQ(sizeRead(), 7);
    EXPECT_EQ(write(1 << 20, 20), IoResult::timedOut);
    EXPECT_GT(mCount, 0u);

    ASSERT_TRUE(mNode.open(mDirectory.write("file", "four").c_str()));
    EXPECT_EQ(sizeRead(), 4);
    EXPECT_EQ(read(), IoResult::failed);  // nothing more will come

    PseudoTerminal terminal;
    ASSERT_TRUE(mNode.open(terminal.path().c_str()));
    EXPECT_EQ(read(0), IoResult::timedOut);
    terminal.closeMaster();
    EXPECT_EQ(read(), IoResult::failed);
    EXPECT_EQ(write(1), IoResult::failed);
}

}  // namespace

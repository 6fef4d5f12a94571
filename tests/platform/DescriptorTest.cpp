// What everything that opens something owes its host: no standard descriptor taken, nothing inherited, nothing leaked.

#include "DeviceNode.h"
#include "Files.h"
#include "NamedMutex.h"
#include "PlatformTest.h"
#include "SerialLine.h"

#include <fcntl.h>

namespace {

constexpr int kMostDescriptors = 256;

std::vector<bool> openDescriptors() {
    std::vector<bool> open;
    for (int i = 0; i < kMostDescriptors; ++i)
        open.push_back(::fcntl(i, F_GETFD) >= 0);
    return open;
}

class DescriptorTest : public testing::Test {
  protected:
    DescriptorTest() { setNamedMutexDirectory(mDirectory.path().c_str()); }
    ~DescriptorTest() override { setNamedMutexDirectory(nullptr); }

    TempDirectory mDirectory;
    const std::string mSocket = mDirectory / "socket";
    PseudoTerminal mFarEnd;
    std::unique_ptr<Socket> mListener = serve(mDirectory.path(), "socket", SOCK_SEQPACKET, 4);
};

TEST_F(DescriptorTest, LeavesTheStandardOnesAloneAndIsNotInherited) {
    ForkedChild child([&] {
        const auto wasOpen = openDescriptors();
        ::close_range(0, 2, 0);
        DeviceNode socket, file;
        SerialLine line;
        AppendFile log;
        NamedMutex mutex("lock");
        if (!socket.open(mSocket.c_str()) || !file.open("/dev/null") || !mutex.isMachineWide()) return 1;
        if (line.open(mFarEnd.path().c_str()) != 0 || log.open((mDirectory / "log").c_str()) != 0) return 2;
        for (int i = 0; i < kMostDescriptors; ++i) {
            const int flags = ::fcntl(i, F_GETFD);
            if (i <= 2 ? flags >= 0 : flags >= 0 && !wasOpen[static_cast<std::size_t>(i)] && (flags & FD_CLOEXEC) == 0)
                return 100 + i;
        }
        return 0;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(DescriptorTest, CyclesOfOpenAndCloseLeakNothing) {
    fs::create_symlink("nowhere", mDirectory / "link");
    SerialLine owner;
    PseudoTerminal taken;
    ASSERT_EQ(owner.open(taken.path().c_str()), 0);
    const auto before = openDescriptors();
    for (int i = 0; i < 1000; ++i) {
        DeviceNode node, again;
        SerialLine line, refused;
        AppendFile log;
        EXPECT_TRUE(node.open(mSocket.c_str()));
        ::close(::accept(mListener->get(), nullptr, nullptr));
        EXPECT_TRUE(again.open("/dev/null"));
        EXPECT_FALSE(again.open((mDirectory / "link").c_str()));
        EXPECT_EQ(line.open(mFarEnd.path().c_str()), 0);
        EXPECT_EQ(line.open(mFarEnd.path().c_str()), 0);
        EXPECT_EQ(refused.open(taken.path().c_str()), EBUSY);
        EXPECT_EQ(refused.open("/dev/null"), ENOTTY);
        EXPECT_EQ(log.open((mDirectory / "log").c_str()), 0);
        EXPECT_EQ(log.open((mDirectory / "link").c_str()), ELOOP);
    }
    EXPECT_EQ(openDescriptors(), before);
}

}  // namespace

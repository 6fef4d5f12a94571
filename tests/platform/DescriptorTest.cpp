// What everything that opens something owes its host: no standard descriptor taken, nothing inherited, nothing leaked.

#include "DeviceNode.h"
#include "Files.h"
#include "ForkedChild.h"
#include "NamedMutex.h"
#include "PseudoTerminal.h"
#include "SerialLine.h"
#include "TempDirectory.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace fs = std::filesystem;
using namespace platform;

namespace {

constexpr int kMostDescriptors = 256;

int openDescriptors() {
    int count = 0;
    for (int i = 0; i < kMostDescriptors; ++i)
        count += ::fcntl(i, F_GETFD) >= 0;
    return count;
}

class DescriptorTest : public testing::Test {
  protected:
    DescriptorTest() : mListener(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        mSocket.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(::bind(mListener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(mListener, 4), 0);
        setNamedMutexDirectory(mDirectory.path().c_str());
    }
    ~DescriptorTest() override {
        setNamedMutexDirectory(nullptr);
        ::close(mListener);
    }

    TempDirectory mDirectory;
    const std::string mSocket = mDirectory / "socket";
    PseudoTerminal mFarEnd;
    int mListener;
};

TEST_F(DescriptorTest, LeavesTheStandardOnesAloneAndIsNotInherited) {
    ForkedChild child([&] {
        bool wasOpen[kMostDescriptors];
        for (int i = 0; i < kMostDescriptors; ++i)
            wasOpen[i] = ::fcntl(i, F_GETFD) >= 0;
        ::close(0);
        ::close(1);
        ::close(2);
        DeviceNode socket, file;
        SerialLine line;
        AppendFile log;
        NamedMutex mutex("lock");
        if (!socket.open(mSocket.c_str()) || !file.open("/dev/null")) return 1;
        if (line.open(mFarEnd.path().c_str()) != 0 || log.open((mDirectory / "log").c_str()) != 0) return 2;
        if (!mutex.isMachineWide()) return 3;
        for (int i = 0; i < kMostDescriptors; ++i) {
            const int flags = ::fcntl(i, F_GETFD);
            if (i <= 2 ? flags >= 0 : flags >= 0 && !wasOpen[i] && (flags & FD_CLOEXEC) == 0) return 100 + i;
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
    const int before = openDescriptors();
    for (int i = 0; i < 1000; ++i) {
        DeviceNode node, again;
        SerialLine line, refused;
        AppendFile log;
        EXPECT_TRUE(node.open(mSocket.c_str()));
        ::close(::accept(mListener, nullptr, nullptr));
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

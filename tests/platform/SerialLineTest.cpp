#include "SerialLine.h"

#include "ForkedChild.h"
#include "PseudoTerminal.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <numeric>
#include <sys/stat.h>
#include <thread>
#include <vector>

using namespace platform;
using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

namespace {

constexpr std::uint32_t kLongMs = 20000;  // a wait that must not go to its end

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

class SerialLineTest : public testing::Test {
  protected:
    void SetUp() override {
        // Left by somebody who typed at it.
        termios settings{};
        ::tcgetattr(mFarEnd.master(), &settings);
        settings.c_iflag = ICRNL | IXON | ISTRIP | BRKINT;
        settings.c_oflag = OPOST | ONLCR;
        settings.c_lflag = ISIG | ICANON | ECHO | IEXTEN;
        ::tcsetattr(mFarEnd.master(), TCSANOW, &settings);
        ASSERT_EQ(mLine.open(mFarEnd.path().c_str()), 0);
    }

    /// Reads in pieces of `piece` bytes until `size` are there.
    std::string receive(std::size_t size, std::size_t piece = 1) {
        std::string received;
        std::vector<std::uint8_t> buffer(piece);
        while (received.size() < size && mLine.waitReadable(kLongMs) == IoResult::done) {
            std::size_t count = 0;
            if (mLine.read(buffer, count) != IoResult::done) break;
            received.append(buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(count));
        }
        return received;
    }
    IoResult readOne() {
        std::uint8_t byte;
        std::size_t count;
        return mLine.read({&byte, 1}, count);
    }

    PseudoTerminal mFarEnd;
    SerialLine mLine;
};

bool operator==(const LineSettings& a, const LineSettings& b) {
    return std::tie(a.baudRate, a.dataBits, a.parity, a.stopBits) ==
           std::tie(b.baudRate, b.dataBits, b.parity, b.stopBits);
}

TEST_F(SerialLineTest, TakesAnyBaudRateAndRefusesWhatTheDriverDoesNotTake) {
    for (std::uint32_t baudRate : {9600u, 19200u, 115200u, 921600u, 12345u, 50u}) {
        const LineSettings wanted{baudRate, 8, 0, baudRate == 9600 ? 2u : 0u};
        EXPECT_EQ(mLine.apply(wanted), 0) << baudRate;
        LineSettings taken{};
        EXPECT_EQ(mLine.settings(taken), 0);
        EXPECT_TRUE(taken == wanted) << baudRate;
    }
    LineSettings before{}, after{};
    mLine.settings(before);
    // A pseudo-terminal takes eight bits without parity only, and says nothing when it is asked for others.
    for (const LineSettings& refused : {LineSettings{0, 8, 0, 0},
                                        {9600, 9, 0, 0},
                                        {9600, 8, 3, 0},
                                        {9600, 8, 0, 1},
                                        {9600, 8, 0, 3},
                                        {9600, 7, 0, 0},
                                        {9600, 8, 2, 0}}) {
        EXPECT_EQ(mLine.apply(refused), EINVAL) << refused.dataBits << refused.parity << refused.stopBits;
        EXPECT_EQ(mLine.settings(after), 0);
        EXPECT_TRUE(after == before);
    }
}

TEST_F(SerialLineTest, KeepsItsHandshaking) {
    Handshaking now{};
    for (Handshaking mode : {Handshaking::hardware, Handshaking::software, Handshaking::off}) {
        EXPECT_EQ(mLine.setHandshaking(mode), 0);
        EXPECT_EQ(mLine.handshaking(now), 0);
        EXPECT_EQ(now, mode);
    }
}

TEST_F(SerialLineTest, CarriesEveryByteInBothDirections) {
    std::string all(256, '\0');
    std::iota(all.begin(), all.end(), '\0');
    std::string longer;
    for (int i = 0; i < 5; ++i)
        longer += all;
    for (std::size_t piece : {1u, 100u, 2000u}) {
        ASSERT_TRUE(mFarEnd.write(longer));
        EXPECT_EQ(receive(longer.size(), piece), longer) << piece;
    }
    std::size_t count = 0;
    EXPECT_EQ(mLine.write(bytesOf(longer), count, kLongMs), IoResult::done);
    EXPECT_EQ(count, longer.size());
    EXPECT_EQ(mFarEnd.read(longer.size()), longer);
}

TEST_F(SerialLineTest, SilenceIsNoFailureAndEndsWithItsTime) {
    std::uint8_t byte;
    std::size_t count = 9;
    EXPECT_EQ(mLine.read({&byte, 1}, count), IoResult::done);
    EXPECT_EQ(count, 0u);
    for (std::uint32_t ms : {0u, 20u, 130u}) {
        const auto start = SteadyClock::now();
        EXPECT_EQ(mLine.waitReadable(ms), IoResult::timedOut) << ms;
        EXPECT_GE(SteadyClock::now() - start, std::chrono::milliseconds(ms));
    }
}

TEST_F(SerialLineTest, WaitEndsOnTheByte) {
    auto soonest = SteadyClock::duration::max();
    for (int attempt = 0; attempt < 5; ++attempt) {
        SteadyClock::time_point sent;
        std::thread sender([&] {
            std::this_thread::sleep_for(20ms);
            sent = SteadyClock::now();
            mFarEnd.write("a");
        });
        EXPECT_EQ(mLine.waitReadable(kLongMs), IoResult::done);
        const auto woken = SteadyClock::now();
        sender.join();
        soonest = std::min(soonest, woken - sent);
        EXPECT_EQ(receive(1), "a");
    }
    EXPECT_LT(soonest, 40ms);
}

TEST_F(SerialLineTest, LostLineFailsAtOnceButDeliversWhatCameBefore) {
    ASSERT_TRUE(mFarEnd.write("last words"));
    EXPECT_EQ(receive(1), "l");
    mFarEnd.closeMaster();
    EXPECT_EQ(receive(100, 3), "ast words");
    EXPECT_EQ(readOne(), IoResult::failed);
    EXPECT_NE(mLine.lastError(), 0);
    EXPECT_EQ(mLine.waitReadable(kLongMs), IoResult::failed);
    std::size_t count;
    EXPECT_EQ(mLine.write(bytesOf("x"), count, kLongMs), IoResult::failed);
    std::uint32_t events;
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived, events, kLongMs), IoResult::failed);
}

TEST_F(SerialLineTest, LossEndsARunningWait) {
    std::thread plug([&] {
        std::this_thread::sleep_for(20ms);
        mFarEnd.closeMaster();
    });
    EXPECT_EQ(mLine.waitReadable(kLongMs), IoResult::failed);
    plug.join();
}

TEST_F(SerialLineTest, StuckPeerStopsNeitherWriteNorClose) {
    const std::string flood(1 << 20, 'x');
    std::size_t count = 0;
    EXPECT_EQ(mLine.write(bytesOf(flood), count, 30), IoResult::timedOut);
    EXPECT_GT(count, 0u);
    EXPECT_LT(count, flood.size());
    EXPECT_EQ(mLine.write(bytesOf(flood), count, 0), IoResult::timedOut);
    const auto start = SteadyClock::now();
    mLine.close();
    EXPECT_LT(SteadyClock::now() - start, 1s);
    EXPECT_EQ(mLine.open(mFarEnd.path().c_str()), 0);
}

TEST_F(SerialLineTest, PurgeDropsWhatHasArrived) {
    ASSERT_TRUE(mFarEnd.write("some more"));
    EXPECT_EQ(receive(1), "s");
    EXPECT_EQ(mLine.purge(), 0);
    EXPECT_EQ(mLine.waitReadable(0), IoResult::timedOut);
}

TEST_F(SerialLineTest, BelongsToOneUserAtATime) {
    const char* path = mFarEnd.path().c_str();
    const auto openInChild = [path] { return ForkedChild([path] { return SerialLine().open(path); }).wait(); };
    EXPECT_EQ(SerialLine().open(path), EBUSY);
    EXPECT_EQ(openInChild(), EBUSY);
    mLine.close();
    EXPECT_EQ(openInChild(), 0);

    Signpost opened;
    ForkedChild owner([&] {
        SerialLine line;
        if (line.open(path) == 0) opened.post();
        return ::pause();
    });
    ASSERT_TRUE(opened.await());
    EXPECT_EQ(mLine.open(path), EBUSY);
    EXPECT_FALSE(mLine.isOpen());
    owner.kill();
    EXPECT_EQ(mLine.open(path), 0);
}

TEST_F(SerialLineTest, ReportsTheEventsOfItsMask) {
    std::uint32_t events = 0;
    mLine.setEventCharacter('!');
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived | kLineBreak | kLineError, events, 10), IoResult::timedOut);
    EXPECT_EQ(events, 0u);

    ASSERT_TRUE(mFarEnd.write("no"));
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived | kLineEventCharacter, events, kLongMs), IoResult::done);
    EXPECT_EQ(events, kLineByteArrived);
    EXPECT_EQ(mLine.waitEvent(kLineEventCharacter, events, 10), IoResult::timedOut);

    std::thread sender([&] {
        std::this_thread::sleep_for(10ms);
        mFarEnd.write("w!");
    });
    EXPECT_EQ(mLine.waitEvent(kLineEventCharacter, events, kLongMs), IoResult::done);
    sender.join();
    EXPECT_EQ(events, kLineEventCharacter);
    EXPECT_EQ(receive(4, 4), "now!");  // waiting takes nothing away
}

TEST(SerialLineOpenTest, WantsATerminal) {
    const TempDirectory directory;
    const std::string fifo = directory / "fifo";
    ::mkfifo(fifo.c_str(), 0600);
    SerialLine line;
    const std::pair<std::string, int> cases[] = {{"/dev/null", ENOTTY},
                                                 {directory.write("file", ""), ENOTTY},
                                                 {fifo, ENOTTY},
                                                 {directory.path(), EISDIR},
                                                 {directory / "absent", ENOENT}};
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(line.open(path.c_str()), error) << path;
        EXPECT_EQ(line.lastError(), error);
        EXPECT_FALSE(line.isOpen());
    }
}

TEST(SerialLineOpenTest, FindsAPublishedPortByNumber) {
    const TempDirectory root;
    const ScopedEnvironment environment("QVL_DEVICE_ROOT", root.path().c_str());
    PseudoTerminal farEnd;
    std::filesystem::create_symlink(farEnd.path(), root / "COM3");
    SerialLine line;
    EXPECT_EQ(line.open("COM3"), 0);
    std::size_t count;
    EXPECT_EQ(line.write(bytesOf("hello"), count, kLongMs), IoResult::done);
    EXPECT_EQ(farEnd.read(5), "hello");
}

}  // namespace

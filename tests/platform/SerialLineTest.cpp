// The serial line, on a pseudo-terminal.

#include "SerialLine.h"
#include "PlatformTest.h"

#include <algorithm>
#include <numeric>

namespace {

std::jthread later(const std::function<void()>& action) {
    return std::jthread([action] {
        std::this_thread::sleep_for(20ms);
        action();
    });
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

    IoResult read() { return mLine.read({&mByte, 1}, mCount); }
    IoResult write(const std::string& text, std::uint32_t ms = kLongMs) {
        return mLine.write({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, mCount, ms);
    }

    PseudoTerminal mFarEnd;
    SerialLine mLine;
    std::uint8_t mByte = 0;
    std::size_t mCount = 9;
    std::uint32_t mEvents = 0;
};

TEST_F(SerialLineTest, TakesAnyBaudRateAndRefusesWhatTheDriverDoesNotTake) {
    LineSettings taken{};
    // A pseudo-terminal takes eight bits without parity only, and says nothing when it is asked for others.
    const std::pair<LineSettings, int> cases[] = {
        {{9600, 8, 0, 2}, 0},      {{115200, 8, 0, 0}, 0},    {{921600, 8, 0, 0}, 0},    {{12345, 8, 0, 0}, 0},
        {{50, 8, 0, 0}, 0},        {{0, 8, 0, 0}, EINVAL},    {{9600, 9, 0, 0}, EINVAL}, {{9600, 8, 3, 0}, EINVAL},
        {{9600, 8, 0, 1}, EINVAL}, {{9600, 8, 0, 3}, EINVAL}, {{9600, 7, 0, 0}, EINVAL}, {{9600, 8, 2, 0}, EINVAL}};
    for (const auto& [asked, error] : cases) {
        EXPECT_EQ(mLine.apply(asked), error) << asked.baudRate << asked.dataBits << asked.parity << asked.stopBits;
        EXPECT_EQ(mLine.settings(taken), 0);
        const LineSettings wanted = error == 0 ? asked : LineSettings{50, 8, 0, 0};
        EXPECT_EQ(std::tie(taken.baudRate, taken.dataBits, taken.parity, taken.stopBits),
                  std::tie(wanted.baudRate, wanted.dataBits, wanted.parity, wanted.stopBits));
    }
}

TEST_F(SerialLineTest, CarriesEveryByteInBothDirections) {
    std::string all(1280, '\0');
    std::iota(all.begin(), all.end(), '\0');
    for (std::size_t piece : {1u, 100u, 2000u}) {
        ASSERT_TRUE(mFarEnd.write(all));
        EXPECT_EQ(receive(all.size(), piece), all) << piece;
    }
    EXPECT_EQ(write(all), IoResult::done);
    EXPECT_EQ(mCount, all.size());
    EXPECT_EQ(mFarEnd.read(all.size()), all);
    ASSERT_TRUE(mFarEnd.write("some more"));
    EXPECT_EQ(receive(1), "s");
    EXPECT_EQ(mLine.purge(), 0);
    EXPECT_EQ(mLine.waitReadable(0), IoResult::timedOut) << "what had arrived is dropped";
}

TEST_F(SerialLineTest, SilenceIsNoFailureAndEndsWithItsTime) {
    EXPECT_EQ(read(), IoResult::done);
    EXPECT_EQ(mCount, 0u);
    for (std::uint32_t ms : {0u, 20u, 130u}) {
        const auto start = SteadyClock::now();
        EXPECT_EQ(mLine.waitReadable(ms), IoResult::timedOut) << ms;
        EXPECT_GE(SteadyClock::now() - start, std::chrono::milliseconds(ms));
    }
}

TEST_F(SerialLineTest, WaitEndsOnTheByteAndOnTheLoss) {
    auto soonest = SteadyClock::duration::max();
    for (int attempt = 0; attempt < 100 && soonest >= 40ms; ++attempt) {  // a busy machine needs some
        SteadyClock::time_point sent;
        std::jthread sender = later([&] {
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
    const std::jthread plug = later([&] { mFarEnd.closeMaster(); });
    EXPECT_EQ(mLine.waitReadable(kLongMs), IoResult::failed);
}

TEST_F(SerialLineTest, LostLineFailsAtOnceButDeliversWhatCameBefore) {
    ASSERT_TRUE(mFarEnd.write("last words"));
    EXPECT_EQ(receive(1), "l");
    mFarEnd.closeMaster();
    EXPECT_EQ(receive(100, 3), "ast words");
    EXPECT_EQ(read(), IoResult::failed);
    EXPECT_NE(mLine.lastError(), 0);
    EXPECT_EQ(mLine.waitReadable(kLongMs), IoResult::failed);
    EXPECT_EQ(write("x"), IoResult::failed);
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived, mEvents, kLongMs), IoResult::failed);
}

TEST_F(SerialLineTest, StuckPeerStopsNeitherWriteNorClose) {
    const std::string flood(1 << 20, 'x');
    EXPECT_EQ(write(flood, 30), IoResult::timedOut);
    EXPECT_TRUE(mCount > 0 && mCount < flood.size());
    EXPECT_EQ(write(flood, 0), IoResult::timedOut);
    const auto start = SteadyClock::now();
    mLine.close();
    EXPECT_LT(SteadyClock::now() - start, 1s);
    EXPECT_EQ(mLine.open(mFarEnd.path().c_str()), 0);
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
        return line.open(path) == 0 && opened.post() ? ::pause() : 1;
    });
    ASSERT_TRUE(opened.await());
    EXPECT_EQ(mLine.open(path), EBUSY);
    EXPECT_FALSE(mLine.isOpen());
    owner.kill();
    EXPECT_EQ(mLine.open(path), 0);
}

TEST_F(SerialLineTest, ForkedChildLeavesTheDialogueOfItsParentAlone) {
    ASSERT_TRUE(mFarEnd.write("answer"));
    EXPECT_EQ(receive(1), "a");  // the child inherits the rest in the buffer
    ASSERT_TRUE(mFarEnd.write("!"));
    const std::string flood(1 << 20, 'x');  // more than the far end holds: the rest is the line's to drop
    EXPECT_EQ(write(flood, 30), IoResult::timedOut);
    ForkedChild child([&] {
        const bool isRefused = read() == IoResult::failed && mLine.purge() != 0 && write("x") == IoResult::failed;
        mLine.close();
        return isRefused && !mLine.isOpen() ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(mFarEnd.read(mCount).size(), mCount);
    EXPECT_EQ(receive(6, 6), "nswer!");
    EXPECT_EQ(SerialLine().open(mFarEnd.path().c_str()), EBUSY) << "still the parent's own";
}

TEST_F(SerialLineTest, ReportsTheEventsOfItsMask) {
    mLine.setEventCharacter('!');
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived | kLineBreak | kLineError, mEvents, 10), IoResult::timedOut);
    ASSERT_TRUE(mFarEnd.write("no"));
    EXPECT_EQ(mLine.waitEvent(kLineByteArrived | kLineEventCharacter, mEvents, kLongMs), IoResult::done);
    EXPECT_EQ(mEvents, kLineByteArrived);
    EXPECT_EQ(mLine.waitEvent(kLineEventCharacter, mEvents, 10), IoResult::timedOut);
    const std::jthread sender = later([&] { mFarEnd.write("w!"); });
    EXPECT_EQ(mLine.waitEvent(kLineEventCharacter, mEvents, kLongMs), IoResult::done);
    EXPECT_EQ(receive(4, 4), "now!");  // waiting takes nothing away
}

TEST(SerialLineOpenTest, WantsATerminalAndFindsAPublishedPortByNumber) {
    const TempDirectory directory;
    const ScopedEnvironment environment("QVL_DEVICE_ROOT", directory.path().c_str());
    const std::string fifo = directory / "fifo";
    ::mkfifo(fifo.c_str(), 0600);
    PseudoTerminal farEnd;
    std::filesystem::create_symlink(farEnd.path(), directory / "COM3");
    SerialLine line;
    const std::pair<std::string, int> cases[] = {
        {"COM3", 0},    {"/dev/null", ENOTTY},      {directory.write("file", ""), ENOTTY},
        {fifo, ENOTTY}, {directory.path(), EISDIR}, {directory / "absent", ENOENT}};
    for (const auto& [path, error] : cases) {
        EXPECT_EQ(line.open(path.c_str()), error) << path;
        EXPECT_EQ(line.lastError(), error);
        EXPECT_EQ(line.isOpen(), error == 0);
    }
}

}  // namespace

// The driver of the MF RC500 by the messages that it sends, against a scripted reader.

#include "Mf500bfl.h"

#include "Mf500Device.h"
#include "ReaderClasses.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// A reader that says the same to every message; nothing at all is the end of the line.
struct Line {
    Bytes reply{0, 0}, heard;
    std::vector<std::uint32_t> limits;  ///< How long the driver has waited.
    bool isSilent = false, knowsItsNumber = false;
    int leftOvers = 0;  ///< Late messages of earlier commands.
};

class LineDevice : public Mf500Device {
  public:
    explicit LineDevice(Line& line) : mLine(line) {}
    bool open() override { return mIsOpen = true; }
    void close() override { mIsOpen = false; }
    platform::IoResult write(std::span<const std::uint8_t> message, std::uint32_t) override {
        if (!mIsOpen) return platform::IoResult::failed;
        mLine.heard.assign(message.begin(), message.end());
        mPending = mLine.knowsItsNumber && message[0] == 0x22 ? Bytes{0, 0, 1, 2, 3, 4} : mLine.reply;
        mIsDue = !mLine.isSilent;
        return platform::IoResult::done;
    }
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) override {
        if (timeoutMs > 0) mLine.limits.push_back(timeoutMs);
        count = 0;
        if (timeoutMs == 0 && mLine.leftOvers > 0) return --mLine.leftOvers, platform::IoResult::done;
        if (!std::exchange(mIsDue, false)) return platform::IoResult::timedOut;
        count = std::min(mPending.size(), buffer.size());
        std::copy_n(mPending.begin(), count, buffer.begin());
        return mPending.empty() ? platform::IoResult::failed : platform::IoResult::done;
    }

  private:
    Line& mLine;
    Bytes mPending;
    bool mIsOpen = false, mIsDue = false;
};

class Mf500 : public ::testing::Test {
  protected:
    Mf500() {
        setMf500DeviceFactory([this] { return std::make_unique<LineDevice>(line); });
        EXPECT_EQ(driver.interfaceOpen(1, 2), kBflOpened);
    }
    ~Mf500() override { setMf500DeviceFactory({}); }

    /// With this reply to whatever it is asked.
    Mf500bfl& answering(Bytes reply) {
        line.reply = std::move(reply);
        return driver;
    }

    Line line;
    Mf500bfl driver;
    std::uint8_t out[64] = {}, sak = 0, length = 0;
};

TEST_F(Mf500, ReadsItsReplies) {
    std::uint16_t count = 0, room = 64;
    const Bytes sixteen(16, 0x5A);
    EXPECT_EQ(answering(Bytes{0, 0} + sixteen).piccRead(7, out), 0);
    EXPECT_EQ(Bytes(out, out + 16), sixteen);
    EXPECT_EQ(driver.pcdGetSnr(out, count), 0);
    EXPECT_EQ(count, 4);
    EXPECT_EQ(answering({0, 0, 4, 0, 0x28, 7, 1, 2, 3, 4, 5, 6, 7}).piccActivateIdle(0, out, &sak, out + 8, &length),
              0);
    EXPECT_EQ(Bytes(out + 8, out + 15), (Bytes{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(sak, 0x28);
    EXPECT_EQ(answering({0, 0, 5, 0, 'V', '1', '.', '2', '3'}).pcdGetFwVersion(out, count), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(out), "V1.23");
    EXPECT_EQ(answering({0, 0, 3, 0, 0x11, 0x90, 0x00}).piccExchangeBlock(out, 2, out, &room, 1, 0), 0);
    EXPECT_EQ(room, 3);
    EXPECT_EQ(answering(Bytes(6, 0)).piccActivateAny(out, &sak, out, &length), kBflNoTag) << "zeros are no UID";
    EXPECT_EQ(driver.piccActivateIdle(0, out, &sak, out, &length, out, &length), kBflNotImplemented);
    EXPECT_EQ(driver.switchLED(1, 1, 1), 0);
}

TEST_F(Mf500, RefusesArgumentsWithoutACommand) {
    std::uint16_t room = 1;
    line.heard.clear();
    for (const short status :
         {driver.pcdSetAttrib(4, 0), driver.pcdSetAttrib(0, 4), driver.piccRequest(0x27, out),
          driver.piccCascAnticoll(0x93, 33, out), driver.piccCascAnticoll(0x94, 0, out),
          driver.piccCascSelect(0x92, out, &sak), driver.piccActivateIdle(4, out, &sak, out, &length),
          driver.piccActivateIdleLoop(4, out, &sak, out, &length, 1),
          driver.piccActivateIdleLoop(0, out, &sak, out, &length, 0),
          driver.piccActivateIdleLoop(0, out, &sak, out, &length, 61), driver.piccActivateWakeup(4, out, &sak, out, 4),
          driver.piccAuthKey(0x62, out, out, 0), driver.piccValue(0xC3, 0, out, 0), driver.piccRead(0, nullptr),
          driver.piccWrite(0, nullptr), driver.piccExchangeBlock(out, 5000, out, &room, 0, 0)})
        EXPECT_EQ(status, kBflOutOfRange);
    EXPECT_TRUE(line.heard.empty());
}

TEST_F(Mf500, LetsDataThroughBesideAStatusAndSaysWhichFailed) {
    EXPECT_EQ(answering(Bytes{0x0B, 0xFE} + Bytes(16, 0x42)).piccRead(1, out), static_cast<short>(0xFE0B));
    EXPECT_EQ(out[15], 0x42);
    answering({5, 0, 1, 2, 3, 0, 9});
    EXPECT_EQ(driver.pcdGetAttrib(out, out + 1, out + 2, out + 3, out + 4), 1) << "any status of it is 1";
    EXPECT_EQ(out[4], 9);
    EXPECT_EQ(answering(Bytes{0, 0} + Bytes(15, 0x42)).piccRead(1, out), kBflBadFrame) << "a byte too few";
    EXPECT_EQ(answering({7, 0}).piccRead(1, out), 7) << "the reader's status goes before";
    answering({0, 0, 4, 0, 0x20, 12, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12});
    std::fill(std::begin(out), std::end(out), std::uint8_t{0xEE});
    EXPECT_EQ(driver.piccActivateIdle(0, out, &sak, out + 8, &length), 0);
    EXPECT_EQ(length, 12) << "the length goes up,";
    EXPECT_EQ(out[18], 0xEE) << "but ten bytes at most are copied";
    std::uint16_t count = 0;
    EXPECT_EQ(answering(Bytes{0, 0, 55, 0} + Bytes(55, 'x')).pcdGetFwVersion(out, count), kBflBadFrame);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(answering({9}).piccHalt(), kBflBadFrame) << "no status";
    EXPECT_EQ(answering({}).piccHalt(), kBflDeviceFailed) << "the reader has closed";
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(answering({0, 0}).piccHalt(), 0);
    driver.interfaceClose();
    out[0] = 0x33;
    EXPECT_EQ(driver.piccRead(0, out), 0) << "closed: nothing is done,";
    EXPECT_EQ(out[0], 0x33) << "and nothing written";
}

TEST_F(Mf500, SendsEachCommandWhichFailsByStatusByAShortReplyAndByTheLink) {
    std::uint8_t key[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, uid[10] = {0xA, 0xB, 0xC, 0xD}, block[16] = {0x77};
    std::uint16_t count = 0, room = 0;
    const Bytes id{0xA, 0xB, 0xC, 0xD};
    const struct {
        std::function<short()> run;
        Bytes sent;
        std::size_t least;  ///< Bytes that a reply has to bring.
        short refused = 7;
    } commands[] = {
        {[&] { return driver.pcdGetRICVersion(out); }, {0x64}, 5},
        {[&] { return driver.pcdGetSnr(out, count); }, {0x22}, 4},
        {[&] { return driver.pcdGetFwVersion(out, count); }, {0x63}, 2},
        {[&] { return driver.pcdRfReset(0x1234); }, {0x20, 0x34, 0x12}, 0},
        {[&] { return driver.pcdGetAttrib(out, out + 1, out + 2, out + 3, out + 4); }, {0x47}, 5, 1},
        {[&] { return driver.pcdSetAttrib(3, 2); }, {0x46, 3, 2}, 0},
        {[&] { return driver.pcdSetDefaultAttrib(); }, {0x45}, 0},
        {[&] { return driver.hostCodeKey(key, out); }, {0x16, 1, 2, 3, 4, 5, 6}, 12},
        {[&] { return driver.piccRequest(0x52, out); }, {0x11, 0x52}, 2},
        {[&] { return driver.piccCascSelect(0x93, uid, &sak); }, Bytes{0x42, 0x93} + id, 1},
        {[&] { return driver.piccActivateIdle(0, out, &sak, out, &length); }, {0x43, 0}, 4},
        {[&] { return driver.piccActivateIdleLoop(0, out, &sak, out, &length, 60); }, {0x49, 0, 60}, 4},
        {[&] { return driver.piccActivateWakeup(1, out, &sak, uid, 4); }, Bytes{0x44, 1, 4} + id, 3},
        {[&] { return driver.piccAuthKey(0x61, uid, key, 9); },
         Bytes{0x18, 0x61} + id + Bytes(key, key + 12) + Bytes{9}, 0},
        {[&] { return driver.piccRead(7, out); }, {0x19, 7}, 16},
        {[&] { return driver.piccWrite(5, block); }, Bytes{0x1A, 5, 0x77} + Bytes(15, 0), 0},
        {[&] { return driver.piccValue(0xC2, 4, key, 6); }, {0x1B, 0xC2, 4, 1, 2, 3, 4, 6}, 0},
        {[&] { return room = 16, driver.piccExchangeBlock(uid, 2, out, &room, 1, 0x10203); },
         {0x48, 2, 0, 1, 3, 2, 1, 0, 0xA, 0xB},
         2},
        {[&] { return driver.piccHalt(); }, {0x1D}, 0},
        {[&] { return driver.piccCascAnticoll(0x95, 32, uid); }, Bytes{0x41, 0x95, 32} + id, 4},
    };
    for (const auto& command : commands) {
        SCOPED_TRACE(&command - commands);
        const auto runs = [&](const Bytes& reply) {
            answering(reply);
            return command.run();
        };
        EXPECT_EQ(runs(Bytes(command.least + 2, 0)), 0);
        EXPECT_EQ(line.heard, command.sent);
        EXPECT_EQ(runs(Bytes{7, 0} + Bytes(command.least, 0)), command.refused);
        EXPECT_EQ(runs(Bytes(command.least + 1, 0)), kBflBadFrame) << "a byte too few";
        EXPECT_EQ(runs({}), kBflDeviceFailed);
        EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    }
}

TEST_F(Mf500, CopiesABlockOnlyAsAWholeAndIntoRoomEnough) {
    constexpr std::size_t kMostSent = 4158;  // what a message may hold after status and length
    for (const std::size_t sent : {0u, 1u, 2u, 3u, 4u, 15u, 16u, 17u, 255u, 256u, 257u, 4095u, 4096u, 4097u, 65535u}) {
        answering(Bytes{0, 0, static_cast<std::uint8_t>(sent), static_cast<std::uint8_t>(sent >> 8)} +
                  Bytes(std::min(sent, kMostSent), 0x5A));
        for (const std::uint16_t capacity : std::initializer_list<std::uint16_t>{3, 16, 256, 4096}) {
            Bytes block(capacity, 0xEE);
            std::uint16_t room = capacity;
            const bool fits = sent <= capacity;
            EXPECT_EQ(driver.piccExchangeBlock(out, 1, block.data(), &room, 0, 0), fits ? 0 : kBflBadFrame) << sent;
            EXPECT_EQ(room, fits ? sent : capacity);
            Bytes expected(capacity, 0xEE);
            if (fits) std::fill_n(expected.begin(), sent, std::uint8_t{0x5A});
            EXPECT_EQ(block, expected) << sent << " into " << capacity;
        }
    }
    std::uint16_t room = 16;
    answering(Bytes{0, 0, 4, 0} + Bytes(5000, 0x5A));
    EXPECT_EQ(driver.piccExchangeBlock(out, 1, out, &room, 0, 0), kBflBadFrame) << "a message that was cut";
    EXPECT_EQ(room, 16);
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    for (const Bytes& noLength : {Bytes{0, 0}, Bytes{0, 0, 9}}) {
        room = 16;
        EXPECT_EQ(answering(noLength).piccExchangeBlock(out, 1, out, &room, 0, 0), kBflBadFrame);
        EXPECT_EQ(room, 0) << "an unread length is none";
    }
}

TEST_F(Mf500, RunsInTheClearWithAReaderThatDoesNotTakePart) {
    EXPECT_EQ(driver.pcdConfig(), 0);
    EXPECT_EQ(line.heard.size(), 17u);
    EXPECT_FALSE(driver.isQvlDevice());
    EXPECT_EQ(answering({6, 0}).pcdConfig(), 6);
    EXPECT_EQ(answering({0, 0, 1, 2, 3}).pcdConfig(), kBflBadFrame) << "half an agreement";
    EXPECT_EQ(driver.pcdConfig2(nullptr, out), kBflOutOfRange);
}

TEST_F(Mf500, SharesItsDeviceWithItsCopies) {
    Mf500bfl copy(driver);
    line.knowsItsNumber = true;
    EXPECT_EQ(copy.piccHalt(), 0);
    driver.interfaceClose();
    EXPECT_EQ(copy.piccHalt(), kBflDeviceFailed) << "closed behind its back";
    copy.interfaceClose();
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    copy = driver;
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(copy.piccHalt(), kBflDeviceFailed);
    EXPECT_EQ(driver.piccHalt(), 0);
}

TEST_F(Mf500, WaitsAsLongAsTheReaderMay) {
    line.isSilent = true;
    EXPECT_EQ(driver.piccHalt(), kBflDeviceTimedOut);
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(driver.piccActivateIdleLoop(0, out, out, out, out, 60), kBflDeviceTimedOut);
    EXPECT_EQ(driver.piccHalt(), kBflDeviceTimedOut) << "no longer for a question before it";
    EXPECT_EQ(line.limits, (std::vector<std::uint32_t>{6000, 66000, 6000}));
}

TEST_F(Mf500, DropsLateRepliesButNotForEver) {
    for (const int sent : {3, 100000}) {
        line.leftOvers = sent;
        EXPECT_EQ(driver.piccHalt(), 0);
        EXPECT_EQ(line.leftOvers > 0, sent > 3);
    }
}

TEST(Mf500WithoutADevice, DoesNotOpen) {
    const TempDirectory root;
    const ScopedEnvironment environment{"QVL_DEVICE_ROOT", root.path().c_str()};
    Mf500bfl driver;
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflNotOpened);
    EXPECT_EQ(driver.piccHalt(), 0);
    std::filesystem::create_directories(root.path() + "/" + kReaderClasses[3].guid + "/not-a-device");
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflNotOpened);
}

}  // namespace

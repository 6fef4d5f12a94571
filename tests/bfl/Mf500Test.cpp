// The driver of the MF RC500 by the messages that it sends, against a scripted reader on a socket.

#include "Mf500bfl.h"

#include "KeyPool.h"
#include "Mf500Device.h"
#include "Rc4.h"
#include "ReaderClasses.h"
#include "ScopedEnvironment.h"
#include "TempDirectory.h"

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

/// A reader of the right interface class: says what `answer` makes of each message, closes on an empty one.
class SocketReader {
  public:
    using Answer = std::function<Bytes(const Bytes&)>;

    SocketReader(const TempDirectory& root, int classIndex) {
        const std::string directory = root.path() + "/" + kReaderClasses[static_cast<std::size_t>(classIndex)].guid;
        std::filesystem::create_directories(directory);
        const std::string path = directory + "/reader";
        mListener = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(path.begin(), path.end(), address.sun_path);
        EXPECT_EQ(::bind(mListener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(mListener, 1), 0);
        mThread = std::thread([this] { serve(); });
    }
    ~SocketReader() {
        ::shutdown(mListener, SHUT_RDWR);
        mThread.join();
        ::close(mListener);
    }

    void setAnswer(Answer next) {
        const std::lock_guard lock(mMutex);
        mAnswer = std::move(next);
    }
    /// The last message, once.
    Bytes heard() {
        const std::lock_guard lock(mMutex);
        return std::exchange(mHeard, {});
    }
    /// While it holds this, a test may look at what the answers are made of.
    std::unique_lock<std::mutex> lock() { return std::unique_lock(mMutex); }

  private:
    void serve() {
        for (int peer; (peer = ::accept(mListener, nullptr, nullptr)) >= 0; ::close(peer)) {
            std::uint8_t buffer[8192];
            for (ssize_t count; (count = ::recv(peer, buffer, sizeof buffer, 0)) > 0;) {
                const auto held = lock();
                mHeard.assign(buffer, buffer + count);
                const Bytes reply = mAnswer(mHeard);
                if (reply.empty()) break;
                ::send(peer, reply.data(), reply.size(), MSG_NOSIGNAL);
            }
        }
    }
    std::mutex mMutex;
    Answer mAnswer;
    Bytes mHeard;
    int mListener;
    std::thread mThread;
};

class Mf500 : public ::testing::Test {
  protected:
    Mf500() {
        reply = {0, 0};
        EXPECT_EQ(driver.interfaceOpen(1, 2), kBflOpened);
    }
    /// What the reader heard; the driver's status is `status`.
    Bytes heard(short wanted, short status) {
        EXPECT_EQ(status, wanted);
        return reader.heard();
    }
    /// What the reader says to every message from now on.
    struct Reply {
        void operator=(const Bytes& bytes) {
            reader.setAnswer([bytes](const Bytes&) { return bytes; });
        }
        SocketReader& reader;
    };

    const TempDirectory root;
    const ScopedEnvironment environment{"QVL_DEVICE_ROOT", root.path().c_str()};
    SocketReader reader{root, 4};
    Reply reply{reader};
    Mf500bfl driver;
    std::uint8_t out[64] = {}, sak = 0, length = 0;
};

TEST_F(Mf500, SendsEachCommandAndReadsItsReply) {
    std::uint8_t key[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, uid[4] = {0xA, 0xB, 0xC, 0xD}, data[16] = {0x77};
    std::uint16_t count = 0;
    const Bytes sixteen(16, 0x5A);
    EXPECT_EQ(heard(0, driver.pcdRfReset(0x1234)), (Bytes{0x20, 0x34, 0x12}));
    EXPECT_EQ(heard(0, driver.pcdSetAttrib(3, 2)), (Bytes{0x46, 3, 2}));
    EXPECT_EQ(heard(0, driver.pcdSetDefaultAttrib()), Bytes{0x45});
    EXPECT_EQ(heard(0, driver.piccHalt()), Bytes{0x1D});
    EXPECT_EQ(heard(0, driver.piccAuthKey(0x61, uid, key, 9)),
              (Bytes{0x18, 0x61, 0xA, 0xB, 0xC, 0xD, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 9}));
    EXPECT_EQ(heard(0, driver.piccWrite(5, data)), (Bytes{0x1A, 5, 0x77} + Bytes(15, 0)));
    EXPECT_EQ(heard(0, driver.piccValue(0xC2, 4, key, 6)), (Bytes{0x1B, 0xC2, 4, 1, 2, 3, 4, 6}));
    reply = Bytes{0, 0} + sixteen;
    EXPECT_EQ(heard(0, driver.piccRead(7, out)), (Bytes{0x19, 7}));
    EXPECT_EQ(Bytes(out, out + 16), sixteen);
    EXPECT_EQ(heard(0, driver.hostCodeKey(key, out)), (Bytes{0x16, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(heard(0, driver.pcdGetSnr(out, count)), Bytes{0x22});
    EXPECT_EQ(count, 4);
    EXPECT_EQ(heard(0, driver.piccRequest(0x52, out)), (Bytes{0x11, 0x52}));
    EXPECT_EQ(heard(0, driver.piccCascAnticoll(0x95, 32, uid)), (Bytes{0x41, 0x95, 32, 0xA, 0xB, 0xC, 0xD}));
    EXPECT_EQ(Bytes(uid, uid + 4), Bytes(4, 0x5A));
    EXPECT_EQ(heard(0, driver.piccCascSelect(0x93, uid, &sak)), (Bytes{0x42, 0x93, 0x5A, 0x5A, 0x5A, 0x5A}));
    EXPECT_EQ(heard(0, driver.piccActivateWakeup(1, out, &sak, uid, 4)), (Bytes{0x44, 1, 4, 0x5A, 0x5A, 0x5A, 0x5A}));
    reply = {0, 0, 4, 0, 0x28, 7, 1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(heard(0, driver.piccActivateIdle(0, out, &sak, out + 8, &length)), (Bytes{0x43, 0}));
    EXPECT_EQ(Bytes(out + 8, out + 15), (Bytes{1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(sak, 0x28);
    EXPECT_EQ(heard(0, driver.piccActivateIdleLoop(0, out, &sak, out + 8, &length, 60)), (Bytes{0x49, 0, 60}));
    reply = {0, 0, 5, 0, 'V', '1', '.', '2', '3'};
    EXPECT_EQ(heard(0, driver.pcdGetFwVersion(out, count)), Bytes{0x63});
    EXPECT_STREQ(reinterpret_cast<const char*>(out), "V1.23");
    reply = {0, 0, 3, 0, 0x11, 0x90, 0x00};
    std::uint16_t room = 64;
    EXPECT_EQ(heard(0, driver.piccExchangeBlock(uid, 2, out, &room, 1, 0x10203)),
              (Bytes{0x48, 2, 0, 1, 3, 2, 1, 0, 0x5A, 0x5A}));
    EXPECT_EQ(room, 3);
    EXPECT_EQ(driver.piccActivateIdle(0, out, &sak, out, &length, out, &length), kBflNotImplemented);
    EXPECT_EQ(driver.switchLED(1, 1, 1), 0);
}

TEST_F(Mf500, RefusesArgumentsWithoutACommand) {
    std::uint16_t room = 1;
    reader.heard();
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
    EXPECT_TRUE(reader.heard().empty());
}

TEST_F(Mf500, LetsDataThroughBesideAStatusAndSaysWhichFailed) {
    reply = Bytes{0x0B, 0xFE} + Bytes(16, 0x42);
    EXPECT_EQ(driver.piccRead(1, out), static_cast<short>(0xFE0B));
    EXPECT_EQ(out[15], 0x42);
    reply = {5, 0, 1, 2, 3, 0, 9};
    EXPECT_EQ(driver.pcdGetAttrib(out, out + 1, out + 2, out + 3, out + 4), 1) << "any status of it is 1";
    EXPECT_EQ(out[4], 9);
    reply = Bytes{0, 0} + Bytes(15, 0x42);
    EXPECT_EQ(driver.piccRead(1, out), kBflBadFrame) << "a byte too few";
    reply = {7, 0};
    EXPECT_EQ(driver.piccRead(1, out), 7) << "the reader's status goes before";
    reply = {0, 0, 4, 0, 0x20, 12, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    std::fill(std::begin(out), std::end(out), std::uint8_t{0xEE});
    EXPECT_EQ(driver.piccActivateIdle(0, out, &sak, out + 8, &length), 0);
    EXPECT_EQ(length, 12) << "the length goes up,";
    EXPECT_EQ(out[18], 0xEE) << "but ten bytes at most are copied";
    std::uint16_t count = 0;
    reply = Bytes{0, 0, 55, 0} + Bytes(55, 'x');
    EXPECT_EQ(driver.pcdGetFwVersion(out, count), kBflBadFrame);
    EXPECT_EQ(count, 0);
    reply = {9};
    EXPECT_EQ(driver.piccHalt(), kBflBadFrame) << "no status";
    reply = {};
    EXPECT_EQ(driver.piccHalt(), kBflDeviceFailed) << "the reader has closed";
    reply = {0, 0};
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(driver.piccHalt(), 0);
    driver.interfaceClose();
    out[0] = 0x33;
    EXPECT_EQ(driver.piccRead(0, out), 0) << "closed: nothing is done,";
    EXPECT_EQ(out[0], 0x33) << "and nothing written";
}

TEST_F(Mf500, FailsInEachCommandByStatusByAShortReplyAndByTheLink) {
    std::uint8_t key[12] = {}, uid[10] = {}, block[16] = {};
    std::uint16_t count = 0, room = 0;
    const struct {
        std::function<short()> run;
        std::size_t least;  ///< Bytes that a reply has to bring.
        short refused = 7;
    } commands[] = {
        {[&] { return driver.pcdGetRICVersion(out); }, 5},
        {[&] { return driver.pcdGetSnr(out, count); }, 4},
        {[&] { return driver.pcdGetFwVersion(out, count); }, 2},
        {[&] { return driver.pcdRfReset(5); }, 0},
        {[&] { return driver.pcdGetAttrib(out, out + 1, out + 2, out + 3, out + 4); }, 5, 1},
        {[&] { return driver.pcdSetAttrib(1, 1); }, 0},
        {[&] { return driver.pcdSetDefaultAttrib(); }, 0},
        {[&] { return driver.hostCodeKey(key, out); }, 12},
        {[&] { return driver.piccRequest(0x26, out); }, 2},
        {[&] { return driver.piccCascAnticoll(0x93, 0, uid); }, 4},
        {[&] { return driver.piccCascSelect(0x93, uid, &sak); }, 1},
        {[&] { return driver.piccActivateIdle(0, out, &sak, uid, &length); }, 4},
        {[&] { return driver.piccActivateIdleLoop(0, out, &sak, uid, &length, 1); }, 4},
        {[&] { return driver.piccActivateWakeup(0, out, &sak, uid, 4); }, 3},
        {[&] { return driver.piccAuthKey(0x60, uid, key, 4); }, 0},
        {[&] { return driver.piccRead(4, block); }, 16},
        {[&] { return driver.piccWrite(4, block); }, 0},
        {[&] { return driver.piccValue(0xC1, 4, uid, 4); }, 0},
        {[&] { return room = 16, driver.piccExchangeBlock(uid, 1, out, &room, 1, 1); }, 2},
        {[&] { return driver.piccHalt(); }, 0},
    };
    for (const auto& command : commands) {
        const auto number = &command - commands;
        reply = Bytes{7, 0} + Bytes(command.least, 0);
        EXPECT_EQ(command.run(), command.refused) << number;
        if (command.least > 0) {
            reply = Bytes{0, 0} + Bytes(command.least - 1, 0);
            EXPECT_EQ(command.run(), kBflBadFrame) << number;
        }
        reply = Bytes{0};
        EXPECT_EQ(command.run(), kBflBadFrame) << number << ": half a status";
        reply = Bytes{};
        EXPECT_EQ(command.run(), kBflDeviceFailed) << number;
        EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    }
}

TEST_F(Mf500, CopiesABlockOnlyAsAWholeAndIntoRoomEnough) {
    constexpr std::size_t kMostSent = 4158;  // what a message may hold behind status and length
    for (const std::size_t sent : {0u, 1u, 2u, 3u, 4u, 15u, 16u, 17u, 255u, 256u, 257u, 4095u, 4096u, 4097u, 65535u}) {
        reply = Bytes{0, 0, static_cast<std::uint8_t>(sent), static_cast<std::uint8_t>(sent >> 8)} +
                Bytes(std::min(sent, kMostSent), 0x5A);
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
    reply = Bytes{0, 0, 4, 0} + Bytes(5000, 0x5A);
    EXPECT_EQ(driver.piccExchangeBlock(out, 1, out, &room, 0, 0), kBflBadFrame) << "a message that was cut";
    EXPECT_EQ(room, 16);
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    for (const Bytes& noLength : {Bytes{0, 0}, Bytes{0, 0, 9}}) {
        reply = noLength;
        room = 16;
        EXPECT_EQ(driver.piccExchangeBlock(out, 1, out, &room, 0, 0), kBflBadFrame);
        EXPECT_EQ(room, 0) << "an unread length is none";
    }
}

/// The reader's half of the agreement. Its key stream runs on from the parameters of a command to its reply.
class SecuredReader {
  public:
    Bytes answer(const Bytes& message) {
        const std::uint8_t code = message[0];
        const Bytes data(message.begin() + 1, message.end());
        if (code == 0x10) {
            Bytes confirmation = confirmationOf(data);
            stream.setKey(confirmation);
            if (isWrong) confirmation[3] ^= 1;
            return Bytes{0, 0} + crypt(confirmation + Bytes(4, 0xEE) + Bytes(16, 0x51));
        }
        if (code == 0x09) stream.setKey(Bytes(16, 0x51));
        const bool plain = code == 0x48;
        heard = plain ? data : crypt(data);
        if (code == 0x09) return {0, 0};
        const Bytes next(16, ++counter);
        const Bytes reply = plain ? Bytes{1, 0, 0x99} + next : crypt(Bytes(16, 0x5A) + next);
        stream.setKey(next);
        return Bytes{0, 0} + reply;
    }
    void loseStep() { stream.setKey(Bytes(16, 0xF1)); }

    Bytes heard;
    bool isWrong = false;

  private:
    static Bytes confirmationOf(const Bytes& challenge) {
        Bytes out(16);
        for (std::size_t i = 0; i < 16; ++i) {
            const std::uint8_t turn = challenge[i == 0 ? 0 : i - 1] & 7, in = challenge[i];
            out[i] = static_cast<std::uint8_t>((in & 0x80) != 0 ? in >> turn | in << (8 - turn)
                                                                : in << turn | in >> (8 - turn));
        }
        return out;
    }
    Bytes crypt(Bytes bytes) {
        stream.crypt(bytes);
        return bytes;
    }
    Rc4 stream;
    std::uint8_t counter = 0;
};

TEST_F(Mf500, ScramblesUnderAKeyThatComesAnewWithEachReply) {
    SecuredReader secured;
    reader.setAnswer([&](const Bytes& message) { return secured.answer(message); });
    ASSERT_EQ(driver.pcdConfig(), 0);
    EXPECT_TRUE(driver.isQvlDevice());
    for (std::uint8_t block = 0; block < 5; ++block) {
        EXPECT_EQ(driver.piccRead(block, out), 0);
        EXPECT_EQ((reader.lock(), secured.heard), Bytes{block});
        EXPECT_EQ(Bytes(out, out + 16), Bytes(16, 0x5A));
        std::uint16_t count = 0;
        EXPECT_EQ(driver.pcdGetSnr(out, count), 0) << "without parameters the reply begins the stream";
        std::uint16_t room = 16;
        EXPECT_EQ(driver.piccExchangeBlock(out, 3, out, &room, 1, 7), 0) << "plain, with a new key all the same";
        EXPECT_EQ(out[0], 0x99);
        EXPECT_EQ(driver.piccExchangeBlock(out, 3, out, &(room = 0), 1, 7), kBflBadFrame)
            << "too long, but for the key";
    }
    (reader.lock(), secured.loseStep());  // out of step: what comes back is noise, until the next agreement
    driver.piccRead(1, out);
    EXPECT_NE(Bytes(out, out + 16), Bytes(16, 0x5A));
    ASSERT_EQ(driver.pcdConfig(), 0);
    EXPECT_EQ(driver.piccRead(1, out), 0);
    EXPECT_EQ(Bytes(out, out + 16), Bytes(16, 0x5A));
    (reader.lock(), secured.isWrong = true);
    EXPECT_EQ(driver.pcdConfig(), kBflOutOfRange);
    EXPECT_FALSE(driver.isQvlDevice());
}

TEST_F(Mf500, RunsInTheClearWithAReaderThatDoesNotTakePart) {
    EXPECT_EQ(driver.pcdConfig(), 0);
    EXPECT_EQ(reader.heard().size(), 17u);
    EXPECT_FALSE(driver.isQvlDevice());
    reply = {6, 0};
    EXPECT_EQ(driver.pcdConfig(), 6);
    reply = {0, 0, 1, 2, 3};
    EXPECT_EQ(driver.pcdConfig(), kBflBadFrame) << "half an agreement";
    EXPECT_EQ(driver.pcdConfig2(nullptr, out), kBflOutOfRange);
}

TEST_F(Mf500, SharesItsDeviceWithItsCopies) {
    Mf500bfl copy(driver);
    reader.setAnswer([](const Bytes& message) { return message[0] == 0x22 ? Bytes{0, 0, 1, 2, 3, 4} : Bytes{0, 0}; });
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

/// A device that notes how long it is asked to wait, and is silent.
class PatientDevice : public Mf500Device {
  public:
    explicit PatientDevice(std::vector<std::uint32_t>& limits) : mLimits(limits) {}
    bool open() override { return true; }
    void close() override {}
    platform::IoResult write(std::span<const std::uint8_t>, std::uint32_t) override { return platform::IoResult::done; }
    platform::IoResult read(std::span<std::uint8_t>, std::size_t& count, std::uint32_t timeoutMs) override {
        if (timeoutMs > 500) mLimits.push_back(timeoutMs);
        count = 0;
        return platform::IoResult::timedOut;
    }

  private:
    std::vector<std::uint32_t>& mLimits;
};

TEST(Mf500WithoutADevice, WaitsAsLongAsTheReaderMay) {
    std::vector<std::uint32_t> limits;
    std::uint8_t out[16];
    setMf500DeviceFactory([&] { return std::make_unique<PatientDevice>(limits); });
    Mf500bfl driver;
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(driver.piccHalt(), kBflDeviceTimedOut);
    EXPECT_EQ(driver.interfaceOpen(0, 0), kBflOpened);
    EXPECT_EQ(driver.piccActivateIdleLoop(0, out, out, out, out, 60), kBflDeviceTimedOut);
    EXPECT_EQ(driver.piccHalt(), kBflDeviceTimedOut) << "no longer for a question before it";
    EXPECT_EQ(limits, (std::vector<std::uint32_t>{6000, 66000, 6000}));
    setMf500DeviceFactory({});
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

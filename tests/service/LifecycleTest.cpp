// The life of the reader, through the service interface.

#include "../platform/ForkedChild.h"
#include "Workplace.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kLedCommand = 0x26;

class OnEachLine : public OnALine {};
INSTANTIATE_TEST_SUITE_P(Lines, OnEachLine, ::testing::ValuesIn(kLines));

TEST_P(OnEachLine, TheReaderComesUpTellsOfItselfAndGoesDown) {
    Workplace place(GetParam());
    ReaderImpl& adaptor = place.start();
    EXPECT_STREQ(adaptor.getAdaptorName(), "QVLMF500");
    std::uint8_t id[6] = {}, version[55] = {};
    std::uint16_t length = 0;
    const auto& serial = place.reader->options().serialNumber;
    const Bytes expected(isMf500UnderTest() ? serial.begin() + 2 : serial.begin(), serial.end());
    const int closed = isMf500UnderTest() ? kOk : kReaderFailed;  // the one says 0 to everything while it is closed
    EXPECT_EQ(adaptor.getReaderId(id, length), closed) << "nothing is open yet";
    version[0] = 'x', length = 77;
    EXPECT_EQ(adaptor.getReaderFwVersion(version, length), closed);
    EXPECT_EQ(length + version[0], 0) << "and nothing is said";
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_TRUE(place.reader->isFieldOn());
    EXPECT_TRUE(place.reader->isLinkKeyed());
    EXPECT_EQ(adaptor.getReaderId(id, length), kOk);
    EXPECT_EQ(Bytes(id, id + length), expected);
    EXPECT_EQ(adaptor.getReaderFwVersion(version, length), kOk);
    EXPECT_STREQ(reinterpret_cast<char*>(version),
                 isMf500UnderTest() ? "MF RC500 2.1.3" : "NFC Reader/Writer 2.1.03 for VID 0x04CC PID 0x0531");
    EXPECT_EQ(adaptor.getReaderId(nullptr, length), kReaderFailed);
    EXPECT_EQ(adaptor.getReaderFwVersion(nullptr, length), kReaderFailed);
    EXPECT_TRUE(adaptor.stopReader());
    EXPECT_FALSE(place.reader->isFieldOn());
    EXPECT_EQ(adaptor.getReaderId(id, length), closed);
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_TRUE(adaptor.stopReader());
    EXPECT_TRUE(adaptor.stopReader());
    EXPECT_EQ(place.host.heard(), "") << "initReader tells nobody: its callers do";
    EXPECT_EQ(adaptor.getDeviceInstanceID(), nullptr);
}

class TheReader : public ::testing::Test {
  protected:
    Workplace place;
    ReaderImpl& adaptor = place.start();
};

TEST_F(TheReader, RestoresItsLedAfterEachInit) {
    if (isMf500UnderTest()) GTEST_SKIP() << "no LED command";
    for (const auto& [led, sent] : {std::pair{0x21, 2u}, {0x61, 3u}}) {  // LED 1 and LED 3, which is on already then
        ASSERT_TRUE(adaptor.initReader());
        EXPECT_EQ(place.reader->ledByte(), led);
        EXPECT_EQ(place.reader->commandCount(kLedCommand), sent);
    }
    EXPECT_EQ(adaptor.switchReaderLED(2, 1, 7), kOk);
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_EQ(place.reader->ledByte(), 0xA7) << "the last LED comes back";
    adaptor.stopReader();
    EXPECT_EQ(place.reader->ledByte(), 0xC0) << "all off";
    const std::uint32_t before = place.reader->commandCount(kLedCommand);
    ASSERT_TRUE(adaptor.initReader());
    EXPECT_EQ(place.reader->commandCount(kLedCommand), before + 2) << "as at the start";
}

TEST_F(TheReader, SwitchesItsLeds) {
    ASSERT_TRUE(adaptor.initReader());  // LED 1, duration 1, LED 3 on
    const struct {
        std::uint8_t led, ctrl, dur;
        int status;
        int sent;  // LED byte, -1 for nothing
    } cases[] = {
        {0, 0, 0, kOk, 0xE0},          // 0, 1, 0
        {1, 1, 0, kReaderFailed, -1},  // duration 0 only for the LED of last time
        {0, 1, 0, kOk, 0xE0},         {3, 1, 0, kReaderFailed, -1},
        {3, 1, 5, kOk, -1},  // on already
        {3, 2, 5, kReaderFailed, -1}, {2, 1, 9, kOk, 0xA9},
        {3, 0, 5, kOk, 0x29},  // sent with ctrl 1 and the last duration
        {3, 0, 5, kOk, -1},    // off already
        {3, 1, 5, kOk, 0x29},         {9, 1, 2, kOk, 0x22},
    };
    for (const auto& c : cases) {
        const std::uint32_t before = place.reader->commandCount(kLedCommand);
        EXPECT_EQ(adaptor.switchReaderLED(c.led, c.ctrl, c.dur), c.status) << int{c.led} << int{c.ctrl} << int{c.dur};
        const bool sent = place.reader->commandCount(kLedCommand) != before;
        EXPECT_EQ(sent ? place.reader->ledByte() : -1, isMf500UnderTest() ? -1 : c.sent)
            << int{c.led} << int{c.ctrl} << int{c.dur};
    }
    if (isMf500UnderTest()) return;  // no LED command, which could be refused
    place.reader->addFaults("26 from 1 status 01");
    EXPECT_EQ(adaptor.switchReaderLED(3, 0, 5), kReaderFailed);
    place.reader->clearFaults();
    EXPECT_EQ(adaptor.switchReaderLED(3, 0, 5), kOk) << "a refused switch changed nothing";
    EXPECT_EQ(place.reader->ledByte(), 0x22);
}

TEST_F(TheReader, IsConfiguredInAtMostTwoTries) {
    place.spoil(Op::configure, "1 " + place.refusal());
    EXPECT_TRUE(adaptor.initReader());
    place.spoil(Op::configure, "1 " + place.refusal());
    place.spoil(Op::configure, "2 " + place.refusal());
    EXPECT_FALSE(adaptor.initReader());
    const std::uint32_t heard = place.heardInAll();
    std::uint8_t id[6];
    std::uint16_t length = 0;
    adaptor.getReaderId(id, length);
    EXPECT_EQ(place.heardInAll(), heard) << "closed after the failure";
    EXPECT_TRUE(adaptor.initReader());
}

TEST(ALink, IsServedWithAKeyThatChangesOnTheWayAndInTheClear) {
    for (const auto& [knowsKey, isZero] : {std::pair{true, false}, {true, true}, {false, false}}) {
        ReaderOptions options;
        options.knowsLinkKey = knowsKey, options.zeroSessionKey = isZero;
        Workplace place(Line::inProcess, options);
        place.start();
        place.placeClassic();
        ASSERT_TRUE(place.adaptor->initReader());
        const std::uint32_t agreed = place.reader->commandCount(0x1C);
        const bool isKeyed = knowsKey && !isZero;
        EXPECT_EQ(place.reader->isLinkKeyed(), isKeyed);
        for (int i = 0; i < 200; ++i)
            ASSERT_EQ(place.poll(i % 2 == 0), i % 2 == 0 ? "deadbeef 2002" : "") << i;
        // Where the key changes with each reply, nothing is agreed again.
        EXPECT_EQ(place.reader->commandCount(0x1C) > agreed, isKeyed && !isMf500UnderTest());
    }
}

TEST(ASerialReader, KeepsItsBaudRateWhenItIsOpenedAgain) {
    if (isMf500UnderTest()) GTEST_SKIP() << "no serial port";
    Workplace place;
    place.settings("SERIAL_BAUDRATE=115200\n");
    std::vector<std::string> opened;
    setTamaDeviceFactory([&](const TamaDeviceRequest& request) {
        opened.push_back(std::string(request.name) + " " + std::to_string(request.baudRate));
        return std::make_unique<VirtualTamaDevice>(std::dynamic_pointer_cast<VirtualTamaReader>(place.reader));
    });
    place.start();
    EXPECT_TRUE(place.adaptor->initReader());
    EXPECT_TRUE(place.adaptor->initReader());
    EXPECT_EQ(opened, (std::vector<std::string>{"COM77 115200", "COM77 115200"}));
}

TEST(AScan, ChoosesTheReaderAnewWhenADeviceEventAsks) {
    Workplace place(Line::socket);
    place.unplug();
    place.start();
    EXPECT_FALSE(place.adaptor->initReader()) << "nothing on the serial port";
    place.connect();
    place.adaptor->scanUSBDevice(1);
    EXPECT_FALSE(place.adaptor->initReader()) << "scans are at least half a second apart";
    ManualClock clock;
    clock.advance(1000000);
    place.adaptor->scanUSBDevice(0);
    EXPECT_TRUE(place.reader->isFieldOn()) << "event 0 starts the reader as well";
    clock.advance(500);
    place.unplug();
    place.adaptor->scanUSBDevice(0);
    EXPECT_EQ(place.poll(), "");
    // After event 0 a failed start does not scan; the next device event changes that.
    place.connect();
    clock.advance(500);
    EXPECT_EQ(place.poll(), "");
    EXPECT_EQ(place.poll(), "");
    EXPECT_EQ(place.host.heard(), "-") << "the scan found another reader than the one that was ready";
    place.unplug();
    place.adaptor->scanUSBDevice(0);
    place.connect();
    clock.advance(499);
    place.adaptor->scanUSBDevice(2);
    EXPECT_EQ(place.poll(), "") << "too early";
    EXPECT_EQ(place.host.heard(), "");
    clock.advance(1);
    EXPECT_EQ(place.poll(), "") << "this one scans, the next one starts the reader";
    EXPECT_EQ(place.poll(), "");
    EXPECT_EQ(place.host.heard(), "+");
}

TEST(AScan, ThatFailsInstallsTheOtherDriver) {
    Workplace place;
    place.root.write(kReaderClasses[0].guid, "no directory");
    place.start();
    EXPECT_EQ(place.adaptor->initReader(), isMf500UnderTest());
    std::uint8_t id[6];
    std::uint16_t length = 0;
    EXPECT_EQ(place.adaptor->getReaderId(id, length), kOk) << "this driver says 0 to everything while it is closed";
    EXPECT_EQ(length, 4);
    EXPECT_EQ(place.poll(), "");
}

TEST(TwoAdaptors, ShareTheOneDriver) {
    if (isMf500UnderTest()) GTEST_SKIP() << "each has a driver of its own, and the device serves one at a time";
    for (const bool deletes : {true, false})
        for (const bool firstGoes : {true, false}) {
            Workplace place;
            place.placeClassic();
            place.start();
            Host otherHost;
            std::unique_ptr<ReaderImpl> other(createAdaptorInstance(&otherHost));
            ASSERT_TRUE(place.adaptor->initReader() && other->initReader());
            std::unique_ptr<ReaderImpl>& going = firstGoes ? place.adaptor : other;
            deletes ? going.reset() : static_cast<void>(going->stopReader());
            EXPECT_TRUE(place.reader->isFieldOn());
            if (firstGoes) place.adaptor.swap(other);
            EXPECT_EQ(place.poll(true), "deadbeef 2002") << "the end of one left the device of both open";
            other.reset();
            EXPECT_EQ(place.poll(true), "deadbeef 2002");
            place.adaptor.reset();
            EXPECT_FALSE(place.reader->isFieldOn());
        }
}

TEST(TwoAdaptors, KeepTheReaderOpenForEachOther) {
    if (isMf500UnderTest()) GTEST_SKIP() << "each has a driver of its own, and the device serves one at a time";
    Workplace place;
    place.placeClassic();
    ASSERT_TRUE(place.start().initReader());
    Host otherHost;
    const std::unique_ptr<ReaderImpl> other(createAdaptorInstance(&otherHost));
    place.reader->addFaults("any from 1 no answer");
    EXPECT_FALSE(other->initReader());
    place.reader->clearFaults();
    EXPECT_EQ(place.poll(true), "deadbeef 2002") << "a start of the other that failed closed the reader of this one";
}

// A child of a fork has the memory of the adaptor, and not the reader.
TEST_F(TheReader, HearsNothingOfAForkedChildThatDeletesTheAdaptor) {
    ASSERT_TRUE(adaptor.initReader());
    const std::uint32_t before = place.heardInAll();
    ForkedChild child([&] {
        place.adaptor.reset();
        return place.heardInAll() == before ? 0 : 1;
    });
    EXPECT_EQ(child.wait(), 0);
}

TEST_F(TheReader, ForgetsWhatFailed) {
    if (!isMf500UnderTest()) {
        EXPECT_TRUE(adaptor.initReader());
        place.reader->addFaults("26 1 status 01");
        EXPECT_EQ(adaptor.switchReaderLED(2, 1, 7), kReaderFailed);
        EXPECT_EQ(adaptor.switchReaderLED(2, 1, 0), kReaderFailed) << "a refused LED is not the last one";
        place.reader->vanish();
        place.clock->advance(500);
        adaptor.scanUSBDevice(0);
        place.reader->comeBack();
        ASSERT_TRUE(adaptor.initReader());
        EXPECT_EQ(place.reader->ledByte(), 0x21) << "LED 3 is taken for off after a start that failed";
    }
    std::uint8_t id[6] = {};
    std::uint16_t length = 0;
    ASSERT_TRUE(adaptor.initReader());
    place.reader->addFaults("any from 1 no answer");
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(adaptor.getReaderId(id, length), kReaderFailed);
    place.reader->clearFaults();
    adaptor.getReaderId(id, length);
    EXPECT_EQ(adaptor.getReaderId(id, length), kOk) << "no silence is for good";
}

class Bare : public ReaderImpl {
  public:
    const char* getAdaptorName() override { return "bare"; }
    bool initReader() override { return false; }
    bool stopReader() override { return false; }
    bool pollTag(EventObject*&, bool, bool) override { return false; }
    void loadReaderConfig() override {}
};

TEST(AnAdaptorWithoutOperations, AnswersNotImplementedAndReleasesMemory) {
    Bare bare;
    TagUID* tags = reinterpret_cast<TagUID*>(0x10);
    short number = 7;
    QVLParamCollection in;
    QVLParamCollection* out = nullptr;
    EXPECT_EQ(bare.getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, number, tags), kNotImplemented);
    EXPECT_EQ(bare.haltAllTag(true), kNotImplemented);
    EXPECT_EQ(bare.runCommand(44, in, out), kNotImplemented);
    EXPECT_TRUE(tags == reinterpret_cast<TagUID*>(0x10) && number == 7) << "touched";
    std::uint8_t id = 0;
    std::uint16_t length = 9;
    EXPECT_EQ(bare.getReaderId(&id, length) + bare.switchReaderLED(0, 0, 0), 2 * kReaderFailed);
    EXPECT_EQ(length, 0);
    EXPECT_EQ(bare.freeMemory(static_cast<QVLParamCollection*>(nullptr)), 3000);
    EXPECT_EQ(bare.freeMemory(new TagUID[3]), 3000);
    EXPECT_EQ(bare.freeMemory(new OpResultCode[5]), 3000);
    EXPECT_EQ(ReaderImpl::freeMemory(static_cast<ReaderImpl*>(&bare)), 3000);
    EXPECT_STREQ(bare.getAdaptorName(), "bare") << "an adaptor is not the host's to release";
    bare.setDeviceInstanceID("one");
    Bare second(bare);
    bare.setDeviceInstanceID("two");
    EXPECT_STREQ(second.getDeviceInstanceID(), "one");
    second = bare;
    bare.setDeviceInstanceID(nullptr);
    EXPECT_EQ(bare.getDeviceInstanceID(), nullptr);
    EXPECT_STREQ(second.getDeviceInstanceID(), "two");
}

}  // namespace

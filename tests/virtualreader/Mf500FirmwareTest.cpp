// The MF RC500 reader: by the library's own driver over a socket, message by message.

#include "BflStatus.h"
#include "ChildProgram.h"
#include "CommandDoor.h"
#include "HexBytes.h"
#include "HostCalcCrc.h"
#include "Mf500bfl.h"
#include "ReaderClasses.h"
#include "VirtualMf500Reader.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <thread>

namespace {

const Bytes kFactoryKey(6, 0xFF), kOtherKey(6, 0x0A), kOk9000{0x90, 0x00}, kSerial{0x2A, 0, 0, 1};

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

ReaderOptions linkOptions(bool secured) {
    ReaderOptions options;
    options.knowsLinkKey = secured;
    return options;
}

short number(Mf500Status status) { return static_cast<short>(status); }

std::string linkName(const ::testing::TestParamInfo<bool>& link) { return link.param ? "Secured" : "Plain"; }

/// Driver and reader on a socket; the link is secured or not.
class Mf500Reader : public ::testing::TestWithParam<bool> {
  protected:
    Mf500Reader() {
        EXPECT_EQ(endpoint.start(), "");
        EXPECT_EQ(driver.interfaceOpen(49, 0), kBflOpened);
        EXPECT_EQ(driver.pcdConfig(), 0);
    }
    Bytes serialNumber(short& status) {
        Bytes serial(4);
        std::uint16_t length = 0;
        status = driver.pcdGetSnr(serial.data(), length);
        return serial;
    }
    bool isInStep() { return serialNumber(lastStatus) == kSerial && lastStatus == 0; }
    std::shared_ptr<MifareClassicTag> placeClassic(const Bytes& uid) {
        auto tag = std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(1024, uid), uid);
        reader->field().place(tag);
        return tag;
    }
    /// UID of any tag that is not halted, which then is; empty for none.
    Bytes nextTag() {
        std::uint8_t uid[10] = {}, length = 0;
        if (driver.piccActivateIdle(0, atq, &sak, uid, &length) != 0) return {};
        EXPECT_EQ(driver.piccHalt(), 0);
        return {uid, uid + length};
    }
    short authenticate(Bytes uid, Bytes key, std::uint8_t block, std::uint8_t type = 0x60) {
        std::uint8_t coded[12];
        EXPECT_EQ(driver.hostCodeKey(key.data(), coded), 0);
        return driver.piccAuthKey(type, uid.data(), coded, block);
    }
    short wake(Bytes uid) {
        return driver.piccActivateWakeup(0, atq, &sak, uid.data(), static_cast<std::uint8_t>(uid.size()));
    }
    /// What a card says to a block, the CRC behind it checked and cut off.
    Bytes exchange(Bytes block) {
        block.resize(block.size() + 2);
        std::uint8_t answer[300], crc[2];
        std::uint16_t length = sizeof answer;
        lastStatus =
            driver.piccExchangeBlock(block.data(), static_cast<std::uint16_t>(block.size()), answer, &length, 1, 10);
        if (lastStatus != 0) return {};
        EXPECT_GE(length, 2);
        HostCalcCrc(0, length - 2u, answer, crc);
        EXPECT_TRUE(std::equal(crc, crc + 2, answer + length - 2));
        return {answer, answer + length - 2};
    }

    TempDirectory root;
    ScopedEnvironment environment{"QVL_DEVICE_ROOT", root.path().c_str()};
    std::shared_ptr<VirtualMf500Reader> reader = std::make_shared<VirtualMf500Reader>(linkOptions(GetParam()));
    SocketEndpoint endpoint{reader, root.path(), kReaderClasses[3].guid, "mf500"};
    Mf500bfl driver;
    std::uint8_t atq[2] = {}, sak = 0;
    short lastStatus = 0;
};
INSTANTIATE_TEST_SUITE_P(Link, Mf500Reader, ::testing::Bool(), linkName);

TEST_P(Mf500Reader, TellsOfItselfAndStaysInStepThroughFailures) {
    EXPECT_EQ(driver.isQvlDevice(), GetParam());
    EXPECT_EQ(reader->isLinkKeyed(), GetParam());
    EXPECT_TRUE(reader->isFieldOn());
    std::uint8_t bytes[64] = {}, key[] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}, rates = 0;
    for (int round = 0; round < 40; ++round) {
        std::uint16_t length = 0;
        ASSERT_TRUE(isInStep());
        ASSERT_EQ(driver.pcdGetRICVersion(bytes), 0);
        ASSERT_EQ(Bytes(bytes, bytes + 3), (Bytes{0x30, 0x88, 0xF8}));
        ASSERT_EQ(driver.pcdGetFwVersion(bytes, length), 0);
        ASSERT_STREQ(reinterpret_cast<const char*>(bytes), "MF RC500 2.1.3");
        ASSERT_EQ(driver.hostCodeKey(key, bytes), 0);
        ASSERT_EQ(Bytes(bytes, bytes + 12),
                  (Bytes{0x5A, 0xF0, 0x5A, 0xE1, 0x5A, 0xD2, 0x5A, 0xC3, 0x5A, 0xB4, 0x5A, 0xA5}));
        ASSERT_EQ(driver.pcdSetAttrib(2, 1), 0);
        ASSERT_EQ(driver.pcdGetAttrib(bytes, bytes + 1, bytes + 2, bytes + 3, &rates), 0);
        ASSERT_EQ(Bytes(bytes, bytes + 4), (Bytes{2, 8, 3, 3}));
        ASSERT_EQ(rates, 9);
        // Nothing lies in the field: each of these fails, and none takes the key of the next command with it.
        for (const short failed :
             {driver.piccRequest(0x52, atq), driver.piccCascAnticoll(0x93, 0, bytes),
              driver.piccCascSelect(0x95, bytes, &sak), driver.piccActivateIdle(0, atq, &sak, bytes, bytes + 32),
              driver.piccActivateIdleLoop(0, atq, &sak, bytes, bytes + 32, 1), wake({1, 2, 3, 4}),
              driver.piccRead(4, bytes), driver.piccWrite(4, bytes), driver.piccValue(0xC1, 4, bytes, 4),
              authenticate({1, 2, 3, 4}, kFactoryKey, 4)})
            ASSERT_EQ(failed, kBflNoTag);
        exchange({0xE0, 0x80});
        ASSERT_EQ(lastStatus, kBflNoTag);
        exchange({});
        ASSERT_EQ(lastStatus, number(Mf500Status::badSendLength));
    }
    EXPECT_EQ(driver.piccAuthKey(0x60, key, bytes, 4), number(Mf500Status::badKey));
    EXPECT_EQ(wake({1, 2, 3, 4, 5}), kBflNoTag) << "no UID has five bytes";
    EXPECT_EQ(driver.pcdRfReset(0), 0);
    EXPECT_FALSE(reader->isFieldOn());
    EXPECT_EQ(driver.pcdRfReset(5), 0);
    EXPECT_TRUE(reader->isFieldOn());
}

TEST_P(Mf500Reader, SeparatesTagsWhoseUidsBeginAlike) {
    const std::vector<Bytes> kSets[] = {
        {{1, 2, 3, 4}},
        {{1, 2, 3, 4}, {1, 2, 3, 0x84}, {1, 2, 3, 5}},
        {{0x11, 0x22, 0x33, 0x44}, {0x04, 1, 2, 3, 4, 5, 6}, {0x04, 1, 2, 3, 4, 5, 6, 7, 8, 9}},
        {{0x04, 1, 2, 3, 4, 5, 6}, {0x04, 1, 2, 3, 4, 5, 0x86}, {0x04, 1, 2, 0x43, 4, 5, 6}},
        {{0x04, 1, 2, 3, 4, 5, 6, 7, 8, 9}, {0x04, 1, 2, 3, 4, 5, 6, 7, 8, 0x0A}, {0x04, 1, 2, 3, 4, 5, 6, 7, 9, 9}},
    };
    for (const auto& uids : kSets) {
        reader->field().clear();
        for (const Bytes& uid : uids)
            reader->field().place(std::make_shared<SmartCard>(uid, Bytes{0x75, 0x77, 0x81, 0x02, 0x80}));
        std::set<Bytes> found;
        for (std::size_t i = 0; i < uids.size(); ++i)
            found.insert(nextTag());
        EXPECT_EQ(found, (std::set<Bytes>(uids.begin(), uids.end())));
        EXPECT_EQ(nextTag(), Bytes());

        for (const Bytes& uid : uids) {
            EXPECT_EQ(driver.piccRequest(0x26, atq), kBflNoTag) << "all are halted";
            ASSERT_EQ(driver.piccRequest(0x52, atq), 0);
            const std::size_t levels = uid.size() / 3;
            for (std::size_t level = 0; level < levels; ++level) {
                const auto code = static_cast<std::uint8_t>(0x93 + 2 * level);
                Bytes part;
                if (level + 1 < levels) part.push_back(0x88);
                const auto from = uid.begin() + static_cast<std::ptrdiff_t>(3 * level);
                part.insert(part.end(), from, from + 4 - static_cast<std::ptrdiff_t>(part.size()));
                for (const int known : {0, 7, 13, 24, 31, 32}) {
                    Bytes heard = part;
                    ASSERT_EQ(driver.piccCascAnticoll(code, static_cast<std::uint8_t>(known), heard.data()), 0);
                    EXPECT_TRUE(std::equal(heard.begin(), heard.begin() + known / 8, part.begin()));
                    EXPECT_TRUE(known < 32 || heard == part);
                }
                Bytes nobodys = part;
                nobodys[0] ^= 0x55;
                EXPECT_EQ(driver.piccCascAnticoll(code, 8, nobodys.data()), kBflNoTag);
                ASSERT_EQ(driver.piccCascSelect(code, part.data(), &sak), 0);
                EXPECT_EQ(sak, level + 1 < levels ? 0x04 : 0x20);
            }
            EXPECT_EQ(driver.piccHalt(), 0);
            ASSERT_EQ(wake(uid), 0);
            EXPECT_EQ(sak, 0x20);
            EXPECT_TRUE(atq[0] & (uid.size() == 4 ? 0x04 : uid.size() == 7 ? 0x40 : 0x80)) << "laid over the others";
            EXPECT_EQ(driver.piccHalt(), 0);
        }
        EXPECT_EQ(wake({9, 9, 9, 9}), kBflNoTag);
    }
}

TEST_P(Mf500Reader, ReadsWritesAndCountsOnAClassic) {
    const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
    const auto tag = placeClassic(uid);
    Bytes data(16, 0x5A), value{5, 0, 0, 0, 0xFA, 0xFF, 0xFF, 0xFF, 5, 0, 0, 0, 4, 0xFB, 4, 0xFB}, heard(16);
    std::uint8_t two[] = {2, 0, 0, 0};
    ASSERT_EQ(wake(uid), 0);
    EXPECT_EQ(sak, 0x08);
    EXPECT_EQ(driver.piccRead(4, heard.data()), number(Mf500Status::refused)) << "nobody has shown a key";
    EXPECT_EQ(driver.piccRead(4, heard.data()), kBflNoTag) << "and the tag fell back";
    ASSERT_EQ(wake(uid), 0);
    EXPECT_EQ(authenticate(uid, kOtherKey, 4), number(Mf500Status::notAuthenticated));
    ASSERT_EQ(wake(uid), 0);
    ASSERT_EQ(authenticate(uid, kFactoryKey, 4, 0x61), 0) << "key B";
    ASSERT_EQ(wake(uid), 0);
    ASSERT_EQ(authenticate(uid, kFactoryKey, 4), 0);
    EXPECT_EQ(driver.piccWrite(5, data.data()), 0);
    EXPECT_EQ(driver.piccRead(5, heard.data()), 0);
    EXPECT_EQ(heard, data);
    EXPECT_EQ(driver.piccWrite(4, value.data()), 0);
    EXPECT_EQ(driver.piccValue(0xC1, 4, two, 4), 0);
    EXPECT_EQ(driver.piccValue(0xC2, 4, two, 6), 0) << "restored elsewhere, unchanged";
    EXPECT_EQ(driver.piccValue(0xC0, 4, two, 4), 0);
    EXPECT_EQ(driver.piccRead(4, heard.data()), 0);
    EXPECT_EQ(heard, value);
    EXPECT_EQ(driver.piccRead(6, heard.data()), 0);
    EXPECT_EQ(heard[0], 7);
    EXPECT_EQ(tag->memory()->writeCount(), 5u);
    EXPECT_EQ(driver.piccValue(0xC1, 5, two, 5), number(Mf500Status::refused)) << "no value block";
    EXPECT_TRUE(isInStep());
}

TEST_P(Mf500Reader, ExchangesBlocksWithACard) {
    const Bytes uid{0x08, 1, 2, 3}, ats{0x06, 0x78, 0x77, 0x81, 0x02, 0x80};
    reader->field().place(scriptedCard(uid, {ats.begin() + 1, ats.end()}));
    ASSERT_EQ(wake(uid), 0);
    EXPECT_EQ(exchange({0xE0, 0x81}), ats);
    EXPECT_EQ(exchange({0xD1, 0x11, 0x0A}), Bytes{0xD1}) << "PPS";
    EXPECT_EQ(exchange({0x0A, 0x01, 0x80, 0x01, 0x77}), (Bytes{0x0A, 0x01, 0x80, 0x01, 0x77, 0x90, 0x00}));
    Bytes longest{0x0B, 0x01, 0x80, 0x01};
    longest.resize(252, 0x42);
    EXPECT_EQ(exchange(longest), longest + kOk9000) << "256 bytes with the CRC";
    EXPECT_TRUE(isInStep()) << "the new key came behind a reply in the clear";
    Bytes bare{0x0A, 0x01, 0x80, 0x00}, answer(8);
    auto length = static_cast<std::uint16_t>(answer.size());
    EXPECT_EQ(driver.piccExchangeBlock(bare.data(), 4, answer.data(), &length, 0, 10), 0);
    answer.resize(length);
    EXPECT_EQ(answer, (Bytes{0x0A, 0x01, 0x90, 0x00})) << "without CRC either way";
    EXPECT_EQ(driver.piccRequest(0x52, atq), kBflNoTag) << "in the protocol";
    reader->addFault("block 1 pad 251");
    exchange({0x0B, 0x01, 0x80, 0x00});
    EXPECT_EQ(lastStatus, number(Mf500Status::answerTooLong));
    exchange(Bytes(255));
    EXPECT_EQ(lastStatus, number(Mf500Status::badSendLength));
    EXPECT_EQ(exchange({0xCA, 0x01}), (Bytes{0xCA, 0x01})) << "deselected";
    EXPECT_EQ(driver.piccRequest(0x26, atq), kBflNoTag) << "and halted";
    EXPECT_EQ(wake(uid), 0);
    EXPECT_TRUE(isInStep());
}

TEST_P(Mf500Reader, MisbehavesAsOrderedAndIsHealedByTheAgreement) {
    const bool secured = GetParam();
    const short kShort = kBflBadFrame, kLost = kBflDeviceFailed;
    struct {
        const char* plan;
        short status;        ///< Of the command for the serial number.
        bool sound = false;  ///< The number is right all the same.
    } const kFaults[] = {
        {"22 1 status FC", -4},         {"22 1 short 2", secured ? short{0} : kShort},
        {"22 1 cut 1", kShort},         {"22 1 cut 4", kShort},
        {"22 1 pad 3", 0, true},        {"22 1 xor 0 05", 5, true},
        {"22 1 xor 2 01", 0},           {"22 1 out of step", 0, !secured},
        {"22 1 overdue 30", 0, true},   {"any 1 vanish before", kLost},
        {"22 1 vanish between", kLost}, {"22 1 vanish after", 0, true},
    };
    for (const auto& fault : kFaults) {
        const std::uint32_t count = reader->commandCount(0x22);
        ASSERT_EQ(reader->addFault(std::string_view(fault.plan)), "");
        EXPECT_EQ(serialNumber(lastStatus) == kSerial, fault.sound) << fault.plan;
        EXPECT_EQ(lastStatus, fault.status) << fault.plan;
        EXPECT_EQ(reader->commandCount(0x22), count + 1) << fault.plan;
        reader->clearFaults();
        if (!reader->isPresent()) {
            EXPECT_FALSE(reader->isFieldOn());
            EXPECT_EQ(serialNumber(lastStatus), Bytes(4)) << "hung up, and so the name is gone";
            EXPECT_EQ(driver.interfaceOpen(49, 0), kBflNotOpened);
            reader->comeBack();
            while (driver.interfaceOpen(49, 0) != kBflOpened)
                std::this_thread::yield();
        }
        EXPECT_EQ(driver.pcdConfig(), 0) << fault.plan;
        EXPECT_EQ(reader->isLinkKeyed(), GetParam());
        EXPECT_TRUE(isInStep()) << fault.plan;
    }
}

TEST_P(Mf500Reader, RefusesAWrongConfirmation) {
    std::uint8_t wrong[16] = {1}, key[16] = {};
    EXPECT_EQ(driver.pcdConfig2(wrong, key),
              GetParam() ? number(Mf500Status::notAuthenticated) : number(Mf500Status::unknownCommand));
    EXPECT_FALSE(reader->isLinkKeyed());
    EXPECT_EQ(driver.pcdConfig(), 0);
    EXPECT_TRUE(isInStep());
}

/// The replies to messages, one after the other; bytes that come late have their delay in front.
struct Replies : ReaderSink {
    void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) override {
        heard += (heard.empty() ? "" : ", ") + (delayMs != 0 ? std::to_string(delayMs) + " ms: " : "") + text(frame);
    }
    void onBabble() override { ADD_FAILURE(); }
    void onQuiet() override {}
    std::string heard;
};

TEST(Mf500Messages, AreAnsweredOrNotAsThePlanHasIt) {
    VirtualMf500Reader reader(linkOptions(false));
    Replies replies;
    reader.connect(&replies);
    const auto ask = [&](const Bytes& message) {
        replies.heard.clear();
        reader.receive(message);
        return replies.heard;
    };
    ASSERT_EQ(reader.addFaults("22 1 no answer\n22 2 no reply\n22 3 late reply\n22 5 reply twice\n22 6 overdue 70\n"),
              "");
    const std::string kNumber = "00 00 2A 00 00 01", kNoTag = "FF FF 00 00";
    EXPECT_EQ(ask({0x22}), "");
    EXPECT_EQ(reader.commandCount(0x22), 0u) << "lost on the way";
    EXPECT_EQ(ask({0x22}), "");
    EXPECT_EQ(ask({0x22}), "");
    EXPECT_EQ(reader.commandCount(0x22), 2u);
    EXPECT_EQ(ask({0x11, 0x26}), kNumber + ", " + kNoTag) << "late by one";
    EXPECT_EQ(ask({0x22}), kNumber);
    EXPECT_EQ(ask({0x22}), kNumber + ", " + kNumber);
    EXPECT_EQ(ask({0x22}), "70 ms: " + kNumber);
    // What hosts should not say: unknown commands, wrong lengths, values out of range.
    for (const Bytes& message : {Bytes{0x77}, Bytes{0x09}, Bytes{0x09, 1}})
        EXPECT_EQ(ask(message), "E9 FF");
    for (const Bytes& message : {Bytes{0x22, 0}, Bytes{0x41, 0x93, 33, 0, 0, 0, 0}, Bytes{0x41, 0x94, 0, 0, 0, 0, 0}})
        EXPECT_EQ(ask(message), "C4 FF 00 00 00 00");
    for (const Bytes& message : {Bytes{0x11}, Bytes{0x11, 0x27}, Bytes{0x48, 9, 0, 1, 0, 0, 0, 0, 1, 2, 3}})
        EXPECT_EQ(ask(message), "C4 FF 00 00");
    for (const Bytes& message : {Bytes{0x10, 1}, Bytes{0x20}, Bytes(20, 0x18), Bytes{0x1B, 0xC3, 4, 0, 0, 0, 0, 4}})
        EXPECT_EQ(ask(message), "C4 FF");
    EXPECT_EQ(ask({0x46, 4, 0}), "CB FF");
    EXPECT_EQ(ask({0x44, 0, 4, 1, 2}), "C4 FF 00 00 00") << "fewer UID bytes than announced";
    EXPECT_EQ(ask({}), "");
    for (const char* effect : {"no ack", "nack", "wrong ack", "late ack", "error", "endless", "wrong checksum",
                               "wrong code", "extended 20", "already awake"})
        EXPECT_NE(reader.addFaults("22 1 short 1\n22 1 " + std::string(effect)).find("line 2: \""), std::string::npos)
            << effect;
    EXPECT_EQ(ask({0x22}), kNumber) << "a text with a mistake is refused whole";
}

#ifdef QVLREADERSIM
TEST(Mf500Program, ServesTheDriverAndTheLineCommands) {
    const TempDirectory root;
    const ScopedEnvironment environment("QVL_DEVICE_ROOT", root.path().c_str());
    ChildProgram program({QVLREADERSIM, "--reader", "mf500", "new:card:08010203"});
    EXPECT_EQ(program.line(), "ready mf500 at " + root.path());
    Mf500bfl driver;
    std::uint8_t atq[2], sak = 0, uid[10] = {}, length = 0;
    ASSERT_EQ(driver.interfaceOpen(49, 0), kBflOpened);
    EXPECT_EQ(driver.pcdConfig(), 0);
    EXPECT_EQ(driver.piccActivateIdle(0, atq, &sak, uid, &length), 0);
    EXPECT_EQ(program.ask("list"), "tag1  smart card  08010203  active  new:card:08010203");
    EXPECT_EQ(program.line(), "ok");
    EXPECT_EQ(program.ask("led"), "ok 00");
    EXPECT_EQ(program.ask("fault 11 1 no ack"), "error: \"no ack\" does not exist for this model of reader");
    EXPECT_EQ(program.ask("fault 11 1 status FE"), "ok");
    EXPECT_EQ(driver.piccRequest(0x26, atq), -2);
    EXPECT_EQ(program.ask("quit"), "ok");
    EXPECT_EQ(program.wait(), 0);
    for (const char* other : {"--com=1", "--baud=9600", "--cascade-tag", "--atqa-high-first", "--refused-13"}) {
        ChildProgram refused({QVLREADERSIM, "--reader", "mf500", other});
        EXPECT_EQ(refused.wait(), 2) << other;
    }
}
#endif

}  // namespace

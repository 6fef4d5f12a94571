// Exchanges with a card, block by block, over a stand-in for the MF RC500; and, where no deselection is needed, for the
// reader that fills in the CRC by itself.

#include "HexBytes.h"
#include "ManualClock.h"
#include "QvlTcl.h"
#include "QvlTclUtil.h"

#include <gmock/gmock.h>

#include <functional>
#include <sstream>
#include <string>

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A reader with one activated card, which answers each block by `card`.
class CardReader : public Qvl14443bfl {
  public:
    struct Reply {
        Bytes block;
        short status = 0;
    };
    explicit CardReader(BflType type) : mType(type) {}
    BflType getBflType() override { return mType; }
    short pcdSetAttrib(std::uint8_t, std::uint8_t) override { return attribStatus; }
    short piccExchangeBlock(std::uint8_t* data, std::uint16_t length, std::uint8_t* answer, std::uint16_t* capacity,
                            std::uint8_t, std::uint32_t timeout) override {
        EXPECT_EQ(timeout, 0x10000u);
        ++blocks;
        Bytes block(data, data + length);
        const std::size_t crc = mType == BflTypeMf500 ? 2 : 0;
        EXPECT_GT(block.size(), crc);
        block.resize(block.size() - crc);
        Reply reply = card(block);
        if (reply.status == 0 && !bare) reply.block.resize(reply.block.size() + crc);
        if (reply.block.size() > *capacity) return kBflBadFrame;
        std::copy(reply.block.begin(), reply.block.end(), answer);
        *capacity = static_cast<std::uint16_t>(reply.block.size());
        return reply.status;
    }
    std::function<Reply(const Bytes&)> card;
    short attribStatus = 0;
    bool bare = false;  // answers come without room for a CRC
    int blocks = 0;

  private:
    BflType mType;
};

class Exchange : public ::testing::TestWithParam<BflType> {
  protected:
    explicit Exchange(BflType type) : reader(std::make_shared<CardReader>(type)) {
        tcl.setDriver(reader);
        tcl.reset(1);
        activate();
    }
    Exchange() : Exchange(GetParam()) {}

    /// Card 5 of the table, with or without CID and NAD, and frames of size index `fsi`.
    void activate(bool withCid = true, bool withNad = false, std::uint8_t fsi = 0) {
        QvlTclUtil::resetmPicc(&tcl, 5);
        PiccInfo& info = *tcl.mPicc[5];
        info.mCID = 5, info.mUidLen = 4, info.mFSI = fsi, info.mFSD = 128;
        info.mNADSupp = withNad, info.mCIDSupp = withCid;
        info.mFlags = static_cast<std::uint8_t>((withCid ? 2 : 0) | (withNad ? 1 : 0));
        info.mParams.flags = info.mFlags;
    }
    bool isActivated() const { return tcl.mPicc[5]->mUidLen != 0; }

    /// The card says what `dialogue` writes after "<", "!" stands for no answer; what the host has to say follows ">".
    void script(const std::string& dialogue) {
        std::istringstream in(dialogue);
        steps.clear();
        for (std::string step; std::getline(in, step, ',');)
            steps.push_back(step.substr(step.find_first_not_of(' ')));
        reader->card = [this](const Bytes& block) -> CardReader::Reply {
            steps.resize(std::max<std::size_t>(steps.size(), 2), "!");
            EXPECT_EQ("> " + text(block), steps[0]);
            const std::string answer = steps[1];
            steps.erase(steps.begin(), steps.begin() + 2);
            if (answer == "!") return {{}, -1027};
            return {hex(answer.substr(1)), 0};
        };
    }
    /// "status: answer"; the whole dialogue has to have taken place.
    std::string exchange(const Bytes& command, std::size_t room = 64, std::uint8_t nad = 0) {
        Bytes answer(room, 0xEE), sent = command;
        auto length = static_cast<std::uint32_t>(room);
        const short status = tcl.TclExchange(5, nad, sent.data(), static_cast<std::uint32_t>(sent.size()), nullptr,
                                             answer.data(), &length);
        EXPECT_EQ(sent, command);
        EXPECT_THAT(steps, ::testing::IsEmpty());
        EXPECT_TRUE(status != -50 || length == room);
        answer.resize(status == 0 || status == -50 ? length : 0);
        return std::to_string(status) + (answer.empty() ? "" : ": " + text(answer));
    }
    std::string exchangeIn(const std::string& dialogue, const Bytes& command = {0}, std::size_t room = 64,
                           std::uint8_t nad = 0) {
        script(dialogue);
        return exchange(command, room, nad);
    }

    std::shared_ptr<CardReader> reader;
    QvlTcl tcl;
    std::vector<std::string> steps;
};

TEST_P(Exchange, FollowsTheStandardBlockByBlock) {
    const struct {
        const char *what, *command, *dialogue, *result;
    } cases[] = {
        {"one block each way", "00 84", "> 0A 05 00 84, < 0A 05 11 90 00", "0: 11 90 00"},
        {"no data", "00", "> 0A 05 00, < 0A 05", "0"},
        {"a chain out", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C",
         "> 1A 05 00 01 02 03 04 05 06 07 08 09 0A 0B, < AA 05, > 0B 05 0C, < 0B 05 90 00", "0: 90 00"},
        {"a chain in", "00", "> 0A 05 00, < 1A 05 01 02, > AB 05, < 1B 05 03, > AA 05, < 0A 05 04", "0: 01 02 03 04"},
        {"more time, twice", "00", "> 0A 05 00, < FA 05 01, > FA 05 01, < FA 05 7F, > FA 05 3F, < 0A 05 90", "0: 90"},
        {"more time within a chain out", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C",
         "> 1A 05 00 01 02 03 04 05 06 07 08 09 0A 0B, < FA 05 02, > FA 05 02, < AA 05, > 0B 05 0C, < 0B 05 90",
         "0: 90"},
        {"a lost answer", "00", "> 0A 05 00, !, > BA 05, < 0A 05 90", "0: 90"},
        {"a lost answer in a chain", "00", "> 0A 05 00, < 1A 05 01, > AB 05, !, > AB 05, < 0B 05 02", "0: 01 02"},
        {"a lost block of a chain out", "00 01 02 03 04 05 06 07 08 09 0A 0B 0C",
         "> 1A 05 00 01 02 03 04 05 06 07 08 09 0A 0B, !, > BA 05, < AA 05, > 0B 05 0C, < 0B 05 90", "0: 90"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        activate();
        EXPECT_EQ(exchangeIn(c.dialogue, hex(c.command)), c.result);
        EXPECT_TRUE(isActivated());
    }
    activate();
    for (const char* dialogue : {"> 0A 05 00, < 0A 05 90", "> 0B 05 00, < 0B 05 90", "> 0A 05 00, < 0A 05 90"})
        EXPECT_EQ(exchangeIn(dialogue), "0: 90") << "the block number goes on";
    activate(false);
    EXPECT_EQ(exchangeIn("> 02 00, < F2 03, > F2 03, < 12 01, > A3, !, > A3, < 03 02"), "0: 01 02") << "without a CID";
    activate();
    tcl.mMaxTry = 3;
    EXPECT_EQ(exchangeIn("> 0A 05 00, !, > BA 05, < AB 05, > 0A 05 00, < 1A 05 01, > AB 05, !, > AB 05, < 0B 05 02"),
              "0: 01 02")
        << "as many repetitions as allowed in all";
}

TEST_P(Exchange, SendsWhatWasLostAgainWithTheNadOfTheFirstBlockOnly) {
    activate(true, true);
    EXPECT_EQ(exchangeIn("> 1E 05 12 00 01 02 03 04 05 06 07 08 09 0A, < AB 05, "
                         "> 1E 05 12 00 01 02 03 04 05 06 07 08 09 0A, < AA 05, > 0B 05 0B 0C, < 0F 05 21 90",
                         hex("00 01 02 03 04 05 06 07 08 09 0A 0B 0C"), 64, 0x12),
              "0: 90");
    EXPECT_EQ(exchangeIn("> 0E 05 12 00, < 1E 05 21 01, > AB 05, < 0B 05 02", {0}, 64, 0x12), "0: 01 02")
        << "the NAD is no data";
    EXPECT_EQ(exchange({0}, 64, 0x18), "-21");
    tcl.mPicc[5]->mFlags |= 0x08;  // more of the command follows
    EXPECT_EQ(exchangeIn("> 1E 05 12 00, < AA 05", {0}, 64, 0x12), "0");
    tcl.mPicc[5]->mFlags &= 0x07;
    EXPECT_EQ(exchangeIn("> 0B 05 01, < 0B 05 90", {1}, 64, 0x12), "0: 90") << "the end of that command, without a NAD";
    activate();
    EXPECT_EQ(exchangeIn("> 0A 05 00, < 0A 05 90", {0}, 64, 0x18), "0: 90") << "a card without NAD";
}

TEST_P(Exchange, TakesALongerBlockThanTheReadersFramesAndRefusesNothingToSend) {
    EXPECT_EQ(exchange({}), "-21");
    EXPECT_EQ(tcl.TclExchange(16, 0, nullptr, 0, nullptr, nullptr, nullptr), -60);
    EXPECT_EQ(tcl.TclDeselect(16), -60);
    EXPECT_EQ(reader->blocks, 0);
    const std::string longest = text(Bytes(252, 0x90));
    EXPECT_EQ(exchangeIn("> 0A 05 00, < 0A 05 " + longest, {0}, 252), "0: " + longest) << "the block number stayed";
}

/// Of a card that chains its answer in blocks of `chunk` bytes.
CardReader::Reply nextOf(const Bytes& whole, std::size_t& at, std::size_t chunk, const Bytes& block) {
    if (block[0] >> 4 == 0) at = 0;
    const std::size_t count = std::min(chunk, whole.size() - at);
    const bool more = at + count < whole.size();
    const auto number = static_cast<std::uint8_t>(block[0] & 1);
    Bytes answer{static_cast<std::uint8_t>(0x0A | number | (more ? 0x10 : 0)), 5};
    answer.insert(answer.end(), whole.begin() + static_cast<std::ptrdiff_t>(at),
                  whole.begin() + static_cast<std::ptrdiff_t>(at + count));
    at += count;
    return {answer, 0};
}

TEST_P(Exchange, DeliversEveryByteOnceWhateverTheBuffer) {
    for (const std::size_t size : {1u, 13u, 124u, 125u, 256u, 1000u, 4097u, 70000u})
        for (const std::size_t chunk : {1u, 12u, 124u})
            for (const std::size_t room : {1u, 2u, 7u, 123u, 124u, 125u, 600u, 80000u}) {
                if (size / chunk > 5000 || size / room > 5000) continue;
                Bytes whole(size);
                for (std::size_t i = 0; i < size; ++i)
                    whole[i] = static_cast<std::uint8_t>(i * 7 + i / 256);
                std::size_t at = 0;
                activate();
                reader->card = [&](const Bytes& block) { return nextOf(whole, at, chunk, block); };
                Bytes received;
                short status = -50;
                for (std::size_t calls = 0; status == -50 && calls <= size; ++calls) {
                    Bytes buffer(room);
                    auto length = static_cast<std::uint32_t>(room);
                    std::uint8_t command[1] = {0x5A};
                    status = tcl.TclExchange(5, 0, command, 1, nullptr, buffer.data(), &length);
                    received.insert(received.end(), buffer.begin(), buffer.begin() + length);
                }
                ASSERT_EQ(status, 0) << size << ' ' << chunk << ' ' << room;
                ASSERT_EQ(received, whole) << size << ' ' << chunk << ' ' << room;
            }
}

INSTANTIATE_TEST_SUITE_P(On, Exchange, ::testing::Values(BflTypeMf500, BflTypeNfcTama),
                         [](const auto& param) { return param.param == BflTypeMf500 ? "Mf500" : "Tama"; });

/// With the reader to which the host itself says S(DESELECT).
class FailedExchange : public Exchange {
  protected:
    FailedExchange() : Exchange(BflTypeMf500) {}
};

TEST_F(FailedExchange, EndsWithTheDeselection) {
    const std::pair<const char*, const char*> cases[] = {
        {"two lost answers", "> 0A 05 00, !, > BA 05, !"},
        {"a second failure after one repetition", "> 0A 05 00, !, > BA 05, < AB 05"},
        {"a wrong block number", "> 0A 05 00, < 0B 05 90"},
        {"another card's block", "> 0A 05 00, < 0A 06 90"},
        {"a reserved bit in the CID", "> 0A 05 00, < 0A 15 90"},
        {"no CID", "> 0A 05 00, < 02 90"},
        {"an acknowledgement that fits", "> 0A 05 00, < AA 05"},
        {"a NAK", "> 0A 05 00, < BA 05"},
        {"an unasked deselection", "> 0A 05 00, < CA 05"},
        {"a request for time without its byte", "> 0A 05 00, < FA 05"},
        {"an empty frame", "> 0A 05 00, <"},
        {"a repeated block within a chain", "> 0A 05 00, < 1A 05 01, > AB 05, < 1A 05 01"},
    };
    // In its frame stands the CRC of the host, which is no zero; the script sees the block before it.
    const std::pair<const char*, const char*> ends[] = {{"CA 05", "-52"},
                                                        {"0A 05", "-53"}};  // the second is no S-block
    for (const auto& [what, dialogue] : cases)
        for (const auto& [end, status] : ends) {
            SCOPED_TRACE(what);
            activate();
            EXPECT_EQ(exchangeIn(std::string(dialogue) + ", > CA 05, < " + end), status);
            EXPECT_FALSE(isActivated());
        }
    activate(false);
    EXPECT_EQ(exchangeIn("> 02 00, < 0A 05 90, > C2, !"), "-53") << "a CID that nobody uses";
    activate();
    reader->attribStatus = 9;
    EXPECT_EQ(exchangeIn("> 0A 05 00, < 0B 05"), "-53");
    EXPECT_TRUE(isActivated()) << "the reader refused the bit rate, so the card is where it was";
    reader->attribStatus = 0;
    reader->bare = true;
    for (const std::string answer : {"<", "< 0A"}) {
        activate();
        EXPECT_EQ(exchangeIn("> 0A 05 00, " + answer + ", > BA 05, " + answer + ", > CA 05, < CA 05"), "-52")
            << "an answer shorter than its CRC";
    }
    reader->bare = false;
    activate();
    tcl.mMaxTry = 0;
    EXPECT_EQ(exchangeIn("> 0A 05 00, !, > CA 05, < CA 05"), "-52") << "no repetition is allowed";
}

TEST_F(FailedExchange, LeavesNoRestBehind) {
    const auto overflow = [this] {
        activate();
        EXPECT_EQ(exchangeIn("> 0A 05 00, < 1A 05 01 02 03", {0}, 2), "-50: 01 02");
    };
    const struct {
        const char* dialogue;
        Bytes command;
        const char* result;
    } cases[] = {
        {"> AB 05, < 0B 05 04", {0x77, 0x78}, "0: 03 04"},    // what the call sends plays no part
        {"> AB 05, < AA 05, > CA 05, < CA 05", {}, "-52"},    // asked to repeat a command of an earlier call
        {"> AB 05, !, > AB 05, < 0B 05 04", {}, "0: 03 04"},  // within a chain the acknowledgement is repeated
    };
    for (const auto& c : cases) {
        overflow();
        EXPECT_EQ(exchangeIn(c.dialogue, c.command), c.result);
    }
    EXPECT_EQ(exchangeIn("> 0A 05 77, < 0A 05 90", {0x77}), "0: 90");

    overflow();
    script("> CA 05, < CA 05");
    EXPECT_EQ(tcl.TclDeselect(5), 0);
    EXPECT_EQ(exchange({}), "-21");
    for (const auto& [answer, status] :
         {std::pair{"CA 05 01 02 03 04 05", 0}, std::pair{"0A 05 01 02 03 04 05", -23}}) {
        activate();
        script(std::string("> CA 05, < ") + answer);
        EXPECT_EQ(tcl.TclDeselect(5), status);
    }

    activate();
    overflow();
    std::swap(tcl.mPicc[5], tcl.mPicc[15]);  // whose record a reset leaves alone
    tcl.reset(1);
    std::swap(tcl.mPicc[5], tcl.mPicc[15]);
    EXPECT_TRUE(isActivated());
    EXPECT_EQ(exchange({}), "-21");

    overflow();
    tcl.reset(1);
    activate();
    EXPECT_EQ(exchangeIn("> 0A 05 77, < 0A 05 90", {0x77}), "0: 90");
    overflow();  // and the end of the object, for the memory checker
}

TEST_F(FailedExchange, OnACardThatNeverFinishes) {
    ManualClock clock;
    const auto never = [&](auto card) {
        activate();
        reader->blocks = 0;
        reader->card = [&clock, card](const Bytes& block) -> CardReader::Reply {
            if ((block[0] & 0xF7) == 0xC2) return {{0xCA, 5}, 0};
            clock.advance(2000);
            return card(block);
        };
        const std::uint64_t start = clock.nowMs();
        EXPECT_EQ(exchange({0}), "-52");
        return clock.nowMs() - start;
    };
    const CardReader::Reply time{{0xFA, 5, 1}, 0};
    const auto empty = [](const Bytes& block) -> CardReader::Reply {
        return {{static_cast<std::uint8_t>(0x1A | (block[0] & 1)), 5}, 0};
    };
    const auto waited = never([&](const Bytes&) { return time; });
    EXPECT_GT(waited, 600000u);
    EXPECT_LT(waited, 605000u);
    never(empty);
    EXPECT_EQ(reader->blocks, 256) << "255 blocks, and the deselection";
    bool flip = false;
    never([&](const Bytes& block) { return (flip = !flip) ? time : empty(block); });
    // A slow card that does move data may take as long as it likes.
    activate();
    int slices = 0;
    reader->card = [&](const Bytes& block) -> CardReader::Reply {
        clock.advance(500000);
        ++slices;
        return {{static_cast<std::uint8_t>(0x0A | (block[0] & 1) | (slices < 9 ? 0x10 : 0)), 5, 0x11}, 0};
    };
    EXPECT_EQ(exchange({0}), "0: 11 11 11 11 11 11 11 11 11");
    // Or to take in a long command.
    activate();
    reader->card = [&](const Bytes& block) -> CardReader::Reply {
        clock.advance(500000);
        const bool more = (block[0] & 0x10) != 0;
        return {{static_cast<std::uint8_t>((more ? 0xAA : 0x0A) | (block[0] & 1)), 5}, 0};
    };
    EXPECT_EQ(exchange(Bytes(60, 0x77)), "0");
}

}  // namespace

// The card table, activation, ATS and PPS, over a stand-in for either reader.

#include "AtsFormat.h"
#include "QvlTcl.h"
#include "QvlTclUtil.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

/// A reader of either kind with one card before it. Notes what is sent to the card.
class StandInReader : public Qvl14443bfl {
  public:
    explicit StandInReader(BflType type) : mType(type) {}
    BflType getBflType() override { return mType; }

    using Out = std::uint8_t*;
    short interfaceOpen(std::uint32_t, std::uint32_t) override { return openStatus; }
    short pcdConfig() override { return configStatus; }
    short pcdRfReset(std::uint16_t ms) override { return rfResetMs = ms, rfStatus; }
    short pcdGetAttrib(Out fsci, Out fsdi, Out piccDiv, Out pcdDiv, Out attrib) override {
        *fsci = *fsdi = 7, *piccDiv = 2, *pcdDiv = 1, *attrib = 0;
        return attribStatus;
    }
    short pcdSetAttrib(std::uint8_t dsi, std::uint8_t dri) override { return attributes = {dsi, dri}, setStatus; }
    short pcdSetDefaultAttrib() override { return defaultStatus; }
    short piccActivateIdle(std::uint8_t, Out, Out, Out u, Out length, Out a, Out aLength) override {
        return mType == BflTypeMf500 ? short{kBflNotImplemented} : (tellAts(a, aLength), find(u, length));
    }
    short piccActivateIdle(std::uint8_t, Out, Out, Out u, Out length) override { return find(u, length); }
    short piccActivateIdleLoop(std::uint8_t, Out, Out, Out u, Out length, std::uint8_t, Out a, Out aLength) override {
        return tellAts(a, aLength), find(u, length);
    }
    short piccActivateIdleLoop(std::uint8_t, Out, Out, Out u, Out length, std::uint8_t) override {
        return find(u, length);
    }
    short piccActivateWakeup(std::uint8_t, Out, Out, Out, std::uint8_t, Out a, Out aLength) override {
        return tellAts(a, aLength), short{kBflOk};
    }
    short piccActivateWakeup(std::uint8_t, Out, Out, Out, std::uint8_t) override { return kBflOk; }
    short piccExchangeBlock(std::uint8_t* data, std::uint16_t length, std::uint8_t* answer, std::uint16_t* capacity,
                            std::uint8_t, std::uint32_t timeout) override {
        sent.assign(data, data + length);
        sentTimeout = timeout;
        if (reply.size() > *capacity) return kBflBadFrame;
        std::ranges::copy(reply, answer);
        *capacity = static_cast<std::uint16_t>(reply.size());
        return exchangeStatus;
    }
    short piccHalt() override { return 77; }

    short openStatus = kBflOpened, configStatus = 0, rfStatus = 0, attribStatus = 0, setStatus = 0, defaultStatus = 0,
          exchangeStatus = 0;
    std::uint16_t rfResetMs = 0;
    Bytes uid{1, 2, 3, 4}, ats, reply, sent, attributes;
    std::uint32_t sentTimeout = 0;
    int failuresFirst = 0, tries = 0;

  private:
    void tellAts(Out a, Out length) const {
        std::ranges::copy(ats, a);
        *length = static_cast<std::uint8_t>(ats.size());
    }
    short find(Out u, Out length) {
        if (++tries <= failuresFirst) return kBflNoTag;
        std::copy_n(uid.begin(), std::min<std::size_t>(uid.size(), 10), u);
        *length = static_cast<std::uint8_t>(uid.size());
        return kBflOk;
    }
    BflType mType;
};

class CardLayer : public ::testing::Test {
  protected:
    void use(BflType type) {
        reader = std::make_shared<StandInReader>(type);
        tcl.setDriver(reader);
    }
    short activate(std::uint8_t baudrate = 0) { return tcl.TclActivateIdle(baudrate, atq, &sak, uid, &uidLen); }
    short getAts(std::uint8_t cid, std::uint16_t capacity = sizeof ats) {
        atsLen = capacity;
        hist = nullptr;
        const short status = tcl.TclGetAts(cid, ats, &atsLen, &hist, &histLen, &cidSupp, &nadSupp);
        historical.assign(hist, hist + (hist != nullptr ? histLen : 0));
        delete[] hist;
        return status;
    }
    /// The card's ATS on the way that the reader in use takes.
    void cardAnswers(const Bytes& bytes) {
        reader->ats = bytes;
        reader->reply = bytes;
        reader->reply.insert(reader->reply.end(), {0xC0, 0xC1});  // the CRC that an MF RC500 leaves on
    }
    /// From the activation to the ATS, which the card answers with.
    short select(const Bytes& answered, std::uint8_t cid) {
        cardAnswers(answered);
        EXPECT_EQ(activate(), 0);
        std::ranges::fill(ats, std::uint8_t{0xFF});  // what stands after the ATS must not count
        return getAts(cid);
    }
    PiccInfo& card(int cid) { return *tcl.mPicc[cid]; }

    std::shared_ptr<StandInReader> reader;
    QvlTcl tcl;
    std::uint8_t atq[2], sak = 0, uid[10], uidLen = 0, ats[512] = {}, cidSupp = 9, nadSupp = 9;
    std::uint16_t atsLen = 0, histLen = 0;
    std::uint8_t* hist = nullptr;
    Bytes historical;
};

class OnBothReaders : public CardLayer, public ::testing::WithParamInterface<BflType> {
  protected:
    OnBothReaders() { use(GetParam()); }
};

INSTANTIATE_TEST_SUITE_P(Readers, OnBothReaders, ::testing::Values(BflTypeNfcTama, BflTypeMf500));

TEST_P(OnBothReaders, AnAtsIsDecodedIntoTheCardsRecord) {
    const struct {
        Bytes ats, record;  // FSCI, FSI, FWI, SFGI, TA1, CID, NAD, flags
        Bytes historical = {};
    } cases[] = {{{1}, {7, 0, 4, 0, 0, 1, 0, 0}},  // the length byte alone
                 {{2, 0x05}, {5, 5, 4, 0, 0, 1, 0, 2}},
                 {{6, 0x75, 0x77, 0x81, 0x02, 0x80}, {5, 5, 8, 1, 0x77, 1, 0, 2}, {0x80}},
                 {{5, 0x48, 0x01, 0xAA, 0xBB}, {8, 7, 4, 0, 0, 0, 1, 1}, {0xAA, 0xBB}},
                 {{2, 0x0F}, {8, 7, 4, 0, 0, 1, 0, 2}},            // FSCI above 8
                 {{2, 0x02}, {2, 2, 4, 0, 0, 1, 0, 2}},            // FSCI below FSDI
                 {{2, 0x25}, {5, 5, 0, 0, 0, 1, 0, 2}},            // TB1 beyond the end reads as 0
                 {{3, 0x55, 0x77}, {5, 5, 4, 0, 0x77, 0, 0, 0}}};  // and so does TC1
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        ASSERT_EQ(select(c.ats, 3), 0);
        const PiccInfo& p = card(3);
        EXPECT_EQ(atsLen, c.ats.size());
        EXPECT_EQ((Bytes{p.mFSCI, p.mFSI, p.mFWI, p.mSFGI, p.mTA1, cidSupp, nadSupp, p.mFlags}), c.record);
        EXPECT_EQ(historical, c.historical);
        EXPECT_EQ((Bytes{p.mUidLen, p.mParams.flags, p.mParams.cid, p.mParams.fwi}), (Bytes{4, p.mFlags, 3, p.mFWI}));
    }
}

TEST_P(OnBothReaders, AMalformedAtsLeavesTheCidFree) {
    for (const Bytes& bad : {Bytes{2, 0x70}, Bytes{2, 0x60}, Bytes{3, 0x70, 0x77}, Bytes{4, 0x05}, Bytes{3, 0x05},
                             Bytes{200, 0x05, 1}, Bytes{2, 0x05, 1}, Bytes(130, 130)}) {
        EXPECT_EQ(select(bad, 2), kTclBadAts) << int{bad[0]} << " " << int{bad[1]};
        EXPECT_EQ(card(2).mUidLen, 0);
    }
    cardAnswers({6, 0x75, 0x77, 0x81, 0x02, 0x80});
    ASSERT_EQ(activate(), 0);
    std::ranges::fill(ats, std::uint8_t{0});
    EXPECT_EQ(getAts(2, 5), kTclBadAts) << "longer than the caller's buffer";
    EXPECT_EQ(ats[5], 0) << "and not a byte after it";
}

// No byte behind TL is used, whatever T0 announces.
TEST(AnAts, IsNeverReadBehindItsEnd) {
    for (const std::size_t tl : {2u, 3u, 4u, 5u, 6u, 255u})
        for (unsigned t0 = 0; t0 < 256; ++t0) {
            Bytes exact(tl, 0x12);
            exact[0] = static_cast<std::uint8_t>(tl), exact[1] = static_cast<std::uint8_t>(t0);
            Ats out;
            if (decodeAts(exact, out).interfaceByte != nullptr) continue;
            const std::size_t announced = 2 + (t0 >> 4 & 1) + (t0 >> 5 & 1) + (t0 >> 6 & 1);
            ASSERT_LE(out.historicalStart + out.historicalCount, tl);
            ASSERT_EQ(out.historicalCount, tl > announced ? tl - announced : 0);
        }
}

TEST_F(CardLayer, AnMfRc500GetsRatsFromHere) {
    use(BflTypeMf500);
    cardAnswers({2, 0x05});
    ASSERT_EQ(activate(2), 0);
    EXPECT_EQ(reader->attributes, (Bytes{2, 2}));
    ASSERT_EQ(getAts(5), 0);
    EXPECT_EQ(reader->sent, (Bytes{0xE0, 0x75, 0x13, 0xD3})) << "RATS with CRC_A";
    EXPECT_EQ(reader->sentTimeout, 10000u);
    EXPECT_EQ(card(5).mDSI, 2);
    tcl.mAppend_crc = 0;
    reader->reply = {2, 0x05};
    ASSERT_EQ(getAts(5), 0);
    EXPECT_EQ(reader->sent, (Bytes{0xE0, 0x75}));
    tcl.mAppend_crc = 1;
    for (const Bytes& tooShort : {Bytes{}, Bytes{2}}) {
        reader->reply = tooShort;
        EXPECT_EQ(getAts(5), kTclBadAts);
    }
    reader->reply = {0x01, 0xA0};  // a CRC and nothing else
    EXPECT_EQ(getAts(5), 0);
    reader->exchangeStatus = 9;
    EXPECT_EQ(getAts(5), 9);
    EXPECT_EQ(activate(4), kTclOutOfRange);
    reader->setStatus = 8;
    EXPECT_EQ(activate(), 8);
    reader->defaultStatus = 7;
    EXPECT_EQ(activate(), 7);
}

TEST_F(CardLayer, ATamaReaderKnowsOneBitRate) {
    use(BflTypeNfcTama);
    EXPECT_EQ(activate(1), kTclOutOfRange);
    EXPECT_EQ(tcl.TclActivateWakeup(1, atq, &sak, uid, 4), kTclOutOfRange);
    reader->failuresFirst = 1;
    EXPECT_EQ(activate(), kBflNoTag);
    EXPECT_EQ(tcl.TclHalt(), 77);
    EXPECT_EQ(tcl.TclPps(99, 9, 9), 0) << "nothing to be done";
    EXPECT_TRUE(reader->sent.empty());
}

TEST_P(OnBothReaders, OnlyASelectedCardHasAnAts) {
    EXPECT_EQ(getAts(16), kTclOutOfRange);
    EXPECT_EQ(getAts(0), kTclNoCardSelected);
    reader->uid = Bytes(11, 1);
    EXPECT_EQ(activate(), kTclUidTooLong);
    reader->uid = Bytes(10, 1);
    EXPECT_EQ(select({1}, 15), 0);
    EXPECT_EQ(card(15).mUidLen, 10);
    EXPECT_EQ(tcl.reset(0), kTclBadArgument);
    EXPECT_EQ(tcl.reset(1), 0);
    EXPECT_EQ(card(15).mUidLen, 10) << "a reset leaves the last record alone";
    EXPECT_EQ(getAts(15), kTclNoCardSelected);
    reader->attribStatus = 6;
    tcl.TclActivateWakeup(0, atq, &sak, uid, 4);
    EXPECT_EQ(getAts(1), 6);
}

TEST_P(OnBothReaders, CidsAreGivenOutAndFoundByUid) {
    const std::uint8_t first = GetParam() == BflTypeNfcTama ? 0 : 1;
    for (std::uint8_t cid = first; cid < 16; ++cid) {
        EXPECT_EQ(QvlTclUtil::getAvailableCid(&tcl), cid);
        reader->uid = {9, 9, 9, cid, 5, 6, 7};
        ASSERT_EQ(select({1}, cid), 0);
    }
    EXPECT_EQ(QvlTclUtil::getAvailableCid(&tcl), 16);
    std::uint8_t cid = 99;
    const Bytes prefix{9, 9, 9, 7}, unknown{9, 9, 8};
    EXPECT_FALSE(QvlTclUtil::isNewCid(&tcl, prefix.data(), 4, cid)) << "a record that begins so";
    EXPECT_EQ(cid, 7);
    EXPECT_TRUE(QvlTclUtil::isNewCid(&tcl, unknown.data(), 3, cid));
    EXPECT_EQ(cid, 16);
    EXPECT_FALSE(QvlTclUtil::isNewCid(&tcl, nullptr, 0, cid)) << "an empty UID matches the first taken record";
    EXPECT_EQ(cid, first);
    QvlTclUtil::resetmPicc(&tcl, 5);
    QvlTclUtil::resetmPicc(&tcl, 200);
    EXPECT_EQ(QvlTclUtil::getAvailableCid(&tcl), 5);
    EXPECT_EQ(card(5).mFWI, 4);
    EXPECT_EQ(card(5).mTC1, 2);
}

TEST_P(OnBothReaders, TheWaitingFormTriesTenTimes) {
    const auto loop = [this](std::uint8_t baudrate) {
        atsLen = sizeof ats;
        return tcl.TclGetAtsLoop(baudrate, 1, 4, atq, &sak, uid, &uidLen, ats, &atsLen, &hist, &histLen, &cidSupp,
                                 &nadSupp);
    };
    cardAnswers({1});
    reader->failuresFirst = 9;
    EXPECT_EQ(loop(0), 0);
    EXPECT_EQ(reader->tries, 10);
    EXPECT_EQ(card(4).mUidLen, 4);
    reader->tries = 0;
    reader->failuresFirst = 10;
    EXPECT_EQ(loop(0), kBflNoTag);
    EXPECT_EQ(loop(4), kTclOutOfRange);
    reader->failuresFirst = 0;
    cardAnswers({2, 0x70});
    EXPECT_EQ(loop(0), 0xD0) << "the low byte of -48";
}

TEST_F(CardLayer, PpsChangesTheBitRateWithinWhatTheReaderCan) {
    use(BflTypeMf500);
    ASSERT_EQ(select({1}, 3), 0);
    reader->reply = {0xD3, 0x11, 0x22};
    EXPECT_EQ(tcl.TclPps(3, 2, 1), 0);
    EXPECT_EQ(reader->sent.size(), 5u);
    EXPECT_EQ(Bytes(reader->sent.data(), reader->sent.data() + 3), (Bytes{0xD3, 0x11, 0x09}));
    EXPECT_EQ(reader->attributes, (Bytes{2, 1}));
    EXPECT_EQ(card(3).mDSI, 2);
    const std::uint8_t refused[][3] = {{16, 0, 0}, {3, 3, 0}, {3, 0, 2}, {3, 4, 0}};
    for (const auto& r : refused)
        EXPECT_EQ(tcl.TclPps(r[0], r[1], r[2]), kTclPpsRefused);
    for (const Bytes& wrong : {Bytes{0xD2, 0x11, 0x22}, Bytes{}, Bytes{0xD3, 0x11}, Bytes(9, 0xD3)}) {
        reader->reply = wrong;
        EXPECT_EQ(tcl.TclPps(3, 0, 0), kTclPpsRefused);
    }
    EXPECT_EQ(card(3).mDSI, 2) << "as it was";
    reader->setStatus = 5;
    EXPECT_EQ(tcl.TclPps(3, 0, 0), 5);
}

TEST_P(OnBothReaders, InitRunsTheStartByItself) {
    EXPECT_EQ(tcl.TclInit(3), 0);
    EXPECT_EQ(reader->rfResetMs, 5);
    EXPECT_EQ(tcl.mMaxTry, 3);
    reader->openStatus = 0;
    reader->rfStatus = 4;
    EXPECT_EQ(tcl.TclInit(1), 4);
    reader->configStatus = 3;
    EXPECT_EQ(tcl.TclInit(1), 3);
    reader->openStatus = kBflNotOpened;
    EXPECT_EQ(tcl.TclInit(1), kBflNotOpened);
}

TEST(TheCardLayer, WithoutAReaderFailsAndDoesNotFall) {
    EXPECT_EQ(QvlTclUtil::convertFSDI2FSD(9), 512);
    EXPECT_EQ(QvlTclUtil::convertFSCI2FSC(255), 512) << "and stops at the end of its table";
    QvlTcl tcl;
    std::uint8_t b[10] = {}, n = 0;
    for (const short status : {tcl.TclInit(1), tcl.TclActivateIdle(0, b, b, b, &n),
                               tcl.TclActivateWakeup(0, b, b, b, 4), tcl.TclPps(0, 0, 0), tcl.TclHalt()})
        EXPECT_EQ(status, kBflNoDevice);
    const std::unique_ptr<char[]> text(tcl.TclMessage(-48));
    EXPECT_STREQ(text.get(), "Error Code = -48");
}

TEST_F(CardLayer, DumpsARecord) {
    use(BflTypeNfcTama);
    ASSERT_EQ(select({6, 0x75, 0x77, 0x81, 0x02, 0x80}, 1), 0);
    ::testing::internal::CaptureStdout();
    QvlTclUtil::dumpPiccInfo(&tcl, 1);
    QvlTclUtil::dumpPiccInfo(&tcl, 16);
    const std::string text = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find("   mFWI  = 0x08   mWTX = 0x00\n"), std::string::npos) << text;
    EXPECT_NE(text.find("   mUidLen = 0x04   mUid = 0x01020304\n  Global members\n"), std::string::npos) << text;
}

}  // namespace

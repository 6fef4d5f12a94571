// One exchange with a card by ISO/IEC 14443-4: I-, R- and S-blocks with chaining both ways, repetition and waiting-time
// extension. The card's parameters hold the state, so that a call can pick up an answer that did not fit into the last.

#include "BlockFormat.h"
#include "Clock.h"
#include "QvlTcl.h"
#include "QvlTclUtil.h"
#include "ReceiveRoom.h"
#include "TclTimeouts.h"

#include <algorithm>
#include <new>

namespace {

enum State : std::uint8_t {
    kSendI = 0,
    kWaitAck = 1,
    kReceive = 2,
    kSendAck = 3,
    kSendWtx = 4,
    kEnd = 5,
    kResendI = 10,
    kRepeatAck = 11,
    kSendNak = 12,
};

constexpr std::uint8_t kNext = 1;  // which nibble of the state
constexpr std::uint8_t kLast = 0;

// Bounds on a card that never finishes, far above what lawful ones need: making a key on a card takes many extensions.
constexpr std::uint32_t kLongestStandstillMs = 600000;
constexpr int kMostEmptyBlocks = 255;

void clear(std::uint8_t& flags, std::uint8_t bit) { flags &= static_cast<std::uint8_t>(~bit); }

struct Command {
    std::uint8_t nad;
    const std::uint8_t* data;
    std::uint32_t length;
};

struct Answer {
    std::uint8_t* data;
    std::uint32_t* length;  // the size of `data` until the exchange has succeeded
};

class Exchange {
  public:
    Exchange(QvlTcl& tcl, Qvl14443bfl& bfl, PiccInfo& card, Command command, Answer answer)
        : mTcl(tcl), mBfl(bfl), mCard(card), p(card.mParams), mCommand(command), mAnswer(answer),
          mLastProgress(platform::Clock::current().tick()) {}
    ~Exchange() {
        p.nad = p.dataPos = p.dataMark = nullptr;
        if (!isRestPending()) p.block.reset();
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// @return why the exchange cannot begin, or 0.
    short prepare();
    /// @return 0, -50, or why the protocol failed.
    int run();

  private:
    /// What a state leads to: the state to run next and, if it has built a block, that block's length.
    struct Step {
        State next;
        std::uint16_t length = 0;
    };

    Step step(State state, State before);
    Step sendI();
    Step waitAck();
    Step receive();
    Step takeIn();
    Step resendI();
    Step sendR(std::uint8_t nak, State next);
    Step repeatR(std::uint8_t nak, State next);
    Step sendWtx(State next);
    Step answerWtxOrEnd();

    bool takeBlockBuffer();
    bool deliverRest();
    void exchangeBlock(std::uint16_t length);
    bool mayRetry() { return mRetries < p.maxTry && ++mRetries > 0; }
    void noteProgress();
    bool standsStill() const;
    bool isRestPending() const {
        return (mCard.mFlags & kRestPending) != 0 && QvlTclUtil::getState(&p, kNext) == kReceive;
    }
    void startAnswer();
    void toggleNumber() { p.blockNumber ^= 1; }
    const std::uint8_t* cid() const { return (p.flags & kCidInUse) != 0 ? &p.cid : nullptr; }
    std::uint8_t* commandStart() const { return const_cast<std::uint8_t*>(mCommand.data); }

    QvlTcl& mTcl;
    Qvl14443bfl& mBfl;
    PiccInfo& mCard;
    QvlTclInternalParams& p;
    Command mCommand;
    Answer mAnswer;
    std::uint8_t* mNad = &mCommand.nad;  // of the next I-block; null after the first of a chain
    std::uint8_t* mSavedMark = nullptr;  // start of the data of the I-block sent last
    std::uint32_t mTotal = 0;            // bytes received
    std::uint16_t mLength = 0;           // of the block received last
    int mStatus = kTclOk;
    int mRetries = 0;
    int mEmptyBlocks = 0;
    std::uint32_t mLastProgress;
};

bool Exchange::takeBlockBuffer() {
    if (isRestPending()) return true;
    p.block.reset(new (std::nothrow) std::uint8_t[receiveRoom(mCard, mBfl.traits())]{});
    return p.block != nullptr;
}

short Exchange::prepare() {
    if (mCard.mNADSupp != 0 && (mCommand.nad & kNadReserved) != 0) return kTclBadArgument;
    p.nad = &mCommand.nad;
    clear(p.flags, kNadSent);
    p.cid = mCard.mCID;
    p.dsi = mCard.mDSI;
    p.dri = mCard.mDRI;
    p.fwi = mCard.mFWI;
    p.maxTry = mTcl.mMaxTry;
    p.blockSize = static_cast<std::uint16_t>(QvlTclUtil::convertFSDI2FSD(mCard.mFSI) - kCrcSize);
    if (!isRestPending() && mCommand.length == 0) return kTclBadArgument;
    if (!takeBlockBuffer()) return kTclOutOfRange;
    p.dataPos = p.dataMark = commandStart();
    return kTclOk;
}

int Exchange::run() {
    if (isRestPending()) {
        if (!deliverRest()) return kTclRestPending;
    } else {
        p.state = kSendI;
        clear(p.flags, kReceivingChain);
        clear(mCard.mFlags, kRestPending);
    }
    p.restPos = p.restEnd = 0;
    for (;;) {
        const auto state = static_cast<State>(QvlTclUtil::getState(&p, kNext));
        if (state == kEnd) return mStatus;
        const auto before = static_cast<State>(QvlTclUtil::getState(&p, kLast));
        QvlTclUtil::setState(&p, kLast, state);
        const Step done = step(state, before);
        QvlTclUtil::setState(&p, kNext, done.next);
        if (isRestPending()) return kTclRestPending;
        if (done.length != 0) exchangeBlock(done.length);
    }
}

// The table of states.
Exchange::Step Exchange::step(State state, State before) {
    const State backTo = before == kWaitAck ? kWaitAck : kReceive;
    switch (state) {
    case kSendI:
        return sendI();
    case kWaitAck:
        return waitAck();
    case kReceive:
        return receive();
    case kSendAck:
        return sendR(kAck, kReceive);
    case kSendWtx:
        return sendWtx(backTo);
    case kResendI:
        return resendI();
    case kRepeatAck:
        return repeatR(kAck, kReceive);
    case kSendNak:
        return repeatR(kNak, backTo);
    case kEnd:
        break;
    }
    return {kEnd};
}

Exchange::Step Exchange::sendI() {
    if ((p.flags & kEndsChaining) != 0) {
        clear(p.flags, kEndsChaining);
        mNad = nullptr;
    }
    const bool moreFollows = (mCard.mFlags & kMoreFollows) != 0;
    const std::uint8_t* const nad = (p.flags & kNadInUse) != 0 ? mNad : nullptr;
    const std::uint16_t length =
        QvlTclUtil::buildIBlk(&p, cid(), nad, mCommand.data, mCommand.length, moreFollows ? 1 : 0);
    mSavedMark = p.dataMark;
    p.dataMark = p.dataPos;
    if ((p.block[0] & kPcbChaining) == 0) {
        startAnswer();
        return {kReceive, length};
    }
    if (moreFollows && p.dataPos == mCommand.data + mCommand.length) {
        p.dataPos = p.dataMark = commandStart();
        p.flags |= kEndsChaining;
    } else {
        mNad = nullptr;
    }
    return {kWaitAck, length};
}

Exchange::Step Exchange::waitAck() {
    if (mStatus != kTclOk) return {kSendNak};
    mStatus = QvlTclUtil::checkRAck(&p, mLength);
    switch (mStatus) {
    case kTclOk:
        toggleNumber();
        noteProgress();
        if ((p.flags & kEndsChaining) == 0) return {kSendI};
        *mAnswer.length = 0;
        return {kEnd};
    case kTclWrongNumber:
        return {kResendI};
    case kTclWrongAddress:
        return {kEnd};
    default:
        return answerWtxOrEnd();
    }
}

Exchange::Step Exchange::receive() {
    if (mStatus != kTclOk) return {(p.flags & kReceivingChain) != 0 ? kRepeatAck : kSendNak};
    mStatus = QvlTclUtil::checkI(&p, mLength);
    if (mStatus == kTclOk) return takeIn();
    if (mStatus == kTclWrongAddress) return {kEnd};
    switch (const int acknowledged = QvlTclUtil::checkRAck(&p, mLength); acknowledged) {
    case kTclWrongNumber:
        mStatus = acknowledged;
        return {kResendI};
    case kTclWrongAddress:
        mStatus = acknowledged;
        return {kEnd};
    default:
        return answerWtxOrEnd();
    }
}

// An I-block that fits.
Exchange::Step Exchange::takeIn() {
    const std::uint32_t before = mTotal;
    const int status = QvlTclUtil::receiveI(&p, mLength, mAnswer.data, *mAnswer.length, &mTotal);
    const bool more = (p.block[0] & kPcbChaining) != 0;
    clear(p.flags, kMoreToReceive);
    if (more) p.flags |= kMoreToReceive;
    if (status == kTclBufferFull) {
        mCard.mFlags |= kRestPending;
        return {kReceive};
    }
    toggleNumber();
    if (!more) {
        *mAnswer.length = mTotal;
        clear(p.flags, kReceivingChain);
        return {kEnd};
    }
    if (mTotal == before)
        ++mEmptyBlocks;
    else
        noteProgress();
    p.dataMark = p.dataPos;
    clear(p.flags, kNadSent);
    p.flags |= kReceivingChain;
    return {kSendAck};
}

// Without an I-block of this call there is nothing to send again.
Exchange::Step Exchange::resendI() {
    if (mSavedMark == nullptr || !mayRetry()) return {kEnd};
    p.dataPos = p.dataMark = mSavedMark;
    if (mSavedMark == mCommand.data) mNad = &mCommand.nad;
    return {kSendI};
}

Exchange::Step Exchange::sendR(std::uint8_t nak, State next) {
    return {next, QvlTclUtil::buildRBlk(&p, cid(), nak, p.blockNumber)};
}

Exchange::Step Exchange::repeatR(std::uint8_t nak, State next) {
    if (!mayRetry()) return {kEnd};
    return sendR(nak, next);
}

Exchange::Step Exchange::sendWtx(State next) {
    constexpr std::uint8_t kMultiplier = 0x3F;
    const auto multiplier = static_cast<std::uint8_t>(QvlTclUtil::receiveSWtx(&p) & kMultiplier);
    mStatus = kTclWaitingTime;
    return {next, QvlTclUtil::buildSBlk(&p, cid(), kWtx, multiplier)};
}

Exchange::Step Exchange::answerWtxOrEnd() {
    mStatus = QvlTclUtil::checkSWtx(&p, mLength);
    return {mStatus == kTclOk ? kSendWtx : kEnd};
}

void Exchange::startAnswer() {
    p.dataPos = p.dataMark = mAnswer.data;
    mTotal = 0;
}

/// What the buffer of an earlier call did not hold, as much as this one does. @return whether that was all.
bool Exchange::deliverRest() {
    startAnswer();
    const auto rest = static_cast<std::uint32_t>(p.restEnd - p.restPos);
    const std::uint32_t count = std::min(rest, *mAnswer.length);
    std::copy_n(p.block.get() + p.restPos, count, p.dataPos);
    p.dataPos += count;
    mTotal += count;
    p.restPos = static_cast<std::uint16_t>(p.restPos + count);
    if (count < rest) return false;
    clear(mCard.mFlags, kRestPending);
    toggleNumber();
    QvlTclUtil::setState(&p, kLast, kReceive);
    if ((p.flags & kMoreToReceive) != 0) {
        p.dataMark = p.dataPos;
        p.flags |= kReceivingChain;
        QvlTclUtil::setState(&p, kNext, kSendAck);
    } else {
        *mAnswer.length = mTotal;
        clear(p.flags, kReceivingChain);
        QvlTclUtil::setState(&p, kNext, kEnd);
    }
    return true;
}

void Exchange::noteProgress() {
    mEmptyBlocks = 0;
    mLastProgress = platform::Clock::current().tick();
}

bool Exchange::standsStill() const {
    return mEmptyBlocks >= kMostEmptyBlocks || platform::Clock::current().tick() - mLastProgress > kLongestStandstillMs;
}

// One block out and one back, in the same buffer. The reader fills in the CRC, and counts it in what it hands back.
void Exchange::exchangeBlock(std::uint16_t length) {
    if (standsStill()) {
        mStatus = kTclUnexpectedBlock;
        QvlTclUtil::setState(&p, kNext, kEnd);
        return;
    }
    const ReaderTraits traits = mBfl.traits();
    const bool withCrc = mTcl.mAppend_crc != 0 && traits.blocksCarryCrc;
    const std::uint16_t capacity = receiveRoom(mCard, traits);
    std::uint16_t received = capacity;
    if (withCrc) {
        std::fill_n(p.block.get() + length, kCrcSize, std::uint8_t{0});
        length = static_cast<std::uint16_t>(length + kCrcSize);
    }
    mTcl.mTimeout = kBlockTimeout;
    mStatus = mBfl.piccExchangeBlock(p.block.get(), length, p.block.get(), &received, mTcl.mAppend_crc, mTcl.mTimeout);
    // A closed MF RC500 driver says 0 and fills nothing in: what was sent is not the answer. No card fills all the
    // room.
    const bool isUntouched = traits.blocksCarryCrc && received == capacity;
    if (mStatus == kBflOk && (isUntouched || (withCrc && received < kCrcSize))) mStatus = kBflBadFrame;
    mLength = withCrc ? static_cast<std::uint16_t>(received - kCrcSize) : received;
}

}  // namespace

short QvlTcl::TclExchange(std::uint8_t cid, std::uint8_t nad, std::uint8_t* sendData, std::uint32_t sendLen,
                          std::uint8_t*, std::uint8_t* recvData, std::uint32_t* recvLen) {
    if (cid >= kCards || recvLen == nullptr || (recvData == nullptr && *recvLen != 0)) return kTclOutOfRange;
    if (sendData == nullptr && sendLen != 0) return kTclOutOfRange;
    const auto bfl = driver();
    if (!bfl) return kBflNoDevice;
    {
        Exchange exchange(*this, *bfl, *mPicc[cid], {nad, sendData, sendLen}, {recvData, recvLen});
        if (const short refused = exchange.prepare(); refused != kTclOk) return refused;
        const int status = exchange.run();
        if (status == kTclOk || status == kTclRestPending) return static_cast<short>(status);
    }
    return TclDeselect(cid) == kTclOk ? kTclDeselected : kTclNotDeselected;
}

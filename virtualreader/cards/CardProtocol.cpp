#include "CardProtocol.h"

#include "FaultPlan.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

// Protocol control byte. Bits 0xC0 tell the kind; bit 0x08 announces a CID, bit 0x04 of an I-block a NAD.
constexpr std::uint8_t kKindMask = 0xC0;
constexpr std::uint8_t kInformation = 0x00, kReceipt = 0x80, kSupervisory = 0xC0;
constexpr std::uint8_t kWithCid = 0x08, kWithNad = 0x04;
constexpr std::uint8_t kChaining = 0x10, kNakBit = 0x10;
constexpr std::uint8_t kNumberBit = 0x01;
constexpr std::uint8_t kIBlock = 0x02, kIBlockFixed = 0xE2;
constexpr std::uint8_t kRAck = 0xA2, kRBlockFixed = 0xE6;
constexpr std::uint8_t kDeselect = 0xC2, kWtx = 0xF2;

constexpr std::uint8_t kCidMask = 0x0F, kNadReserved = 0x88, kMultiplierMask = 0x3F;
constexpr std::size_t kCrcBytes = 2;
constexpr std::size_t kMaxCommand = 131072;

std::uint8_t swapNibbles(std::uint8_t byte) { return static_cast<std::uint8_t>(byte << 4 | byte >> 4); }

std::uint8_t kindOf(const std::vector<std::uint8_t>& block) { return block[0] & kKindMask; }

std::size_t headerBytes(const std::vector<std::uint8_t>& block) {
    return 1u + ((block[0] & kWithCid) ? 1 : 0) + (kindOf(block) == kInformation && (block[0] & kWithNad) ? 1 : 0);
}

bool isWtx(const std::vector<std::uint8_t>& block) { return (block[0] & ~kWithCid) == kWtx; }

bool isDeselect(const std::vector<std::uint8_t>& block) { return (block[0] & ~kWithCid) == kDeselect; }

}  // namespace

/// A block of the reader taken apart.
struct CardProtocol::Block {
    std::uint8_t pcb = 0;
    std::optional<std::uint8_t> cid;
    std::optional<std::uint8_t> nad;
    std::span<const std::uint8_t> payload;

    std::uint8_t kind() const { return pcb & kKindMask; }

    static std::optional<Block> parse(std::span<const std::uint8_t> frame) {
        Block block;
        block.pcb = frame[0];
        block.payload = frame.subspan(1);
        const auto takeByte = [&block](std::optional<std::uint8_t>& into) {
            if (block.payload.empty()) return false;
            into = block.payload[0];
            block.payload = block.payload.subspan(1);
            return true;
        };
        if ((block.pcb & kWithCid) && !takeByte(block.cid)) return std::nullopt;
        if (block.kind() == kInformation && (block.pcb & kWithNad) && !takeByte(block.nad)) return std::nullopt;
        return block;
    }
};

std::size_t CardProtocol::frameSize(unsigned index) {
    constexpr std::size_t kSizes[] = {16, 24, 32, 40, 48, 64, 96, 128, 256, 512, 1024, 2048, 4096};
    return kSizes[std::min<std::size_t>(index, std::size(kSizes) - 1)];
}

void CardProtocol::start(const Terms& terms) {
    stop();
    mTerms = terms;
    mCidKnown = terms.cidIsFixed;
    mNumber = 1;
    mOn = true;
    if (mApplication) mApplication->onReset();
}

void CardProtocol::stop() {
    mOn = mStaysAwake = mMoreToSend = false;
    mWtxLeft = 0;
    mNad.reset();
    for (Bytes* each : {&mCommand, &mAnswer, &mPostponed, &mLastBlock, &mHeld})
        each->clear();
}

CardProtocol::Outcome CardProtocol::take(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    if (mDeaf || frame.empty() || frame.size() + kCrcBytes > mTerms.cardFrame) return Outcome::ignored;
    const auto block = Block::parse(frame);
    if (!block || !isForUs(*block)) return Outcome::ignored;
    switch (block->kind()) {
    case kInformation:
        return onInformation(*block, answer);
    case kReceipt:
        return onReceipt(*block, answer);
    case kSupervisory:
        return onSupervisory(*block, answer);
    default:
        return Outcome::ignored;
    }
}

bool CardProtocol::isForUs(const Block& block) {
    if (block.nad && (!mTerms.takesNad || (*block.nad & kNadReserved))) return false;
    if (!block.cid) return !mTerms.takesCid || !mTerms.cidIsFixed || mTerms.cid == 0;
    if (!mTerms.takesCid) return mQuirks.undeclaredCidTaken;
    const std::uint8_t cid = *block.cid & kCidMask;
    if (!std::exchange(mCidKnown, true)) mTerms.cid = cid;
    return cid == mTerms.cid;
}

/// A new command takes the place of an answer that is still going out, but not of one that waits for time.
CardProtocol::Outcome CardProtocol::onInformation(const Block& block, AirAnswer& answer) {
    const bool sound = (block.pcb & kIBlockFixed) == kIBlock && mCommand.size() + block.payload.size() <= kMaxCommand;
    if (!sound || !mPostponed.empty()) return Outcome::ignored;
    mNumber ^= kNumberBit;
    mMoreToSend = false;
    if (block.nad) mNad = block.nad;
    mCommand.insert(mCommand.end(), block.payload.begin(), block.payload.end());
    if (!(block.pcb & kChaining)) return onCommand(block, answer);
    send(receipt(block.cid), answer);
    return Outcome::taken;
}

CardProtocol::Outcome CardProtocol::onCommand(const Block& block, AirAnswer& answer) {
    CardApplication::Answer result{{0x6D, 0x00}};  // Instruction not supported.
    if (mApplication) result = mApplication->onCommand(mCommand);
    if (result.powerLost) return Outcome::powerLost;
    mCommand.clear();
    mAnswer = std::move(result.bytes);
    mAnswerAt = 0;
    Bytes first = nextPart(block.cid);
    mWtxLeft = result.wtxCount;
    if (mWtxLeft != 0) {
        --mWtxLeft;
        first = askForTime(std::move(first), result.wtxMultiplier);
    }
    send(std::move(first), answer);
    return Outcome::taken;
}

/// With the card's own number it asks for the last block again. With the other number an ACK asks for the next block
/// of a chain, and a NAK whether the card is there.
CardProtocol::Outcome CardProtocol::onReceipt(const Block& block, AirAnswer& answer) {
    if ((block.pcb & kRBlockFixed) != kRAck || !block.payload.empty()) return Outcome::ignored;
    if ((block.pcb & kNumberBit) == mNumber) {
        if (!mLastBlock.empty()) send(mLastBlock, answer);
    } else if (block.pcb & kNakBit) {
        send(receipt(block.cid), answer);
    } else if (mMoreToSend && mPostponed.empty()) {
        mNumber ^= kNumberBit;
        send(nextPart(block.cid), answer);
    }
    return Outcome::taken;
}

CardProtocol::Outcome CardProtocol::onSupervisory(const Block& block, AirAnswer& answer) {
    const int what = block.pcb & ~kWithCid;
    if (what == kWtx) return onMoreTime(block, answer);
    if (what != kDeselect || !block.payload.empty()) return Outcome::ignored;
    send(header(kDeselect, block.cid), answer);
    return mStaysAwake ? Outcome::taken : Outcome::deselected;
}

CardProtocol::Outcome CardProtocol::onMoreTime(const Block& block, AirAnswer& answer) {
    const bool granted =
        !mPostponed.empty() && block.payload.size() == 1 && ((block.payload[0] ^ mMultiplier) & kMultiplierMask) == 0;
    if (!granted) return Outcome::ignored;
    Bytes next = std::exchange(mPostponed, {});
    if (mWtxLeft != 0) {
        --mWtxLeft;
        next = askForTime(std::move(next), mMultiplier);
    }
    send(std::move(next), answer);
    return Outcome::taken;
}

CardProtocol::Bytes CardProtocol::header(std::uint8_t pcb, std::optional<std::uint8_t> cid) const {
    Bytes block{pcb};
    if (!cid) return block;
    block[0] |= kWithCid;
    block.push_back(*cid & kCidMask);
    return block;
}

CardProtocol::Bytes CardProtocol::receipt(std::optional<std::uint8_t> cid) const {
    return header(static_cast<std::uint8_t>(kRAck | mNumber), cid);
}

/// As much of the answer as the reader takes in one block. Only the first block carries the NAD.
CardProtocol::Bytes CardProtocol::nextPart(std::optional<std::uint8_t> cid) {
    Bytes block = header(static_cast<std::uint8_t>(kIBlock | mNumber), cid);
    if (mNad) {
        block[0] |= kWithNad;
        block.push_back(swapNibbles(*std::exchange(mNad, std::nullopt)));
    }
    const std::size_t room = std::min(mTerms.readerFrame, AirAnswer::kCapacity) - kCrcBytes - block.size();
    const std::size_t part = std::min(room, mAnswer.size() - mAnswerAt);
    const auto from = mAnswer.begin() + static_cast<std::ptrdiff_t>(mAnswerAt);
    block.insert(block.end(), from, from + static_cast<std::ptrdiff_t>(part));
    mAnswerAt += part;
    if (mAnswerAt < mAnswer.size()) block[0] |= kChaining;
    return block;
}

/// Puts a block off. @return the request for time that goes out instead.
CardProtocol::Bytes CardProtocol::askForTime(Bytes block, std::uint8_t multiplier) {
    mMultiplier = multiplier;
    const auto cid = (block[0] & kWithCid) ? std::optional(block[1]) : std::nullopt;
    if (!isWtx(block)) mPostponed = std::move(block);
    Bytes request = header(kWtx, cid);
    request.push_back(multiplier);
    return request;
}

/// An information block without its data, which are to follow in the next one.
CardProtocol::Bytes CardProtocol::emptied(Bytes block) {
    if (kindOf(block) != kInformation) return block;
    const std::size_t head = headerBytes(block);
    mAnswerAt -= block.size() - head;
    block[0] |= kChaining;
    block.resize(head);
    return block;
}

void CardProtocol::send(Bytes block, AirAnswer& answer) {
    const FaultRule* fault = mFaults ? mFaults->onBlock(isDeselect(block)) : nullptr;
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    const bool canWait = isWtx(block) || (mPostponed.empty() && !isDeselect(block));
    if (effect == FaultEffect::cardAsksForTime && canWait)
        block = askForTime(std::move(block), static_cast<std::uint8_t>(fault->value));
    if (effect == FaultEffect::emptyChain) block = emptied(std::move(block));
    if (kindOf(block) == kInformation) mMoreToSend = (block[0] & kChaining) != 0;

    const Bytes previous = std::exchange(mLastBlock, std::move(block));
    Bytes air = fault ? onTheAir(*fault, previous) : mLastBlock;
    if (effect == FaultEffect::blockLate || !mHeld.empty()) {
        air.swap(mHeld);
        if (effect != FaultEffect::blockLate) mHeld.clear();
    }
    if (!air.empty()) answer.setBytes(air);
    mDeaf = effect == FaultEffect::cardDeaf;
    mStaysAwake = effect == FaultEffect::cardStaysAwake;
}

/// What the reader hears of the last block; nothing if that is empty.
CardProtocol::Bytes CardProtocol::onTheAir(const FaultRule& fault, const Bytes& previous) const {
    Bytes block = mLastBlock;
    switch (fault.effect) {
    case FaultEffect::blockLost:
        return {};
    case FaultEffect::blockBefore:
        return previous;
    case FaultEffect::blockAcknowledges:
        return receipt((block[0] & kWithCid) ? std::optional(block[1]) : std::nullopt);
    case FaultEffect::blockNumber:
        block[0] ^= kNumberBit;
        break;
    case FaultEffect::blockControlByte:
        block[0] = static_cast<std::uint8_t>(fault.value);
        break;
    case FaultEffect::xorByte:
        if (fault.offset < block.size()) block[fault.offset] ^= static_cast<std::uint8_t>(fault.value);
        break;
    case FaultEffect::cut:
        block.resize(std::min<std::size_t>(block.size(), fault.value));
        break;
    case FaultEffect::pad:
        block.resize(std::min<std::size_t>(block.size() + fault.value, AirAnswer::kCapacity));
        break;
    default:
        break;
    }
    return block;
}

#include "SmartCard.h"

#include <optional>

namespace {

constexpr std::uint8_t kHalt = 0x50;
constexpr std::uint8_t kRats = 0xE0;
constexpr std::uint8_t kPps = 0xD0;

// Protocol control byte. Bits 0xC0 tell the kind; bit 0x08 announces a CID, bit 0x04 of an I-block a NAD.
constexpr std::uint8_t kKindMask = 0xC0;
constexpr std::uint8_t kInformation = 0x00;
constexpr std::uint8_t kReceipt = 0x80;
constexpr std::uint8_t kWithCid = 0x08;
constexpr std::uint8_t kWithNad = 0x04;
constexpr std::uint8_t kChaining = 0x10;
constexpr std::uint8_t kIBlock = 0x02;
constexpr std::uint8_t kRAck = 0xA2;
constexpr std::uint8_t kRNakBit = 0x10;
constexpr std::uint8_t kDeselect = 0xC2;

constexpr std::size_t kMaxCommand = 65536;

// Interface bytes of the ATS.
constexpr std::uint8_t kTa1Follows = 0x10, kTb1Follows = 0x20, kTc1Follows = 0x40;
constexpr std::uint8_t kNadSupported = 0x01, kCidSupported = 0x02;

std::uint16_t atqaOf(std::size_t uidBytes) { return uidBytes == 4 ? 0x0004 : uidBytes == 7 ? 0x0344 : 0x0384; }

}  // namespace

/// A block taken apart.
struct SmartCard::Block {
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

SmartCard::SmartCard(std::span<const std::uint8_t> uid, std::vector<std::uint8_t> ats)
    : VirtualTag(uid, atqaOf(uid.size()), 0x20), mAts(std::move(ats)) {}

std::shared_ptr<VirtualTag> SmartCard::twin() const {
    const std::vector<std::uint8_t> other = twinUid();
    auto twin = std::make_shared<SmartCard>(other, mAts);
    twin->setAtqa(atqa());
    twin->setSak(sak());
    twin->quirks() = quirks();
    return twin;
}

void SmartCard::onFieldOn() {
    if (!quirks().freshUid) return;
    const auto fresh = mRandom();
    const std::uint8_t made[4] = {0x08, static_cast<std::uint8_t>(fresh), static_cast<std::uint8_t>(fresh >> 8),
                                  static_cast<std::uint8_t>(fresh >> 16)};
    setUid(made);
}

void SmartCard::onReset() {
    mInProtocol = mPpsAllowed = mCidKnown = false;
    mCid = 0;
    mBlockNumber = 1;
    mCommand.clear();
    mLastBlock.clear();
}

void SmartCard::onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    if (!mInProtocol) {
        if (frame.size() == 2 && frame[0] == kRats) return onRats(frame[1], answer);
        if (frame.size() == 2 && frame[0] == kHalt && frame[1] == 0) return enterHalt();
        return drop();
    }
    if (frame.empty()) return;
    if (mPpsAllowed && (frame[0] & 0xF0) == kPps) return onPps(frame, answer);
    const auto block = Block::parse(frame);
    if (!block || !isForUs(*block)) return;
    mPpsAllowed = false;
    if (block->kind() == kInformation) return onInformation(*block, answer);
    if (block->kind() == kReceipt) return onReceipt(*block, answer);
    if ((block->pcb & ~kWithCid) != kDeselect) return;
    answerBlock(kDeselect, *block, {}, answer);
    enterHalt();
}

void SmartCard::onRats(std::uint8_t parameter, AirAnswer& answer) {
    constexpr std::uint8_t kReservedCid = 15;
    const std::uint8_t cid = parameter & 0x0F;
    if (cid == kReservedCid) return drop();
    mInProtocol = mPpsAllowed = true;
    mCid = cid;
    mCidKnown = quirks().strictCid;
    std::vector<std::uint8_t> reply{static_cast<std::uint8_t>(mAts.size() + 1)};
    reply.insert(reply.end(), mAts.begin(), mAts.end());
    answer.setBytes(reply);
}

void SmartCard::onPps(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    constexpr std::uint8_t kPps1Follows = 0x11, kNoPps1 = 0x01;
    const bool sound = (frame.size() == 3 && frame[1] == kPps1Follows) || (frame.size() == 2 && frame[1] == kNoPps1);
    if (!sound || (mCidKnown && (frame[0] & 0x0F) != mCid)) return;
    mPpsAllowed = false;
    answer.setBytes(frame.first(1));
}

/// What the card says of CID and NAD; without the byte: CID yes, NAD no.
std::uint8_t SmartCard::interfaceByteTc1() const {
    if (mAts.empty() || !(mAts[0] & kTc1Follows)) return kCidSupported;
    const std::size_t at = 1u + ((mAts[0] & kTa1Follows) ? 1 : 0) + ((mAts[0] & kTb1Follows) ? 1 : 0);
    return at < mAts.size() ? mAts[at] : kCidSupported;
}

bool SmartCard::isForUs(const Block& block) {
    if (block.nad && !(interfaceByteTc1() & kNadSupported)) return false;
    if (!block.cid) return !quirks().strictCid || mCid == 0;
    if (!(interfaceByteTc1() & kCidSupported)) return quirks().undeclaredCidTaken;
    const std::uint8_t cid = *block.cid & 0x0F;
    if (!mCidKnown) {
        mCid = cid;
        mCidKnown = true;
    }
    return cid == mCid;
}

void SmartCard::onInformation(const Block& block, AirAnswer& answer) {
    if ((block.pcb & 0xE2) != kIBlock || mCommand.size() + block.payload.size() > kMaxCommand) return;
    mBlockNumber ^= 1;
    mCommand.insert(mCommand.end(), block.payload.begin(), block.payload.end());
    if (block.pcb & kChaining) {
        answerBlock(static_cast<std::uint8_t>(kRAck | mBlockNumber), block, {}, answer);
        return;
    }
    const std::vector<std::uint8_t> result = onCommand(mCommand);
    mCommand.clear();
    answerBlock(static_cast<std::uint8_t>(kIBlock | mBlockNumber), block, result, answer);
}

/// A NAK with the card's own number, or an ACK with it, asks for the last block again; a NAK with the other number
/// asks whether the card is there.
void SmartCard::onReceipt(const Block& block, AirAnswer& answer) {
    const bool nak = (block.pcb & kRNakBit) != 0;
    if ((block.pcb & 1) == mBlockNumber) {
        if (!mLastBlock.empty()) answer.setBytes(mLastBlock);
    } else if (nak) {
        answerBlock(static_cast<std::uint8_t>(kRAck | mBlockNumber), block, {}, answer);
    }
}

void SmartCard::answerBlock(std::uint8_t pcb, const Block& to, std::span<const std::uint8_t> payload,
                            AirAnswer& answer) {
    mLastBlock.assign(1, pcb);
    if (to.cid) {
        mLastBlock[0] |= kWithCid;
        mLastBlock.push_back(*to.cid & 0x0F);
    }
    if (to.nad && (pcb & kKindMask) == kInformation) {
        mLastBlock[0] |= kWithNad;
        mLastBlock.push_back(*to.nad);
    }
    mLastBlock.insert(mLastBlock.end(), payload.begin(), payload.end());
    answer.setBytes(mLastBlock);
}

std::vector<std::uint8_t> SmartCard::onCommand(std::span<const std::uint8_t>) {
    return {0x6D, 0x00};  // Instruction not supported.
}

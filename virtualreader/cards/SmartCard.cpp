#include "SmartCard.h"

namespace {

constexpr std::uint8_t kHalt = 0x50;
constexpr std::uint8_t kRats = 0xE0;
constexpr std::uint8_t kPps = 0xD0;

// Format byte and interface bytes of the ATS.
constexpr std::uint8_t kFrameSizeMask = 0x0F, kDefaultFrameSize = 2;
constexpr std::uint8_t kTa1Follows = 0x10, kTb1Follows = 0x20, kTc1Follows = 0x40;
constexpr std::uint8_t kNadSupported = 0x01, kCidSupported = 0x02;

std::uint16_t atqaOf(std::size_t uidBytes) { return uidBytes == 4 ? 0x0004 : uidBytes == 7 ? 0x0344 : 0x0384; }

}  // namespace

SmartCard::SmartCard(std::span<const std::uint8_t> uid, std::vector<std::uint8_t> ats,
                     std::unique_ptr<CardApplication> application)
    : VirtualTag(uid, atqaOf(uid.size()), 0x20), mAts(std::move(ats)), mProtocol(quirks(), std::move(application)) {}

std::shared_ptr<VirtualTag> SmartCard::twin() const {
    const std::vector<std::uint8_t> other = twinUid();
    const CardApplication* application = mProtocol.application();
    auto twin = std::make_shared<SmartCard>(other, mAts, application ? application->clone() : nullptr);
    twin->setAtqa(atqa());
    twin->setSak(sak());
    twin->quirks() = quirks();
    return twin;
}

TagMemory* SmartCard::memory() {
    CardApplication* application = mProtocol.application();
    return application ? application->memory() : nullptr;
}

void SmartCard::onFieldOn() {
    mProtocol.hearAgain();
    if (!quirks().freshUid) return;
    const auto fresh = mRandom();
    const std::uint8_t made[4] = {0x08, static_cast<std::uint8_t>(fresh), static_cast<std::uint8_t>(fresh >> 8),
                                  static_cast<std::uint8_t>(fresh >> 16)};
    setUid(made);
}

void SmartCard::onReset() {
    mPpsAllowed = false;
    mProtocol.stop();
}

void SmartCard::onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    if (!isInProtocol()) {
        if (frame.size() == 2 && frame[0] == kRats) return onRats(frame[1], answer);
        if (frame.size() == 2 && frame[0] == kHalt && frame[1] == 0) return enterHalt();
        return drop();
    }
    if (mPpsAllowed && !frame.empty() && (frame[0] & 0xF0) == kPps) return onPps(frame, answer);
    switch (mProtocol.take(frame, answer)) {
    case CardProtocol::Outcome::ignored:
        return;
    case CardProtocol::Outcome::taken:
        mPpsAllowed = false;
        return;
    case CardProtocol::Outcome::deselected:
        return enterHalt();
    case CardProtocol::Outcome::powerLost:
        return losePower();
    }
}

void SmartCard::onRats(std::uint8_t parameter, AirAnswer& answer) {
    constexpr std::uint8_t kReservedCid = 15;
    CardProtocol::Terms terms;
    terms.cid = parameter & 0x0F;
    if (terms.cid == kReservedCid) return drop();
    terms.cidIsFixed = quirks().strictCid || terms.cid != 0;
    terms.readerFrame = CardProtocol::frameSize(parameter >> 4);
    terms.cardFrame = CardProtocol::frameSize(mAts.empty() ? kDefaultFrameSize : mAts[0] & kFrameSizeMask);
    terms.takesCid = (interfaceByteTc1() & kCidSupported) != 0;
    terms.takesNad = (interfaceByteTc1() & kNadSupported) != 0;
    mProtocol.start(terms);
    mPpsAllowed = true;
    std::vector<std::uint8_t> reply{static_cast<std::uint8_t>(mAts.size() + 1)};
    reply.insert(reply.end(), mAts.begin(), mAts.end());
    answer.setBytes(reply);
}

void SmartCard::onPps(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    constexpr std::uint8_t kPps1Follows = 0x11, kNoPps1 = 0x01;
    const bool sound = (frame.size() == 3 && frame[1] == kPps1Follows) || (frame.size() == 2 && frame[1] == kNoPps1);
    if (!sound || !mProtocol.isMyCid(frame[0] & 0x0F)) return;
    mPpsAllowed = false;
    answer.setBytes(frame.first(1));
}

/// What the card says of CID and NAD; without the byte: CID yes, NAD no.
std::uint8_t SmartCard::interfaceByteTc1() const {
    if (mAts.empty() || !(mAts[0] & kTc1Follows)) return kCidSupported;
    const std::size_t at = 1u + ((mAts[0] & kTa1Follows) ? 1 : 0) + ((mAts[0] & kTb1Follows) ? 1 : 0);
    return at < mAts.size() ? mAts[at] : kCidSupported;
}

#include "VirtualTag.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kCascadeTag = 0x88;
constexpr std::uint8_t kSakUidNotComplete = 0x04;

bool sameBits(const CascadePart& a, const CascadePart& b, int count) {
    for (int bit = 0; bit < count; ++bit) {
        const auto byte = static_cast<std::size_t>(bit / 8);
        if (((a[byte] ^ b[byte]) >> (bit % 8)) & 1) return false;
    }
    return true;
}

}  // namespace

void AirAnswer::setBytes(std::span<const std::uint8_t> bytes) {
    mKind = Kind::bytes;
    mLength = std::min(bytes.size(), kCapacity);
    std::copy_n(bytes.begin(), mLength, mBytes.begin());
}

VirtualTag::VirtualTag(std::span<const std::uint8_t> uid, std::uint16_t atqa, std::uint8_t sak)
    : mAtqa(atqa), mSak(sak) {
    setUid(uid);
}

VirtualTag::~VirtualTag() = default;

void VirtualTag::setUid(std::span<const std::uint8_t> uid) {
    mUidLength = std::min(uid.size(), mUid.size());
    std::copy_n(uid.begin(), mUidLength, mUid.begin());
}

std::vector<std::uint8_t> VirtualTag::twinUid() const {
    std::vector<std::uint8_t> other(uid().begin(), uid().end());
    if (!other.empty()) other.back() ^= 0xFF;
    return other;
}

int VirtualTag::cascadeLevels() const { return mUidLength <= 4 ? 1 : mUidLength <= 7 ? 2 : 3; }

CascadePart VirtualTag::cascadePart(int level) const {
    CascadePart part{};
    const auto* next = mUid.data() + std::ptrdiff_t{3} * level;
    std::size_t filled = 0;
    if (level + 1 < cascadeLevels()) part[filled++] = kCascadeTag;
    while (filled < 4)
        part[filled++] = *next++;
    part[4] = static_cast<std::uint8_t>(part[0] ^ part[1] ^ part[2] ^ part[3]);
    return part;
}

void VirtualTag::enter(State state) {
    mState = state;
    mLevel = 0;
    onReset();
}

void VirtualTag::drop() { enter(mFromHalt ? State::halted : State::idle); }

void VirtualTag::refuse(AirAnswer& answer, std::uint8_t nak) {
    answer.setNibble(nak);
    drop();
}

void VirtualTag::enterHalt() { enter(State::halted); }

void VirtualTag::losePower() {
    mFromHalt = false;
    enter(State::idle);
}

void VirtualTag::fieldOn() {
    if (mState != State::off) return;
    losePower();
    onFieldOn();
}

void VirtualTag::fieldOff() {
    if (mState == State::off) return;
    mFromHalt = false;
    enter(State::off);
}

bool VirtualTag::request(Request request, std::uint16_t& atqa) {
    if (isInProtocol()) return false;
    switch (mState) {
    case State::off:
        return false;
    case State::idle:
        mFromHalt = false;
        break;
    case State::halted:
        if (request != Request::wupa) return false;
        mFromHalt = true;
        break;
    case State::ready:
    case State::active:  // A request is no frame for a tag that is already awake.
        drop();
        return false;
    }
    enter(State::ready);
    atqa = mAtqa;
    return true;
}

bool VirtualTag::anticollision(int level, const CascadePart& known, int knownBits, CascadePart& part) {
    if (mState != State::ready || level != mLevel) return false;
    const CascadePart own = cascadePart(level);
    if (!sameBits(own, known, std::min(knownBits, 40))) return false;
    part = own;
    return true;
}

bool VirtualTag::select(int level, const CascadePart& part, std::uint8_t& sak) {
    if (mState != State::ready) {
        if (mState == State::active && !isInProtocol()) drop();
        return false;
    }
    if (level != mLevel || part != cascadePart(level)) {
        drop();
        return false;
    }
    if (++mLevel < cascadeLevels()) {
        sak = kSakUidNotComplete;
        return true;
    }
    enter(State::active);
    sak = mSak;
    return true;
}

void VirtualTag::halt() {
    constexpr std::uint8_t kHlta[] = {0x50, 0x00};
    if (mState == State::ready) drop();
    AirAnswer ignored;
    exchange(kHlta, ignored);
}

void VirtualTag::exchange(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    answer.setSilence();
    if (mState == State::active) onFrame(frame, answer);
}

bool VirtualTag::authenticate(const Authentication& authentication) {
    if (mState != State::active || isInProtocol()) return false;
    if (onAuthenticate(authentication)) return true;
    drop();
    return false;
}

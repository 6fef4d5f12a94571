// The part of the firmware that finds tags, keeps them as numbered targets, and lets them go.

#include "TamaFirmware.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kSakProtocol = 0x20;
constexpr std::uint8_t kAutomaticRats = 0x10;
constexpr std::uint8_t kTypeA106 = 0x00;
constexpr std::size_t kMaxTargets = 2;

/// A UID without cascade tags: hosts may put them in front of each part but the last (8 or 12 bytes).
std::size_t stripCascadeTags(std::span<const std::uint8_t> uid, std::array<std::uint8_t, 10>& out) {
    std::size_t length = 0;
    const bool tagged = (uid.size() == 8 || uid.size() == 12) && uid[0] == kCascadeTag;
    for (std::size_t i = 0; i < uid.size() && length < out.size(); ++i) {
        const bool isCascadeTag = tagged && i % 4 == 0 && i + 4 < uid.size();
        if (!isCascadeTag) out[length++] = uid[i];
    }
    return length;
}

}  // namespace

void TamaFirmware::inListPassiveTarget(Bytes data, TamaReply& reply) {
    const std::size_t wanted = data[0];
    const Bytes uid = data.subspan(2);
    if (wanted < 1 || wanted > kMaxTargets) {
        reply.kind = TamaReply::Kind::error;
        return;
    }
    mTargetCount = 0;
    mCurrent = 0;
    reply.put(0);  // Number of targets, known at the end.
    if (!mField.isOn()) mField.setOn(true);
    while (data[1] == kTypeA106 && mTargetCount < (uid.empty() ? wanted : 1)) {
        if (mCurrent != 0) deselect(mTargets[mCurrent - 1u]);
        Target& target = mTargets[mTargetCount];
        if (!activate(uid, target)) break;
        mCurrent = static_cast<std::uint8_t>(++mTargetCount);
        reply.put(mCurrent);
        report(target, reply);
        if ((target.sak & kSakProtocol) && (mParameters & kAutomaticRats)) {
            std::array<std::uint8_t, 32> ats;
            reply.put({ats.data(), rats(target, ats)});
        }
    }
    reply.data[0] = static_cast<std::uint8_t>(mTargetCount);
    if (mTargetCount != 0 || mActivationRetries != kEndless || 1 + data.size() > mPending.size()) return;
    mPending[0] = kInListPassiveTarget;
    std::ranges::copy(data, mPending.begin() + 1);
    mPendingLength = 1 + data.size();
    reply.kind = TamaReply::Kind::pending;
}

/// Looks for any tag that is not halted, or for the one with this UID in whatever state.
bool TamaFirmware::activate(Bytes uid, Target& target) {
    if (mField.isEmpty()) return false;
    const auto request = uid.empty() ? VirtualTag::Request::reqa : VirtualTag::Request::wupa;
    // A tag that was left selected takes the first try as a disturbance and answers the second. What two tries have
    // not found, more of them do not find either.
    const int tries = std::min<int>(mActivationRetries, 1) + 1;
    for (int attempt = 0; attempt < tries; ++attempt) {
        const auto atqa = mField.request(request);
        if (!atqa) continue;
        target = Target{};
        target.atqa = *atqa;
        std::array<std::uint8_t, 10> plain;
        const std::size_t plainLength = stripCascadeTags(uid, plain);
        if (uid.empty() ? selectAny(mField, target) : selectByUid(mField, {plain.data(), plainLength}, target))
            return true;
    }
    return false;
}

/// Brings the tag into the block protocol, with card number 0. @return bytes of its ATS, 0 if it does not answer.
std::size_t TamaFirmware::rats(Target& target, std::span<std::uint8_t> ats) {
    constexpr std::uint8_t kRats[] = {0xE0, 0x50};  // Frames of 64 bytes.
    mField.exchange(kRats, mAnswer);
    if (mAnswer.kind() != AirAnswer::Kind::bytes) return 0;
    target.inProtocol = true;
    const std::size_t length = std::min(mAnswer.bytes().size(), ats.size());
    std::copy_n(mAnswer.bytes().begin(), length, ats.begin());
    return length;
}

void TamaFirmware::report(const Target& target, TamaReply& reply) const {
    const auto low = static_cast<std::uint8_t>(target.atqa), high = static_cast<std::uint8_t>(target.atqa >> 8);
    reply.put(mOptions.atqaHighByteFirst ? high : low);
    reply.put(mOptions.atqaHighByteFirst ? low : high);
    reply.put(target.sak);
    const Bytes uid = target.uidBytes();
    const std::size_t cascadeTags = mOptions.cascadeTagInUid ? uid.size() / 3 - 1 : 0;
    reply.put(static_cast<std::uint8_t>(uid.size() + cascadeTags));
    for (std::size_t level = 0; level < cascadeTags; ++level) {
        reply.put(kCascadeTag);
        reply.put(uid.subspan(3 * level, 3));
    }
    reply.put(uid.subspan(3 * cascadeTags));
}

/// HLTA, whose success is silence, or the deselection of the block protocol, which is answered.
std::uint8_t TamaFirmware::deselect(const Target& target) {
    constexpr std::uint8_t kDeselectBlock[] = {0xC2};
    VirtualTag* tag = mField.selected(target.uidBytes());
    if (!target.inProtocol) {
        if (tag) tag->halt();
        return kTamaOk;
    }
    if (!tag) return kTamaTimeOut;
    tag->exchange(kDeselectBlock, mAnswer);
    return mAnswer.kind() == AirAnswer::Kind::bytes ? kTamaOk : kTamaTimeOut;
}

/// Number 0 means all targets; only one of them can be selected.
std::uint8_t TamaFirmware::deselectAll(std::uint8_t number) {
    if (mTargetCount == 0 || number > mTargetCount) return kTamaWrongContext;
    if (mCurrent == 0 || (number != 0 && number != mCurrent)) return kTamaOk;
    return deselect(mTargets[mCurrent - 1u]);
}

void TamaFirmware::inDeselect(Bytes data, TamaReply& reply) { reply.put(deselectAll(data[0])); }

void TamaFirmware::inRelease(Bytes data, TamaReply& reply) {
    reply.put(deselectAll(data[0]));
    mTargetCount = 0;
    mCurrent = 0;
}

void TamaFirmware::inSelect(Bytes data, TamaReply& reply) {
    if (data[0] == mCurrent) mCurrent = 0;  // Selected anew, whatever it is doing.
    reply.put(makeCurrent(data[0]));
}

/// Changes over to target `number`: the other one is put to rest, this one woken by its UID.
std::uint8_t TamaFirmware::makeCurrent(std::uint8_t number) {
    if (number < 1 || number > mTargetCount) return kTamaWrongContext;
    if (number == mCurrent) return kTamaOk;
    if (mCurrent != 0) deselect(mTargets[mCurrent - 1u]);
    Target& target = mTargets[number - 1u];
    const bool wasInProtocol = target.inProtocol;
    const std::array<std::uint8_t, 10> uid = target.uid;
    mCurrent = number;
    if (!activate({uid.data(), target.uidLength}, target)) return kTamaTimeOut;
    std::array<std::uint8_t, 32> ats;
    return wasInProtocol && rats(target, ats) == 0 ? kTamaTimeOut : kTamaOk;
}

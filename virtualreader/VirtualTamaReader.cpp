#include "VirtualTamaReader.h"

#include <algorithm>
#include <utility>

std::uint8_t babbleByte(std::uint64_t position) {
    // An extended frame of the greatest length, in which nothing makes sense.
    constexpr std::uint8_t kHead[] = {0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02};
    constexpr std::uint64_t kWhole = 0xFFFF + 10;
    const std::uint64_t at = position % kWhole;
    return at < sizeof kHead ? kHead[at] : std::uint8_t{0xA5};
}

VirtualTamaReader::VirtualTamaReader(ReaderOptions options, std::shared_ptr<VirtualField> field)
    : mField(field ? std::move(field) : std::make_shared<VirtualField>()), mOptions(options),
      mFirmware(*mField, mOptions) {
    mField->setListener(this);
    mField->setPower(this);
    mField->setFaults(&mFaults);
}

VirtualTamaReader::~VirtualTamaReader() {
    mField->setListener(nullptr);
    mField->setPower(nullptr);
    mField->setFaults(nullptr);
}

void VirtualTamaReader::connect(ReaderSink* sink) {
    const auto held = mField->lock();
    mSink = sink;
    mLink.resync();
    mFirmware.cancel();
    mHeldCount = 0;
    mBabbling = false;
}

void VirtualTamaReader::watch(ReaderWatcher& watcher) {
    const auto held = mField->lock();
    mWatchers.push_back(&watcher);
}

void VirtualTamaReader::unwatch(ReaderWatcher& watcher) {
    const auto held = mField->lock();
    std::erase(mWatchers, &watcher);
}

void VirtualTamaReader::receive(Bytes bytes) {
    const auto held = mField->lock();
    HostFrame frame;
    for (std::uint8_t byte : bytes)
        if (mPresent && mLink.takeByte(byte, frame)) onHostFrame(frame);
}

void VirtualTamaReader::onHostFrame(HostFrame& frame) {
    switch (frame.kind) {
    case HostFrame::Kind::ack:  // The host gives up the command that runs.
        mFirmware.cancel();
        return;
    case HostFrame::Kind::nack:
        send({mLastFrame.data(), mLastFrameLength});
        return;
    case HostFrame::Kind::command:
        onCommand(frame);
        return;
    case HostFrame::Kind::damaged:
        return;
    }
}

void VirtualTamaReader::onCommand(HostFrame& frame) {
    if (std::exchange(mBabbling, false) && mSink) mSink->onQuiet();
    mFirmware.cancel();
    for (std::size_t i = 0; i < mHeldCount; ++i)
        send({mHeld[i].bytes.data(), mHeld[i].length});
    mHeldCount = 0;

    const FaultRule* fault = mFaults.isEmpty() ? nullptr : mFaults.onCommand(frame.command[0]);
    if (fault && fault->effect == FaultEffect::noAnswer) return;
    if (!mLink.open(frame)) {
        if (!mOptions.errorToBadFrames) return;
        send(kAckFrame);
        send(kErrorFrame);
        return;
    }
    ++mCounts[frame.command[0]];
    handle(frame.command, fault);
    if (!mFallen.empty()) mField->setPresent(std::exchange(mFallen, {}), false);
}

void VirtualTamaReader::handle(Bytes command, const FaultRule* fault) {
    if (!fault) {
        send(kAckFrame);
        execute(command, nullptr);
        answer(nullptr);
        return;
    }
    if (!applyBefore(*fault)) return;
    sendAck(fault->effect);
    if (fault->effect == FaultEffect::vanishBetween) return vanish();
    execute(command, fault);
    answer(fault);
    if (fault->effect == FaultEffect::vanishAfter) vanish();
}

/// What a fault does to reader and tags before the command. @return false if that is the end of it.
bool VirtualTamaReader::applyBefore(const FaultRule& fault) {
    switch (fault.effect) {
    case FaultEffect::vanishBefore:
        vanish();
        return false;
    case FaultEffect::outOfStep:
        mLink.skipStream();
        break;
    case FaultEffect::tagGone:
        mField->takeFirstAway();
        break;
    case FaultEffect::tagBack:
        mField->bringBack();
        break;
    case FaultEffect::tagBlinks:
        mField->blinkFirst();
        break;
    case FaultEffect::tagSwapped:
        mField->swapFirst(fault.tag);
        break;
    default:
        break;
    }
    return true;
}

void VirtualTamaReader::sendAck(FaultEffect effect) {
    switch (effect) {
    case FaultEffect::noAck:
        return;
    case FaultEffect::nack:
        return send(kNackFrame);
    case FaultEffect::lateAck:
        return hold(kAckFrame);
    case FaultEffect::wrongAck: {
        auto wrong = kAckFrame;
        wrong[4] ^= 0x01;
        return send(wrong);
    }
    default:
        return send(kAckFrame);
    }
}

/// Carries the command out, or puts in place of its reply what the fault says; leaves the plain reply in mReply.
void VirtualTamaReader::execute(Bytes command, const FaultRule* fault) {
    constexpr std::uint8_t kAwake[] = {0x00, 0x00};  // No target, and one byte more.
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    mReplyCode = static_cast<std::uint8_t>(command[0] + 1);
    const auto substitute = [this](Bytes data, TamaReply::Kind kind = TamaReply::Kind::reply) {
        mReply.clear();
        mReply.kind = kind;
        mReply.put(data);
    };
    switch (effect) {
    case FaultEffect::error:
        return substitute({}, TamaReply::Kind::error);
    case FaultEffect::status: {
        const auto status = static_cast<std::uint8_t>(fault->value);
        return substitute({&status, 1});
    }
    case FaultEffect::alreadyAwake:
        return substitute(kAwake);
    default:
        mFirmware.execute(command, mReply);
    }
    if (effect == FaultEffect::shortReply) mReply.length = std::min<std::size_t>(mReply.length, fault->value);
    if (effect == FaultEffect::wrongCode) mReplyCode = static_cast<std::uint8_t>(mReplyCode + 2);
    if (effect == FaultEffect::pad) {
        for (std::uint32_t i = 0; i < std::min<std::uint32_t>(fault->value, kMaxReplyData); ++i)
            mReply.put(std::uint8_t{0x00});
    }
}

void VirtualTamaReader::answer(const FaultRule* fault) {
    switch (mReply.kind) {
    case TamaReply::Kind::pending:
        return;
    case TamaReply::Kind::error:
        std::ranges::copy(kErrorFrame, mLastFrame.begin());
        mLastFrameLength = kErrorFrame.size();
        break;
    case TamaReply::Kind::reply:
        buildReply();
        break;
    }
    const std::span<const std::uint8_t> frame(mLastFrame.data(), mLastFrameLength);
    if (fault)
        deliver(*fault, frame);
    else
        send(frame);
}

void VirtualTamaReader::buildReply() {
    constexpr LinkKey kNone{};
    if (mReply.hasNewKey && mReply.replyKey != kNone) mLink.setKey(mReply.replyKey);
    mLastFrameLength = mLink.buildReply(mReplyCode, {mReply.data.data(), mReply.length}, mLastFrame);
    if (mReply.hasNewKey) mLink.setKey(mReply.nextKey);
}

/// Sends the reply as the fault has it.
void VirtualTamaReader::deliver(const FaultRule& fault, Bytes frame) {
    auto altered = mLastFrame;
    switch (fault.effect) {
    case FaultEffect::noReply:
        return;
    case FaultEffect::lateAck:
    case FaultEffect::lateReply:
        return hold(frame);
    case FaultEffect::overdue:
        return send(frame, fault.value);
    case FaultEffect::replyTwice:
        send(frame);
        return send(frame);
    case FaultEffect::endless:
        mBabbling = true;
        if (mSink) mSink->onBabble();
        return;
    case FaultEffect::extended:
        return sendExtended(fault.value);
    case FaultEffect::cut:
        return send(frame.first(std::min<std::size_t>(frame.size(), fault.value)));
    case FaultEffect::xorByte:
        if (fault.offset < frame.size()) altered[fault.offset] ^= static_cast<std::uint8_t>(fault.value);
        return send({altered.data(), frame.size()});
    case FaultEffect::wrongChecksum:
        ++altered[frame.size() - 2];
        return send({altered.data(), frame.size()});
    default:
        return send(frame);
    }
}

/// 00 00 FF FF FF, length low byte first, a byte that makes its sum zero, and as many bytes as it takes.
void VirtualTamaReader::sendExtended(std::size_t total) {
    constexpr std::size_t kOverhead = 10;
    const std::size_t length = std::clamp<std::size_t>(total, kOverhead, 0xFFFF + kOverhead) - kOverhead;
    std::vector<std::uint8_t> frame(length + kOverhead);
    frame[2] = frame[3] = frame[4] = 0xFF;
    frame[5] = static_cast<std::uint8_t>(length);
    frame[6] = static_cast<std::uint8_t>(length >> 8);
    frame[7] = static_cast<std::uint8_t>(0u - frame[5] - frame[6]);
    send(frame);
}

void VirtualTamaReader::send(Bytes frame, std::uint32_t delayMs) {
    if (mSink && mPresent && !frame.empty()) mSink->onFrame(frame, delayMs);
}

void VirtualTamaReader::hold(Bytes frame) {
    Held& held = mHeld[mHeldCount++];
    std::ranges::copy(frame, held.bytes.begin());
    held.length = frame.size();
}

void VirtualTamaReader::onTagsChanged() {
    if (!mPresent || !mFirmware.isPending()) return;
    mFirmware.poll(mReply);
    answer(nullptr);
}

std::optional<std::size_t> VirtualTamaReader::bytesUntilPowerLoss() {
    const FaultRule* fault = mFaults.isEmpty() ? nullptr : mFaults.onWrite();
    if (!fault) return std::nullopt;
    for (const VirtualField::Entry& entry : mField->list()) {
        const bool writes = entry.tag->state() == VirtualTag::State::active && entry.tag->memory();
        if (writes && fault->effect == FaultEffect::powerLost) mFallen = entry.name;
    }
    return fault->value;
}

void VirtualTamaReader::addFault(FaultRule rule) {
    const auto held = mField->lock();
    mFaults.add(std::move(rule));
}

std::string VirtualTamaReader::addFault(std::string_view rule) {
    const auto held = mField->lock();
    return mFaults.addRule(rule);
}

std::string VirtualTamaReader::addFaults(std::string_view text) {
    const auto held = mField->lock();
    return mFaults.addText(text);
}

void VirtualTamaReader::clearFaults() {
    const auto held = mField->lock();
    mFaults.clear();
}

void VirtualTamaReader::vanish() {
    const auto held = mField->lock();
    if (!std::exchange(mPresent, false)) return;
    mFirmware.reset();
    mLink.setKey({});
    mLink.resync();
    mHeldCount = 0;
    mBabbling = false;
    for (ReaderWatcher* watcher : mWatchers)
        watcher->onVanished();
}

void VirtualTamaReader::comeBack() {
    const auto held = mField->lock();
    if (std::exchange(mPresent, true)) return;
    for (ReaderWatcher* watcher : mWatchers)
        watcher->onReturned();
}

bool VirtualTamaReader::isPresent() const {
    const auto held = mField->lock();
    return mPresent;
}

std::uint8_t VirtualTamaReader::ledByte() const {
    const auto held = mField->lock();
    return mFirmware.ledByte();
}

bool VirtualTamaReader::isFieldOn() const {
    const auto held = mField->lock();
    return mField->isOn();
}

bool VirtualTamaReader::isLinkKeyed() const {
    const auto held = mField->lock();
    return mLink.isKeyed();
}

std::uint32_t VirtualTamaReader::commandCount(std::uint8_t code) const {
    const auto held = mField->lock();
    return mCounts[code];
}

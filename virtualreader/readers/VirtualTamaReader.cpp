#include "VirtualTamaReader.h"

#include <algorithm>
#include <utility>
#include <vector>

VirtualTamaReader::VirtualTamaReader(ReaderOptions options, std::shared_ptr<VirtualField> field)
    : VirtualReader(options, std::move(field)), mFirmware(VirtualReader::field(), VirtualReader::options()) {
    joinField();
}

VirtualTamaReader::~VirtualTamaReader() { leaveField(); }

void VirtualTamaReader::onHostChanged() {
    mLink.resync();
    mFirmware.cancel();
    mBabbling = false;
}

void VirtualTamaReader::onPowerLost() {
    mFirmware.reset();
    mLink.setKey({});
    mLink.resync();
    mBabbling = false;
}

void VirtualTamaReader::onBytes(Bytes bytes) {
    HostFrame frame;
    for (std::uint8_t byte : bytes)
        if (isPlugged() && mLink.takeByte(byte, frame)) onHostFrame(frame);
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
    if (std::exchange(mBabbling, false) && sink()) sink()->onQuiet();
    mFirmware.cancel();
    sendHeld();

    const FaultRule* fault = faultOf(frame.command[0]);
    if (fault && fault->effect == FaultEffect::noAnswer) return;
    if (!mLink.open(frame)) {
        if (!options().errorToBadFrames) return;
        send(kAckFrame);
        send(kErrorFrame);
        return;
    }
    noteCommand(frame.command);
    handle(frame.command, fault);
    dropFallenTag();
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
    if (fault.effect == FaultEffect::vanishBefore) {
        vanish();
        return false;
    }
    if (fault.effect == FaultEffect::outOfStep) mLink.skipStream();
    moveTags(fault);
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
        if (sink()) sink()->onBabble();
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

void VirtualTamaReader::onTagsChanged() {
    if (!isPlugged() || !mFirmware.isPending()) return;
    mFirmware.poll(mReply);
    answer(nullptr);
}

std::uint8_t VirtualTamaReader::ledByte() const {
    const auto held = field().lock();
    return mFirmware.ledByte();
}

bool VirtualTamaReader::isLinkKeyed() const {
    const auto held = field().lock();
    return mLink.isKeyed();
}

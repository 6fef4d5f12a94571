#include "VirtualMf500Reader.h"

#include <algorithm>
#include <utility>

namespace {

constexpr std::size_t kLongestMessage = 4096;

}  // namespace

VirtualMf500Reader::VirtualMf500Reader(ReaderOptions options, std::shared_ptr<VirtualField> field)
    : VirtualReader(options, std::move(field), hasFault), mLink(VirtualReader::options()),
      mFirmware(VirtualReader::field(), VirtualReader::options()) {
    for (auto* buffer : {&mCommand, &mParameters, &mValues, &mMessage})
        buffer->reserve(kLongestMessage);
    joinField();
}

VirtualMf500Reader::~VirtualMf500Reader() { leaveField(); }

bool VirtualMf500Reader::hasFault(FaultEffect effect) {
    switch (effect) {
    case FaultEffect::noAck:
    case FaultEffect::nack:
    case FaultEffect::wrongAck:
    case FaultEffect::lateAck:
    case FaultEffect::error:
    case FaultEffect::endless:
    case FaultEffect::wrongChecksum:
    case FaultEffect::wrongCode:
    case FaultEffect::extended:
    case FaultEffect::alreadyAwake:
        return false;
    default:
        return true;
    }
}

bool VirtualMf500Reader::isLinkKeyed() const {
    const auto held = field().lock();
    return mLink.isKeyed();
}

void VirtualMf500Reader::onPowerLost() {
    mFirmware.reset();
    mLink.reset();
}

void VirtualMf500Reader::onBytes(Bytes message) {
    if (!isPlugged() || message.empty()) return;
    sendHeld();
    const std::uint8_t code = message[0];
    const FaultRule* fault = faultOf(code);
    if (fault && fault->effect == FaultEffect::noAnswer) return;
    mCommand.assign(message.begin(), message.end());
    mParameters.assign(message.begin() + 1, message.end());
    mLink.open(code, mParameters);
    std::ranges::copy(mParameters, mCommand.begin() + 1);
    noteCommand(mCommand);
    handle(code, fault);
    dropFallenTag();
}

void VirtualMf500Reader::handle(std::uint8_t code, const FaultRule* fault) {
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    if (effect == FaultEffect::vanishBefore) return vanish();
    if (effect == FaultEffect::outOfStep) mLink.skipStream();
    if (fault) moveTags(*fault);
    const Mf500Status status = execute(code, fault);
    if (effect == FaultEffect::vanishBetween) return vanish();
    mLink.seal(code, status, mValues, mMessage);
    deliver(fault);
    if (effect == FaultEffect::vanishAfter) vanish();
}

/// Carries the command out, or puts in place of its reply what the fault says; leaves the values in mValues.
Mf500Status VirtualMf500Reader::execute(std::uint8_t code, const FaultRule* fault) {
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    Mf500Status status = Mf500Status::ok;
    mValues.clear();
    if (effect == FaultEffect::status) {
        mValues.assign(Mf500Firmware::leastValues(code), 0);
        return Mf500Status{static_cast<std::int8_t>(fault->value)};
    }
    if (code == kMf500Config) {
        mFirmware.configure();
        status = mLink.agree(mParameters, mValues);
    } else if (code == kMf500ConfirmKey) {
        status = mLink.confirm(mParameters);
    } else {
        status = mFirmware.execute(code, mParameters, mValues);
    }
    if (effect == FaultEffect::shortReply) mValues.resize(std::min<std::size_t>(mValues.size(), fault->value));
    if (effect == FaultEffect::pad) {
        constexpr std::uint32_t kMostPadding = 1024;
        mValues.resize(mValues.size() + std::min(fault->value, kMostPadding));
    }
    return status;
}

/// Sends the reply as the fault has it.
void VirtualMf500Reader::deliver(const FaultRule* fault) {
    switch (fault ? fault->effect : FaultEffect::none) {
    case FaultEffect::noReply:
        return;
    case FaultEffect::lateReply:
        return hold(mMessage);
    case FaultEffect::overdue:
        return send(mMessage, fault->value);
    case FaultEffect::replyTwice:
        send(mMessage);
        return send(mMessage);
    case FaultEffect::cut:
        return send(Bytes(mMessage).first(std::min<std::size_t>(mMessage.size(), fault->value)));
    case FaultEffect::xorByte:
        if (fault->offset < mMessage.size()) mMessage[fault->offset] ^= static_cast<std::uint8_t>(fault->value);
        return send(mMessage);
    default:
        return send(mMessage);
    }
}

#include "VirtualMf500Reader.h"

#include <algorithm>
#include <utility>

VirtualMf500Reader::VirtualMf500Reader(ReaderOptions options, std::shared_ptr<VirtualField> field)
    : VirtualReader(std::move(field), hasFault), mOptions(options), mLink(mOptions),
      mFirmware(VirtualReader::field(), mOptions) {
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
    std::vector<std::uint8_t> parameters(message.begin() + 1, message.end());
    mLink.open(code, parameters);
    countCommand(code);
    handle(code, parameters, fault);
    dropFallenTag();
}

void VirtualMf500Reader::handle(std::uint8_t code, Bytes parameters, const FaultRule* fault) {
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    if (effect == FaultEffect::vanishBefore) return vanish();
    if (effect == FaultEffect::outOfStep) mLink.skipStream();
    if (fault) moveTags(*fault);
    const Mf500Status status = execute(code, parameters, fault);
    if (effect == FaultEffect::vanishBetween) return vanish();
    deliver(fault, mLink.seal(code, status, mValues));
    if (effect == FaultEffect::vanishAfter) vanish();
}

/// Carries the command out, or puts in place of its reply what the fault says; leaves the values in mValues.
Mf500Status VirtualMf500Reader::execute(std::uint8_t code, Bytes parameters, const FaultRule* fault) {
    const FaultEffect effect = fault ? fault->effect : FaultEffect::none;
    Mf500Status status = Mf500Status::ok;
    mValues.clear();
    if (effect == FaultEffect::status) {
        mValues.assign(Mf500Firmware::leastValues(code), 0);
        return Mf500Status{static_cast<std::int8_t>(fault->value)};
    }
    if (code == kMf500Config) {
        mFirmware.configure();
        status = mLink.agree(parameters, mValues);
    } else if (code == kMf500ConfirmKey) {
        status = mLink.confirm(parameters);
    } else {
        status = mFirmware.execute(code, parameters, mValues);
    }
    if (effect == FaultEffect::shortReply) mValues.resize(std::min<std::size_t>(mValues.size(), fault->value));
    if (effect == FaultEffect::pad) {
        constexpr std::uint32_t kMostPadding = 1024;
        mValues.resize(mValues.size() + std::min(fault->value, kMostPadding));
    }
    return status;
}

/// Sends the reply as the fault has it.
void VirtualMf500Reader::deliver(const FaultRule* fault, std::vector<std::uint8_t> message) {
    switch (fault ? fault->effect : FaultEffect::none) {
    case FaultEffect::noReply:
        return;
    case FaultEffect::lateReply:
        return hold(message);
    case FaultEffect::overdue:
        return send(message, fault->value);
    case FaultEffect::replyTwice:
        send(message);
        return send(message);
    case FaultEffect::cut:
        return send(Bytes(message).first(std::min<std::size_t>(message.size(), fault->value)));
    case FaultEffect::xorByte:
        if (fault->offset < message.size()) message[fault->offset] ^= static_cast<std::uint8_t>(fault->value);
        return send(message);
    default:
        return send(message);
    }
}

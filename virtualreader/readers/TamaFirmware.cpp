#include "TamaFirmware.h"

#include <algorithm>
#include <iterator>

/// What is known of a command: its code, how many data bytes it takes, who carries it out.
struct TamaFirmware::Handler {
    std::uint8_t code;
    std::size_t minData, maxData;
    void (TamaFirmware::*run)(Bytes data, TamaReply& reply);
};

const TamaFirmware::Handler TamaFirmware::kHandlers[] = {
    {kInListPassiveTarget, 2, kMaxFrameLen, &TamaFirmware::inListPassiveTarget},
    {kInDataExchange, 2, kMaxFrameLen, &TamaFirmware::inDataExchange},
    {kInCommunicateThru, 1, kMaxFrameLen, &TamaFirmware::inCommunicateThru},
    {kInDeselect, 1, 1, &TamaFirmware::inDeselect},
    {kInRelease, 1, 1, &TamaFirmware::inRelease},
    {kInSelect, 1, 1, &TamaFirmware::inSelect},
    {kSwitchLed, 1, 1, &TamaFirmware::switchLed},
    {kReaderIdentity, 0, 0, &TamaFirmware::readerIdentity},
    {kSetParameters, 1, 1, &TamaFirmware::setParameters},
    {kRfConfiguration, 2, kMaxFrameLen, &TamaFirmware::rfConfiguration},
    {kGetFirmwareVersion, 0, 0, &TamaFirmware::getFirmwareVersion},
    {kLinkKeyExchange, 0, kLinkKeyBytes, &TamaFirmware::linkKeyExchange},
    {kLinkKeyConfirm, kLinkKeyBytes, kLinkKeyBytes, &TamaFirmware::linkKeyConfirm},
};

namespace {

constexpr std::uint8_t kChipVersion = 0x04;
constexpr std::uint8_t kChipRevision = 0x02;

constexpr std::uint8_t kItemField = 0x01, kItemTimings = 0x02, kItemRetryCom = 0x04, kItemRetries = 0x05;
constexpr std::uint8_t kFieldOnBit = 0x01;

constexpr std::size_t kTargetNumberAt = 0;

}  // namespace

TamaFirmware::TamaFirmware(VirtualField& field, const ReaderOptions& options)
    : mField(field), mOptions(options), mRandom(options.keySeed) {
    reset();
}

void TamaFirmware::reset() {
    constexpr std::uint8_t kPowerUpParameters = 0x14;  // Automatic RATS and ATR_RES.
    mTargetCount = 0;
    mCurrent = 0;
    mParameters = kPowerUpParameters;
    mActivationRetries = kEndless;
    mLedByte = 0;
    cancel();
    mField.setOn(false);
}

const TamaFirmware::Handler* TamaFirmware::handlerOf(Bytes command) {
    const auto found = std::ranges::find(kHandlers, command[0], &Handler::code);
    if (found == std::end(kHandlers)) return nullptr;
    const std::size_t dataBytes = command.size() - 1;
    return dataBytes < found->minData || dataBytes > found->maxData ? nullptr : found;
}

void TamaFirmware::execute(Bytes command, TamaReply& reply) {
    cancel();
    reply.clear();
    if (const Handler* handler = handlerOf(command))
        (this->*handler->run)(command.subspan(1), reply);
    else
        reply.kind = TamaReply::Kind::error;
}

void TamaFirmware::poll(TamaReply& reply) {
    const auto command = mPending;
    execute({command.data(), mPendingLength}, reply);
}

// ---- The reader itself ----

void TamaFirmware::getFirmwareVersion(Bytes, TamaReply& reply) {
    reply.put(kChipVersion);
    reply.put(kChipRevision);
}

void TamaFirmware::setParameters(Bytes data, TamaReply&) { mParameters = data[0]; }

void TamaFirmware::rfConfiguration(Bytes data, TamaReply& reply) {
    const Bytes values = data.subspan(1);
    const auto takes = [&](std::size_t count) {
        if (values.size() == count) return true;
        reply.kind = TamaReply::Kind::error;
        return false;
    };
    switch (data[0]) {
    case kItemField:
        if (takes(1)) mField.setOn((values[0] & kFieldOnBit) != 0);
        break;
    case kItemTimings:
        takes(3);
        break;
    case kItemRetryCom:
        takes(1);
        break;
    case kItemRetries:
        if (takes(3)) mActivationRetries = values[2];
        break;
    default:
        reply.kind = TamaReply::Kind::error;
    }
}

void TamaFirmware::readerIdentity(Bytes, TamaReply& reply) {
    reply.put(kTamaOk);
    reply.put(mOptions.serialNumber);
    for (const std::uint16_t id : {mOptions.vendorId, mOptions.productId}) {
        reply.put(static_cast<std::uint8_t>(id));
        reply.put(static_cast<std::uint8_t>(id >> 8));
    }
    reply.put(mOptions.version);
}

void TamaFirmware::switchLed(Bytes data, TamaReply& reply) {
    mLedByte = data[0];
    reply.put(kTamaOk);
}

// ---- Keys of the link ----

LinkKey TamaFirmware::newKey() {
    LinkKey key{};
    if (!mOptions.zeroSessionKey)
        std::ranges::generate(key, [this] { return static_cast<std::uint8_t>(mRandom() >> 8); });
    return key;
}

/// With a challenge: answers what is derived from it, under that as key, and gives the session key after six bytes
/// that nobody reads. Without one: gives the next key under the one in force.
void TamaFirmware::linkKeyExchange(Bytes data, TamaReply& reply) {
    if (!mOptions.knowsLinkKey || (!data.empty() && data.size() != kLinkKeyBytes)) {
        reply.kind = TamaReply::Kind::error;
        return;
    }
    constexpr std::uint8_t kUnused[6] = {};
    reply.hasNewKey = true;
    reply.replyKey = {};
    reply.nextKey = newKey();
    reply.put(kTamaOk);
    if (!data.empty()) {
        LinkKey challenge;
        std::ranges::copy(data, challenge.begin());
        mConfirmation = reply.replyKey = deriveLinkKey(challenge);
        reply.put(mConfirmation);
        reply.put(kUnused);
    }
    reply.put(reply.nextKey);
}

void TamaFirmware::linkKeyConfirm(Bytes data, TamaReply& reply) {
    if (!mOptions.knowsLinkKey)
        reply.kind = TamaReply::Kind::error;
    else
        reply.put(std::ranges::equal(data, mConfirmation) ? kTamaOk : kTamaWrongContext);
}

// ---- Dialogue with the selected tag ----

void TamaFirmware::inDataExchange(Bytes data, TamaReply& reply) {
    const std::uint8_t refusal = makeCurrent(data[kTargetNumberAt]);
    if (refusal != kTamaOk || mTargets[mCurrent - 1u].inProtocol) {
        reply.put(refusal != kTamaOk ? refusal : kTamaWrongContext);
        return;
    }
    mAnswer.setSilence();
    const std::uint8_t status = exchangeBlocks(data.subspan(1));
    reply.put(status);
    if (status == kTamaOk && mAnswer.kind() == AirAnswer::Kind::bytes) reply.put(mAnswer.bytes());
}

void TamaFirmware::inCommunicateThru(Bytes data, TamaReply& reply) {
    mField.exchange(data, mAnswer);
    switch (mAnswer.kind()) {
    case AirAnswer::Kind::silence:
        reply.put(kTamaTimeOut);
        return;
    case AirAnswer::Kind::nibble:
        reply.put(kTamaBadFormat);
        return;
    case AirAnswer::Kind::bytes:
        break;
    }
    if (mAnswer.bytes().size() >= kMaxReplyData) {
        reply.put(kTamaBufferTooSmall);
        return;
    }
    reply.put(kTamaOk);
    reply.put(mAnswer.bytes());
}

std::uint8_t TamaFirmware::exchangeBlocks(Bytes command) {
    constexpr std::uint8_t kAuthenticateA = 0x60, kAuthenticateB = 0x61, kWrite = 0xA0;
    constexpr std::uint8_t kDecrement = 0xC0, kIncrement = 0xC1, kRestore = 0xC2;
    constexpr std::size_t kAddressed = 2;  // Command byte and block number.

    switch (command[0]) {
    case kAuthenticateA:
    case kAuthenticateB:
        return authenticate(command);
    case kWrite:
        return command.size() == kAddressed + 16 ? twoSteps(command, false) : kTamaBadFormat;
    case kRestore:
        if (command.size() == kAddressed) {
            const std::array<std::uint8_t, kAddressed + 4> whole{command[0], command[1]};
            return twoSteps(whole, true);
        }
        [[fallthrough]];
    case kDecrement:
    case kIncrement:
        return command.size() == kAddressed + 4 ? twoSteps(command, true) : kTamaBadFormat;
    default:
        return oneStep(command);
    }
}

std::uint8_t TamaFirmware::authenticate(Bytes command) {
    constexpr std::uint8_t kWithKeyB = 0x61;
    constexpr std::size_t kKeyAt = 2, kUidAt = 8, kWhole = 12;
    if (command.size() != kWhole) return kTamaBadFormat;
    // A tag that is not there at all is silent; one that is there refuses.
    const bool heard = mField.selected(mTargets[mCurrent - 1u].uidBytes()) != nullptr;
    Authentication authentication;
    authentication.withKeyB = command[0] == kWithKeyB;
    authentication.block = command[1];
    std::copy_n(command.begin() + kKeyAt, authentication.key.size(), authentication.key.begin());
    std::copy_n(command.begin() + kUidAt, authentication.uid.size(), authentication.uid.begin());
    if (mField.authenticate(authentication)) return kTamaOk;
    return heard ? kTamaAuthenticationError : kTamaTimeOut;
}

std::uint8_t TamaFirmware::statusOf(const AirAnswer& answer) const {
    switch (answer.kind()) {
    case AirAnswer::Kind::silence:
        return kTamaTimeOut;
    case AirAnswer::Kind::nibble:
        return answer.nibble() == kAirAck ? kTamaOk : mOptions.refusedStatus;
    case AirAnswer::Kind::bytes:
        break;
    }
    return kTamaOk;
}

std::uint8_t TamaFirmware::oneStep(Bytes command) {
    mField.exchange(command, mAnswer);
    return statusOf(mAnswer);
}

/// Command byte and block number first, and when the tag says yes, the data.
std::uint8_t TamaFirmware::twoSteps(Bytes command, bool endsInSilence) {
    constexpr std::size_t kFirstStep = 2;
    const std::uint8_t first = oneStep(command.first(kFirstStep));
    if (first != kTamaOk) return first;
    const std::uint8_t second = oneStep(command.subspan(kFirstStep));
    return endsInSilence && mAnswer.kind() == AirAnswer::Kind::silence ? kTamaOk : second;
}

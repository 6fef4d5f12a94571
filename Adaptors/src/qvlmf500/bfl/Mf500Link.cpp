// The link of the MF RC500 driver. A reply names neither its command nor its key, so after a failed command the driver
// first asks for a number that the reader tells by itself, and knows by its size that all earlier replies have come. On
// a scrambled link it asks twice: only under the right key both answers agree.

#include "BflStatus.h"
#include "Clock.h"
#include "KeyPool.h"
#include "Mf500Command.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::uint32_t kCommandTimeout = 6000;
constexpr std::uint32_t kKeySize = LinkCipher::kKeySize;
constexpr std::size_t kLongestIdentity = 5;
constexpr int kMostLateReplies = 64;  // a device that is never silent

void noteClearLink(const char* reason) { QVL_LOG(kLogState, "Mf500bfl: link in the clear, %s", reason); }

}  // namespace

/// A harmless command, and the size of its reply without a key.
struct Mf500bfl::Identity {
    std::uint8_t code;
    std::uint32_t size;

    /// One whose reply has another size than that of the command that failed.
    static Identity notLike(std::uint8_t code) {
        constexpr std::uint8_t kRepliesOfFour[] = {0x22, 0x41, 0x43, 0x49};
        return std::ranges::find(kRepliesOfFour, code) != std::end(kRepliesOfFour) ? Identity{0x64, 5}
                                                                                   : Identity{0x22, 4};
    }
};

class Mf500bfl::Deadline {
  public:
    std::uint32_t left() const {
        const std::uint64_t passed = platform::Clock::current().nowMs() - mStart;
        return passed < kCommandTimeout ? kCommandTimeout - static_cast<std::uint32_t>(passed) : 0;
    }

  private:
    std::uint64_t mStart = platform::Clock::current().nowMs();
};

bool Mf500bfl::isKeyed() const { return *mIsQvlDevice && mLink->command->hasKey(); }

// Under another key the reader would find other parameters in a command: a write could hit any block, with any bytes.
bool Mf500bfl::maySend(const Command& command) const {
    const bool isHarmless = mLink->command->GetCommandBufferLength() == 0 && !command.hasReplyData;
    return !mLink->isOutOfStep || !isKeyed() || !command.isScrambled || isHarmless;
}

/// A command that did not come about has the link's status, 0 on a closed driver.
Mf500bfl::Outcome Mf500bfl::ask(const Command& command, std::initializer_list<Param> sent) {
    CipherCommandObject& object = *mLink->command;
    const auto build = [&] {
        object.ResetBuffers();
        object.SetCommand(command.code);
        return std::ranges::all_of(sent, [&](const Param& param) { return param.addTo(object) == kBflOk; });
    };
    if (!build()) return {false, kBflOutOfRange};
    short status = makeReady(true);
    build();
    if (status == kBflOk && !maySend(command)) status = kBflDeviceFailed;
    if (status == kBflOk && mProtocol) status = exchange(command);
    if (status != kBflOk || !mProtocol) {
        QVL_LOG(kLogFailure, "Mf500bfl::%s send command failed %d", command.name, status);
        return {false, status};
    }
    status = static_cast<short>(object.GetStatus());
    if (status != kBflOk && command.tellsNoMore) status = 1;
    if (status != kBflOk) QVL_LOG(command.failedLevel, "Mf500bfl::%s failed %d", command.name, status);
    if (command.isScrambled && command.readsReply) object.decryptResponse();
    return {true, status};
}

short Mf500bfl::exchange(const Command& command) {
    Link& link = *mLink;
    link.before = link.command->cipher();
    link.lastCode = command.code;
    link.isLastScrambled = command.isScrambled;
    if (command.isScrambled) link.command->encryptCommand();
    const short status = noteResult(mProtocol->SendCommand(*link.command, kCommandTimeout, kCommandTimeout));
    link.isReplyDue = status != kBflOk;
    if (link.isReplyDue) return status;
    noteAnswer();
    link.isKeyReadable = !link.isOutOfStep;
    if (link.command->GetDataBufferLength() > 0) link.isOutOfStep = isKeyed();  // until the key is read
    return status;
}

short Mf500bfl::noteResult(short status) {
    if (status == kBflDeviceTimedOut)
        noteTimeOut();
    else if (status != kBflOk)
        noteFailure(status == kBflDeviceFailed);
    return status;
}

short Mf500bfl::run(const Command& command, std::initializer_list<Param> sent, std::initializer_list<Field> reply) {
    const OperationLock lock = lockOperation();
    const auto missing = [](const Field& field) { return field.out == nullptr; };
    if (std::ranges::any_of(sent, &Param::isMissing) || std::ranges::any_of(reply, missing)) return kBflOutOfRange;
    const Outcome outcome = ask(command, sent);
    if (!outcome.hasReply) return outcome.status;
    for (const Field& field : reply)
        if (const short status = mLink->command->GetParam(field.out, field.length); status != kBflOk) {
            QVL_LOG(kLogFailure, command.replyFailure, status);
            return outcome.status != kBflOk ? outcome.status : status;
        }
    return conclude(outcome);
}

short Mf500bfl::conclude(const Outcome& outcome) {
    processSecretKey();
    return outcome.status;
}

void Mf500bfl::processSecretKey() {
    if (!*mIsQvlDevice || !mLink->isKeyReadable) return;
    KeyValue key;
    if (mLink->command->GetParam(key.data(), kKeySize) != kBflOk) return;
    useKey(key.data());
    mLink->isOutOfStep = false;
}

void Mf500bfl::useKey(const std::uint8_t* key) {
    mLink->command->setKey(key);
    if (!mLink->command->hasKey()) noteClearLink("the reader gave out a zero key");
}

// ---- After a failed command ----

short Mf500bfl::makeReady(bool verifies) {
    if (!mProtocol) return kBflOk;
    return mayAsk() ? resynchronise(verifies) : short{kBflDeviceTimedOut};
}

/// Before a command that follows a failed one: takes all late replies. With `verifies`, the link is in step after this
/// or known to be out of step; without, a key agreement follows.
short Mf500bfl::resynchronise(bool verifies) {
    Link& link = *mLink;
    if (!link.isReplyDue) return kBflOk;
    const Identity identity = Identity::notLike(link.lastCode);
    const Deadline deadline;
    std::array<std::uint8_t, kLongestIdentity> first{}, second{};
    short status = askIdentity(identity, verifies, deadline, first.data());
    if (status == kBflOk && verifies && isKeyed()) {
        status = askIdentity(identity, verifies, deadline, second.data());
        link.isOutOfStep = first != second;
    }
    link.isReplyDue = status != kBflOk;
    if (!link.isReplyDue) return kBflOk;
    link.lastCode = identity.code;
    link.isLastScrambled = true;
    return noteResult(status);
}

short Mf500bfl::askIdentity(const Identity& identity, bool verifies, const Deadline& deadline, std::uint8_t* number) {
    CipherCommandObject& object = *mLink->command;
    object.ResetBuffers();
    for (int i = 0; i < kMostLateReplies && mProtocol->ReceiveReply(object, 0) == kBflOk; ++i)
        if (verifies) takeLateReply();
    object.ResetBuffers();
    object.SetCommand(identity.code);
    short status = mProtocol->SendCommand(object, kCommandTimeout, std::max(deadline.left(), 1u));
    for (int i = 0; i < kMostLateReplies && (status == kBflOk || status == kBflBadFrame); ++i) {
        if (status == kBflOk && takeIdentity(identity, verifies, number)) return kBflOk;
        if (status == kBflOk && verifies) takeLateReply();
        const std::uint32_t left = deadline.left();
        if (left == 0) break;
        status = mProtocol->ReceiveReply(object, left);
    }
    return status == kBflDeviceFailed ? status : short{kBflDeviceTimedOut};
}

/// @return false for a reply that is not the identity's, which then stays as it came.
bool Mf500bfl::takeIdentity(const Identity& identity, bool verifies, std::uint8_t* number) {
    Link& link = *mLink;
    const std::uint32_t length = link.command->GetDataBufferLength();
    const bool hasKey = length == identity.size + kKeySize;
    if (!verifies) return hasKey || length == identity.size;
    if (isKeyed() ? !hasKey : length != identity.size) return false;
    link.command->setCipher(link.before);  // a command that was lost has changed nothing at the reader
    link.command->decryptResponse();
    link.command->GetParam(number, identity.size);
    KeyValue key;
    if (hasKey && link.command->GetParam(key.data(), kKeySize) == kBflOk) useKey(key.data());
    link.before = link.command->cipher();
    return true;
}

/// The reply of a command that was given up, with the key that the reader has gone over to.
void Mf500bfl::takeLateReply() {
    Link& link = *mLink;
    const std::uint32_t length = link.command->GetDataBufferLength();
    if (!isKeyed()) return;
    if (link.isLastScrambled) link.command->decryptResponse();
    if (length >= kKeySize) useKey(link.command->GetDataBuffer() + length - kKeySize);
    link.before = link.command->cipher();
}

// ---- The key agreement ----

short Mf500bfl::pcdConfig() {
    const OperationLock lock = lockOperation();
    KeyValue challenge;
    nextKeyPoolValue(challenge.data());
    mLink->command->setKey(nullptr);
    mLink->isOutOfStep = false;
    *mIsQvlDevice = false;
    if (const short status = makeReady(false); status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::pcdConfig send command failed %d", status);
        return status;
    }
    const Outcome outcome =
        ask({.name = "pcdConfig", .code = 0x10, .isScrambled = false}, {{challenge.data(), kKeySize}});
    if (!outcome.hasReply || outcome.status != kBflOk) return outcome.status;
    short status = kBflOk;
    if (mLink->command->GetDataBufferLength() != 0)
        status = agreeKey(rotateKey(challenge.data()).data());
    else
        noteClearLink("the reader does not take part in the key agreement");
    QVL_LOG(kLogProgress, "Mf500bfl::pcdConfig PCD Config OK  status = %d", status);
    return status;
}

/// The reader has to know what follows from the challenge.
short Mf500bfl::agreeKey(const std::uint8_t* expected) {
    CipherCommandObject& object = *mLink->command;
    object.setKey(expected);
    object.decryptResponse();
    KeyValue confirmation, sessionKey;
    std::uint8_t unused[4];
    short status = object.GetParam(confirmation.data(), kKeySize);
    if (status == kBflOk) status = object.GetParam(unused, sizeof unused);
    if (status == kBflOk) status = object.GetParam(sessionKey.data(), kKeySize);
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::pcdConfig get param failed %d", status);
        return status;
    }
    if (!std::equal(confirmation.begin(), confirmation.end(), expected)) return kBflOutOfRange;
    return pcdConfig2(confirmation.data(), sessionKey.data());
}

short Mf500bfl::pcdConfig2(std::uint8_t* confirmation, std::uint8_t* sessionKey) {
    const OperationLock lock = lockOperation();
    if (confirmation == nullptr || sessionKey == nullptr) return kBflOutOfRange;
    const short ready = makeReady(false);
    useKey(sessionKey);
    mLink->isOutOfStep = false;
    *mIsQvlDevice = true;
    if (ready != kBflOk) {
        QVL_LOG(kLogFailure, "Mf500bfl::pcdConfig2 send command failed %d", ready);
        return ready;
    }
    const Outcome outcome = ask({.name = "pcdConfig2", .code = 0x09, .readsReply = false}, {{confirmation, kKeySize}});
    mLink->isOutOfStep = false;  // its reply has no key
    return outcome.status;
}

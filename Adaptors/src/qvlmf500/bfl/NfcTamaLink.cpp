// The link of the TAMA driver: one command becomes a frame, goes out scrambled, and brings back an ACK and a reply,
// which is unscrambled and checked. Both directions share one key stream, so a frame that only one side has seen puts
// the link out of step until the next key agreement. What a failed command has left behind is cleared away before the
// next one.

#include "Clock.h"
#include "HexText.h"
#include "KeyPool.h"
#include "LinkCipher.h"
#include "LogService.h"
#include "NfcTamaBfl.h"
#include "SecretBytes.h"
#include "TamaDevice.h"
#include "TamaFrame.h"

#include <algorithm>
#include <cstdio>

using tama::Fault;

namespace {

using FrameBuffer = SecretBytes<tama::kBufferSize>;

constexpr std::uint8_t kExchangeKey = 0x1C;
constexpr std::uint8_t kConfirmKey = 0x1E;

// Harmless commands with a reply of their own. Neither has data: they take nothing from the key stream, so that a late
// reply before theirs is still unscrambled in its place.
constexpr std::uint8_t kGetFirmwareVersion = 0x02;
constexpr std::uint8_t kGetIdentity = 0x24;

// Key replies: status, 16 bytes key or confirmation, and after a challenge 6 unused bytes and the session key.
constexpr std::size_t kKeySize = LinkCipher::kKeySize;
constexpr std::size_t kReplyKey = tama::kData + 1;
constexpr std::size_t kReplySessionKey = kReplyKey + kKeySize + 6;
constexpr std::size_t kKeyReplyLen = kReplyKey + kKeySize - tama::kTfi;
constexpr std::size_t kAgreementReplyLen = kReplySessionKey + kKeySize - tama::kTfi;
constexpr std::size_t kStatusReplyLen = 3;

}  // namespace

std::span<const std::uint8_t> NfcTamaBfl::received() const {
    return {mDataInBuf, std::min(static_cast<std::size_t>(mDataInBufLen), sizeof mDataInBuf)};
}

short NfcTamaBfl::deviceFailed() {
    mDeviceGone = mDevice->isGone();
    mPending = std::max(mPending, Pending::frames);
    noteFailure(mDeviceGone);
    return kBflDeviceFailed;
}

short NfcTamaBfl::deviceTimedOut() {
    mPending = std::max(mPending, Pending::frames);
    noteTimeOut();
    return kBflDeviceTimedOut;
}

short NfcTamaBfl::badFrame() {
    mPending = std::max(mPending, Pending::frames);
    noteFailure(false);
    return kBflBadFrame;
}

bool NfcTamaBfl::isDeviceGone() {
    const OperationLock lock = lockOperation();
    return mDeviceGone;
}

// Told before anything is scrambled: a command that is not sent takes nothing from the key stream.
short NfcTamaBfl::deviceReady() const {
    if (!mDevice || mDeviceGone) {
        noteFailure(true);  // whoever watches now was not there when it went, or when another user closed it
        return mDevice ? kBflDeviceFailed : kBflNoDevice;
    }
    return mayAsk() ? kBflOk : kBflDeviceTimedOut;
}

short NfcTamaBfl::nfcWrite(const std::uint8_t* data, int len) {
    mLastCode = data[tama::kCode];
    mIsLastAcknowledged = false;
    std::uint32_t written = 0;
    const std::int32_t result = mDevice->WriteBytesUnblocked(data, len, &written, mTimeout);
    if (result < 0) {
        QVL_LOG(kLogFailure,
                "NfcTamaBfl::nfcWrite - WriteBytesUnblocked failed %d to write data to NFC TAMA device w/ dataOutLen = "
                "%d nDataOutLen = %d mTimeout = %d",
                kBflDeviceFailed, len, static_cast<int>(written), static_cast<int>(mTimeout));
        return deviceFailed();
    }
    return result == kDeviceTimedOut ? deviceTimedOut() : short{kBflOk};
}

short NfcTamaBfl::nfcRead(std::uint32_t timeout) {
    std::fill(std::begin(mDataInBuf), std::end(mDataInBuf), std::uint8_t{0});
    if (!mDevice) return kBflNoDevice;
    constexpr int kSize = sizeof mDataInBuf;
    std::uint32_t count = 0;
    const std::int32_t result = mDevice->ReadBytesUnBlocked(mDataInBuf, kSize, &count, timeout);
    if (result < 0) {
        QVL_LOG(kLogFailure,
                "NfcTamaBfl::nfcRead - ReadBytesUnBlocked failed %d to read data from NFC TAMA device w/ n=%d "
                "nDataInLen=%d timeout=%d",
                kBflDeviceFailed, kSize, static_cast<int>(count), static_cast<int>(timeout));
        mDataInBufLen = 0;
        return deviceFailed();
    }
    mDataInBufLen = static_cast<std::int32_t>(count);
    return result == kDeviceTimedOut ? deviceTimedOut() : short{kBflOk};
}

/// Before a command that follows a failed one. A command with a reply of its own shape goes out, and frames are read
/// until that reply has come: no late frame can then be taken for the next command's. On a link that is out of step the
/// reply is noise, but it comes.
short NfcTamaBfl::resynchronise() {
    if (mPending == Pending::nothing) return kBflOk;
    if (mPending == Pending::leftovers || !mLinkCipher->hasKey()) mDevice->discardInput();
    const int acks = mIsLastAcknowledged ? 1 : 2;
    const std::uint8_t code = mLastCode == kGetIdentity ? kGetFirmwareVersion : kGetIdentity;
    std::uint8_t plain[tama::kFrameOverhead + 1];
    short status = nfcWrite(plain, static_cast<int>(tama::buildFrame({&code, 1}, plain)));
    if (status == kBflOk) status = drainUntilReply(static_cast<std::uint8_t>(code + 1), acks);
    mPending = status == kBflOk ? Pending::nothing : Pending::leftovers;
    return status;
}

/// Ends with the reply of this code, or with an ERROR frame that no earlier command can have caused: at most `acks`
/// ACKs are due, the last of them before the reply.
short NfcTamaBfl::drainUntilReply(std::uint8_t replyCode, int acks) {
    constexpr int kMostFrames = 4096;  // a device that is never silent
    platform::Clock& clock = platform::Clock::current();
    const std::uint64_t start = clock.nowMs();
    for (int frames = 0; frames < kMostFrames; ++frames) {
        const std::uint64_t passed = clock.nowMs() - start;
        if (passed >= mTimeout) break;
        if (const short status = nfcRead(mTimeout - static_cast<std::uint32_t>(passed)); status != kBflOk)
            return status;
        if (tama::isAck(received())) {
            --acks;
            mIsLastAcknowledged = true;
        }
        if (tama::isError(received()) && acks <= 0) return kBflOk;
        if (!tama::isInformation(received())) continue;
        unscrambleReply();
        if (mDataInBuf[tama::kCode] == replyCode) return kBflOk;
    }
    return deviceTimedOut();
}

std::size_t NfcTamaBfl::buildCommand(const char* caller, const std::uint8_t* cmd, int len,
                                     std::span<std::uint8_t> plain) {
    const std::size_t size =
        cmd == nullptr || len < 0 ? 0 : tama::buildFrame({cmd, static_cast<std::size_t>(len)}, plain);
    if (size == 0)
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s - Tama Frame buffer size %d too small for the given command len %d",
                caller, static_cast<int>(tama::kBufferSize), len);
    return size;
}

short NfcTamaBfl::writeCommand(const std::uint8_t* plain, std::size_t size, bool scramble) {
    if (const short status = deviceReady(); status != kBflOk) return status;
    if (const short status = resynchronise(); status != kBflOk) return status;
    FrameBuffer frame;
    std::copy_n(plain, size, frame.begin());
    if (scramble) {
        const std::span<std::uint8_t> data = tama::scrambledPart({frame.data(), size});
        mLinkCipher->crypt(data.data(), static_cast<int>(data.size()));
    }
    return nfcWrite(frame.data(), static_cast<int>(size));
}

short NfcTamaBfl::readAck(const char* caller) {
    if (const short status = nfcRead(mTimeout); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s - nfcRead failed %d to read ACK frame", caller, status);
        return status;
    }
    if (!tama::isAck(received())) {
        // What came may be a reply of an earlier command, with a key in it.
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s - expecting an ACK frame, but 0x%s", caller,
                HexLine(received().data(), received().size(), tama::kData).text());
        return badFrame();
    }
    mIsLastAcknowledged = true;
    ++mCommandCount;
    return kBflOk;
}

short NfcTamaBfl::readReply(const char* caller) {
    if (const short status = nfcRead(mTimeout); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s - nfcRead failed %d to read TAMA response", caller, status);
        return status;
    }
    if (!tama::isError(received())) return kBflOk;
    noteAnswer();
    QVL_LOG(kLogFailure, "NfcTamaBfl::%s - returned the ERROR frame 0x%s", caller,
            HexLine(received().data(), received().size()).text());
    return kBflErrorFrame;
}

void NfcTamaBfl::unscrambleReply() {
    const std::span<std::uint8_t> data = tama::scrambledPart({mDataInBuf, received().size()});
    mLinkCipher->crypt(data.data(), static_cast<int>(data.size()));
}

short NfcTamaBfl::tamaCommand(std::uint8_t* cmd, int len) {
    constexpr const char* kCaller = "tamaCommand";
    const OperationLock lock = lockOperation();
    FrameBuffer plain;
    const std::size_t size = buildCommand(kCaller, cmd, len, plain);
    if (size == 0) return kBflOutOfRange;
    if (const short status = writeCommand(plain.data(), size, true); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::tamaCommand - nfcWrite failed %d", status);
        std::printf("NfcTamaBfl::tamaCommand - nfcWrite failed %d\n", status);
        return status;
    }
    if (const short status = readAck(kCaller); status != kBflOk) return status;
    const short pending = readReply(kCaller);
    if (pending == kBflOk) unscrambleReply();
    if (const short status = changeKeyWhenDue(); status != kBflOk) return status;
    if (pending == kBflOk) return checkTamaProtocol({plain.data(), size});
    if (pending != kBflErrorFrame) noteFailure(false);  // whatever the answer to a change of the key
    return pending;
}

short NfcTamaBfl::tamaCommand1(std::uint8_t* cmd, int len, std::uint8_t* key) {
    constexpr const char* kCaller = "tamaCommand1";
    const OperationLock lock = lockOperation();
    if (key == nullptr) return kBflOutOfRange;
    const bool currentKeyServes = isZeroKey(key);
    FrameBuffer plain;
    const std::size_t size = buildCommand(kCaller, cmd, len, plain);
    if (size == 0) return kBflOutOfRange;
    if (const short status = writeCommand(plain.data(), size, currentKeyServes); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::tamaCommand1 - nfcWrite failed %d", status);
        return status;
    }
    if (const short status = readAck(kCaller); status != kBflOk) return status;
    if (const short status = readReply(kCaller); status != kBflOk) return status;
    if (!currentKeyServes) mLinkCipher->setKey(key);
    unscrambleReply();
    return checkTamaProtocol({plain.data(), size});
}

short NfcTamaBfl::checkTamaProtocol(std::span<const std::uint8_t> sent) {
    const std::uint8_t* in = mDataInBuf;
    const Fault fault =
        tama::checkReply({in, sizeof mDataInBuf}, static_cast<std::size_t>(mDataInBufLen), sent, !mRelayMode);
    if (fault == Fault::none || fault == Fault::noStatus || fault == Fault::status) noteAnswer();
    switch (fault) {
    case Fault::none:
        return kBflOk;
    case Fault::start:
        QVL_LOG(kLogFailure, "NfcTamaBfl::checkTamaProtocl - wrong Preamble %02X or Start of Packet codee %02X %02X",
                in[0], in[1], in[2]);
        break;
    case Fault::head:
        QVL_LOG(kLogFailure, "NfcTamaBfl::checkTamaProtocl - wrong LEN=%02X  LCS=%02X", in[tama::kLen], in[tama::kLcs]);
        break;
    case Fault::size:
        QVL_LOG(kLogFailure,
                "NfcTamaBfl::checkTamaProtocl - inconsistent between received frame LEN=%02X and mDataInBufLen=%d",
                in[tama::kLen], mDataInBufLen);
        break;
    case Fault::checksum:
        QVL_LOG(kLogFailure, "NfcTamaBfl::checkTamaProtocl - wrong checkSum=%02X",
                tama::checksumOf({in, sizeof mDataInBuf}));
        break;
    case Fault::otherCommand:
        QVL_LOG(kLogFailure, "NfcTamaBfl::checkTamaProtocl - wrong received TFI=%02X and CC=%02X", in[tama::kTfi],
                in[tama::kCode]);
        break;
    case Fault::noStatus:
        return shortReply();
    case Fault::status:
        QVL_LOG(kLogFailure, "NfcTamaBfl::checkTamaProtocl - failed %02X for command %02X", in[tama::kData],
                sent[tama::kCode]);
        return in[tama::kData];
    }
    const short status = badFrame();
    return fault == Fault::start ? short{kBflBadStart} : status;
}

short NfcTamaBfl::shortReply() {
    QVL_LOG(kLogFailure, "NfcTamaBfl::reply to command %02X is too short, LEN=%02X", mDataInBuf[tama::kCode] - 1,
            mDataInBuf[tama::kLen]);
    return kBflBadFrame;
}

short NfcTamaBfl::changeKeyWhenDue() {
    if (mCommandCount < mRekeyInterval) return kBflOk;
    mCommandCount = 0;
    mRekeyInterval = nextRekeyInterval();
    if (!mLinkCipher->hasKey()) return kBflOk;  // a reader that keeps the link in the clear has no key to give

    FrameBuffer aside;
    std::copy(std::begin(mDataInBuf), std::end(mDataInBuf), aside.begin());
    const std::int32_t asideLen = mDataInBufLen;
    const short status = exchangeSecretKey();
    std::copy(aside.begin(), aside.end(), mDataInBuf);
    mDataInBufLen = asideLen;
    if (status != kBflOk) QVL_LOG(kLogFailure, "NfcTamaBfl::tamaCommand - exchangeSecretKey failed %d", status);
    return status;
}

short NfcTamaBfl::exchangeSecretKey() {
    std::uint8_t command[] = {kExchangeKey};
    std::uint8_t currentKey[kKeySize] = {};
    if (const short status = tamaCommand1(command, sizeof command, currentKey); status != kBflOk) return status;
    if (const short status =
            checkStatusByte(kKeyReplyLen, "NfcTamaBfl::exchangeSecretKey tamaCommand 0x1C return error code");
        status != kBflOk)
        return status;
    mLinkCipher->setKey(mDataInBuf + kReplyKey);
    if (!mLinkCipher->hasKey()) runInTheClear("the reader gave out a zero key");
    return kBflOk;
}

short NfcTamaBfl::agreeLinkKey() {
    SecretBytes<1 + kKeySize> command;
    command[0] = kExchangeKey;
    nextKeyPoolValue(command.data() + 1);
    KeyValue confirmation = rotateKey(command.data() + 1);

    const short status = tamaCommand1(command.data(), static_cast<int>(command.size()), confirmation.data());
    if (status == kBflErrorFrame) runInTheClear("the reader does not take part in the key agreement");
    if (status != kBflOk) return kBflOk;  // served all the same, with the link as the call left it
    const WipedAtEnd reply(mDataInBuf, sizeof mDataInBuf);
    if (const short refused =
            checkStatusByte(kAgreementReplyLen, "NfcTamaBfl::pcdConfig tamaCommand 0x1C return error code");
        refused != kBflOk)
        return refused;
    if (!std::equal(confirmation.begin(), confirmation.end(), mDataInBuf + kReplyKey)) return kBflOutOfRange;
    mLinkCipher->setKey(mDataInBuf + kReplySessionKey);
    if (!mLinkCipher->hasKey()) runInTheClear("the reader gave out a zero key");
    return confirmLinkKey(confirmation.data());
}

short NfcTamaBfl::confirmLinkKey(const std::uint8_t* confirmation) {
    SecretBytes<1 + kKeySize> command;
    command[0] = kConfirmKey;
    std::copy_n(confirmation, kKeySize, command.begin() + 1);
    if (const short status = send(command, "NfcTamaBfl::pcdConfig - tamaCommand 0x1E failed!"); status != kBflOk)
        return status;
    return checkStatusByte(kStatusReplyLen, "NfcTamaBfl::pcdConfig tamaCommand 0x1E return error code");
}

void NfcTamaBfl::runInTheClear(const char* reason) {
    mLinkCipher->setKey(nullptr);
    QVL_LOG(kLogState, "NfcTamaBfl::link runs in the clear: %s", reason);
}

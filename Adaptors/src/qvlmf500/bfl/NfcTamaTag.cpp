// The tag side of the TAMA driver. The reader does anticollision and selection by itself, so each operation is one or
// two of its commands, all on target 1.

#include "HexText.h"
#include "LogService.h"
#include "NfcTamaBfl.h"
#include "SecretBytes.h"
#include "TagSizes.h"
#include "TagUID.h"
#include "TamaFrame.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

namespace {

constexpr std::uint8_t kInCommunicateThru = 0x42;
constexpr std::uint8_t kInDeselect = 0x44;
constexpr std::uint8_t kInListPassiveTarget = 0x4A;
constexpr std::uint8_t kTarget = 0x01;
constexpr std::uint8_t kTypeA106 = 0x00;

constexpr std::uint8_t kAuthKeyA = 0x60;
constexpr std::uint8_t kAuthKeyB = 0x61;
constexpr std::uint8_t kMifareRead = 0x30;
constexpr std::uint8_t kMifareWrite = 0xA0;
constexpr std::uint8_t kMifareTransfer = 0xB0;
constexpr std::uint8_t kMifareDecrement = 0xC0;
constexpr std::uint8_t kMifareIncrement = 0xC1;
constexpr std::uint8_t kMifareRestore = 0xC2;

constexpr std::size_t kLongestBlockSent = 252;

// Reply to an activation, as offsets into the frame.
constexpr std::size_t kTargetCount = 7;
constexpr std::size_t kAtq = 9;
constexpr std::size_t kSak = 11;
constexpr std::size_t kUidLen = 12;
constexpr std::size_t kUid = 13;
constexpr std::size_t kNoTargetLen = 3;

constexpr std::uint16_t kFieldResetMs = 20;
// No tag answers with this ATQ: it stays when the reader reports a tag that is awake already.
constexpr std::uint8_t kNoAtq = 0xFF;

constexpr std::size_t kStatusReplyLen = 3;
constexpr std::size_t kReplyData = 8;  // after the status byte

// First offset after the data of a frame with this LEN.
constexpr std::size_t endOfData(std::size_t len) { return len + tama::kTfi; }

// The status byte of a relayed command is the caller's business.
class RelayMode {
  public:
    explicit RelayMode(bool& flag) : mFlag(flag) { mFlag = true; }
    ~RelayMode() { mFlag = false; }
    RelayMode(const RelayMode&) = delete;
    RelayMode& operator=(const RelayMode&) = delete;

  private:
    bool& mFlag;
};

bool anyNull(const void* a, const void* b, const void* c) { return a == nullptr || b == nullptr || c == nullptr; }

}  // namespace

bool NfcTamaBfl::uidFits() const {
    const std::size_t end = endOfData(replyLen());
    return end >= kUid && end - kUid >= mDataInBuf[kUidLen];
}

short NfcTamaBfl::piccActivateIdle(std::uint8_t, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                   std::uint8_t* uid_len) {
    const OperationLock lock = lockOperation();
    if (anyNull(atq, sak, uid) || uid_len == nullptr) return kBflOutOfRange;
    std::uint8_t command[] = {kInListPassiveTarget, 1, kTypeA106};
    if (const short status = send(command, "NfcTamaBfl::piccActivateIdle tamaCommand failed!"); status != kBflOk)
        return status;
    if (mDataInBuf[kTargetCount] == 0) {
        QVL_LOG(kLogDetail, "NfcTamaBfl::piccActivateIdle - no tag found, failed to get a TagId!");
        *uid_len = 0;
        return kBflNoTag;
    }
    const bool fits = uidFits();
    *uid_len = fits ? mDataInBuf[kUidLen] : std::uint8_t{0};
    if (fits) {
        std::copy_n(mDataInBuf + kAtq, 2, atq);
        *sak = mDataInBuf[kSak];
        std::copy_n(mDataInBuf + kUid, std::min<std::size_t>(*uid_len, kMostUidBytes), uid);
    }
    if (*uid_len != 0) return kBflOk;
    QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateIdle - failed to get a TagId!");
    return kBflNoTag;
}

short NfcTamaBfl::takeAts(std::size_t uidLen, std::uint8_t* ats, std::uint8_t* ats_len) const {
    *ats_len = 0;
    const std::size_t start = kUid + uidLen;
    const std::size_t end = endOfData(replyLen());
    // The answer "already awake" has another layout; nothing in it is an ATS.
    if (mDataInBuf[kTargetCount] == 0 || end <= start) return kBflNoAts;
    *ats_len = static_cast<std::uint8_t>(end - start);
    std::copy_n(mDataInBuf + start, end - start, ats);
    return kBflOk;
}

// With its parameter byte switched the reader goes on to RATS by itself. It goes back whatever happened in between.
template <typename Activation>
short NfcTamaBfl::activateWithAts(const AtsForm& form, Activation activate, const std::uint8_t& uidLen,
                                  std::uint8_t* ats, std::uint8_t* ats_len) {
    if (ats == nullptr || ats_len == nullptr) return kBflOutOfRange;
    if (const short status = setTAMAParam4TCL(true); status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s w/ ATS - set TAMA Parameter failed, tamaCommand failed!", form.name);
        return status;
    }
    short kept = activate();
    if (kept != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s w/ ATS calling %s failed %d", form.name, form.name, kept);
    } else {
        kept = takeAts(uidLen, ats, ats_len);
        if (kept != kBflOk)
            QVL_LOG(kLogFailure, "NfcTamaBfl::%s w/ ATS failed to get ATS, wrong atsLen=%d", form.name, *ats_len);
    }
    if (const short status = setTAMAParam4TCL(false); status != kBflOk) {
        char told[8] = "";
        if (form.tellsResetStatus) std::snprintf(told, sizeof told, " %d", status);
        QVL_LOG(kLogFailure, "NfcTamaBfl::%s w/ ATS - reset TAMA Parameter failed%s, tamaCommand failed!", form.name,
                told);
        return status;
    }
    return kept;
}

short NfcTamaBfl::piccActivateIdle(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                   std::uint8_t* uid_len, std::uint8_t* ats, std::uint8_t* ats_len) {
    const OperationLock lock = lockOperation();
    if (uid_len == nullptr) return kBflOutOfRange;
    const auto activate = [&] { return piccActivateIdle(baudrate, atq, sak, uid, uid_len); };
    return activateWithAts({"piccActivateIdle", false}, activate, *uid_len, ats, ats_len);
}

// The reader's own retries stand in for the waiting of the loops.
short NfcTamaBfl::piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                       std::uint8_t* uid_len, std::uint8_t) {
    return piccActivateIdle(baudrate, atq, sak, uid, uid_len);
}

short NfcTamaBfl::piccActivateIdleLoop(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                       std::uint8_t* uid_len, std::uint8_t, std::uint8_t* ats, std::uint8_t* ats_len) {
    return piccActivateIdle(baudrate, atq, sak, uid, uid_len, ats, ats_len);
}

short NfcTamaBfl::piccActivateWakeup(std::uint8_t, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                     std::uint8_t uid_len) {
    const OperationLock lock = lockOperation();
    if (anyNull(atq, sak, uid)) return kBflOutOfRange;
    std::uint8_t command[3 + 255] = {kInListPassiveTarget, 1, kTypeA106};
    std::copy_n(uid, uid_len, command + 3);
    const short status = tamaCommand(command, 3 + uid_len);
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateWakeup tamaCommand failed for the given tag 0x%s!",
                HexLine(uid, uid_len).text());
        return status;
    }
    if (mDataInBuf[kTargetCount] == 0 && replyLen() == kNoTargetLen) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateWakeup - the tag 0x%s is not in the field.",
                HexLine(uid, uid_len).text());
        return kBflNoTag;
    }
    if (mDataInBuf[kTargetCount] == 0) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateWakeup - the tag 0x%s is already waked up.",
                HexLine(uid, uid_len).text());
        return kBflOk;
    }
    const bool fits = uidFits();
    if (fits) {
        std::copy_n(mDataInBuf + kAtq, 2, atq);
        *sak = mDataInBuf[kSak];
    }
    const std::size_t foundLen = fits ? mDataInBuf[kUidLen] : 0;
    if (foundLen == 0) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateWakeup - failed to activate wakeup the given tag 0x%s!",
                HexLine(uid, uid_len).text());
        return kBflNoTag;
    }
    if (foundLen == uid_len && std::memcmp(mDataInBuf + kUid, uid, uid_len) == 0) return kBflOk;
    QVL_LOG(kLogFailure, "NfcTamaBfl::piccActivateWakeup initialize wrong tag=0x%s uidWakeupLen = %d",
            HexLine(mDataInBuf + kUid, foundLen).text(), static_cast<int>(foundLen));
    return kBflNoTag;
}

short NfcTamaBfl::piccActivateWakeup(std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                     std::uint8_t uid_len, std::uint8_t* ats, std::uint8_t* ats_len) {
    const OperationLock lock = lockOperation();
    const auto activate = [&] { return piccActivateWakeup(baudrate, atq, sak, uid, uid_len); };
    return activateWithAts({"piccActivateWakeup", true}, activate, uid_len, ats, ats_len);
}

// A reader that is lost is told from an empty field by the watch of the link only.
short NfcTamaBfl::piccActivateAny(std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len) {
    const OperationLock lock = lockOperation();
    pcdRfReset(kFieldResetMs);
    const short status = piccActivateIdle(0, atq, sak, uid, uid_len);
    if (status == kBflOk) return kBflOk;
    QVL_LOG(kLogFailure, "QvlMf500Readerimpl::piccActivateWakup failed %d", status);
    return kBflNoTag;
}

// A reader that reports the tag as awake already has not looked at its UID: another tag may lie there. One halt and a
// second look tell; if the reader stays with it, the tag is taken as it is.
short NfcTamaBfl::piccSelectKnown(std::uint8_t, const TagUID& tag, std::optional<std::uint8_t>& sak) {
    const OperationLock lock = lockOperation();
    std::uint8_t uid[kMostUidBytes] = {};
    const auto length = static_cast<std::uint8_t>(std::min<std::size_t>(tag.getUidLen(), kMostUidBytes));
    std::copy_n(tag.getUid(), length, uid);
    sak.reset();
    for (int look = 0; look < 2; ++look) {
        std::uint8_t atq[2] = {kNoAtq, kNoAtq};
        std::uint8_t told = 0;
        if (const short status = piccActivateWakeup(0, atq, &told, uid, length); status != kBflOk) {
            QVL_LOG(kLogFailure, "Tag selection failed: %d for tagID = 0x%s", status, HexLine(uid, length).text());
            return status;
        }
        if (atq[0] != kNoAtq || atq[1] != kNoAtq) {
            sak = told;
            break;
        }
        if (look == 0) piccHalt();
    }
    return kBflOk;
}

short NfcTamaBfl::piccAuthKey(std::uint8_t keyType, std::uint8_t* uid, std::uint8_t* key, std::uint8_t block) {
    const OperationLock lock = lockOperation();
    if ((keyType != kAuthKeyA && keyType != kAuthKeyB) || uid == nullptr || key == nullptr) return kBflOutOfRange;
    SecretBytes<14> command;
    command[0] = tama::kInDataExchange;
    command[1] = kTarget;
    command[2] = keyType;
    command[3] = block;
    std::copy_n(key, 6, command.begin() + 4);
    std::copy_n(uid, 4, command.begin() + 10);
    return send(command, "NfcTamaBfl::piccAuthKey tamaCommand failed!");
}

short NfcTamaBfl::piccRead(std::uint8_t block, std::uint8_t* data) {
    const OperationLock lock = lockOperation();
    if (data == nullptr) return kBflOutOfRange;
    std::uint8_t command[] = {tama::kInDataExchange, kTarget, kMifareRead, block};
    if (const short status = send(command, "NfcTamaBfl::piccRead tamaCommand failed!"); status != kBflOk) return status;
    if (replyLen() < kStatusReplyLen + kBlockSize) return shortReply();
    std::copy_n(mDataInBuf + kReplyData, kBlockSize, data);
    return kBflOk;
}

short NfcTamaBfl::piccWrite(std::uint8_t block, std::uint8_t* data) {
    const OperationLock lock = lockOperation();
    if (data == nullptr) return kBflOutOfRange;
    SecretBytes<4 + kBlockSize> command;  // a trailer carries keys
    command[0] = tama::kInDataExchange;
    command[1] = kTarget;
    command[2] = kMifareWrite;
    command[3] = block;
    std::copy_n(data, kBlockSize, command.begin() + 4);
    return send(command, "NfcTamaBfl::piccWrite tamaCommand failed!");
}

short NfcTamaBfl::piccValue(std::uint8_t operation, std::uint8_t block, std::uint8_t* value,
                            std::uint8_t transferBlock) {
    const OperationLock lock = lockOperation();
    if (operation == kMifareRestore) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccValue  PICC_RESTORE not supported at this moment!");
        return kBflOutOfRange;
    }
    if ((operation != kMifareDecrement && operation != kMifareIncrement) || value == nullptr) return kBflOutOfRange;
    std::uint8_t change[] = {tama::kInDataExchange, kTarget, operation, block, value[0], value[1], value[2], value[3]};
    if (const short status = send(change, "NfcTamaBfl::piccValue tamaCommand increment/decrement failed!");
        status != kBflOk)
        return status;
    std::uint8_t transfer[] = {tama::kInDataExchange, kTarget, kMifareTransfer, transferBlock};
    return send(transfer, "NfcTamaBfl::piccValue tamaCommand transfer failed!");
}

short NfcTamaBfl::piccExchangeBlock(std::uint8_t* sendData, std::uint16_t sendLen, std::uint8_t* rec_data,
                                    std::uint16_t* rec_bytelen, std::uint8_t, std::uint32_t) {
    const OperationLock lock = lockOperation();
    if (sendLen == 0 || sendLen > kLongestBlockSent) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::piccExchangeBlock  wrong send data length %d", sendLen);
        return kBflBadSendLength;
    }
    if (anyNull(sendData, rec_data, rec_bytelen)) return kBflOutOfRange;
    SecretBytes<1 + kLongestBlockSent> command;
    command[0] = kInCommunicateThru;
    std::copy_n(sendData, sendLen, command.begin() + 1);
    if (const short status =
            send({command.data(), std::size_t{1} + sendLen}, "NfcTamaBfl::piccExchangeBlock tamaCommand failed!");
        status != kBflOk)
        return status;
    if (const short status =
            checkStatusByte(kStatusReplyLen, "NfcTamaBfl::piccExchangeBlock tamaCommand return error code");
        status != kBflOk)
        return status;
    const std::size_t length = replyLen() - kStatusReplyLen;
    if (length > *rec_bytelen) return kBflBadFrame;
    *rec_bytelen = static_cast<std::uint16_t>(length);
    std::copy_n(mDataInBuf + kReplyData, length, rec_data);
    return kBflOk;
}

short NfcTamaBfl::piccHalt() {
    const OperationLock lock = lockOperation();
    std::uint8_t command[] = {kInDeselect, kTarget};
    if (const short status = send(command, "NfcTamaBfl::piccHalt tamaCommand failed!"); status != kBflOk) return status;
    return checkStatusByte(kStatusReplyLen, "NfcTamaBfl::piccHalt tamaCommand return error code");
}

short NfcTamaBfl::piccDeselect() {
    std::uint8_t command[] = {kInDeselect, kTarget};
    std::uint8_t readerStatus = 0;
    if (const short status = tamaCommand(command, sizeof command, readerStatus); status != kBflOk) {
        QVL_LOG(kLogFailure, "QvlTcl::TclDeselect tamaCommand failed!");
        return status;
    }
    if (readerStatus != 0)
        QVL_LOG(kLogFailure, "QvlTcl::TclDeselect tamaCommand return error code 0x%02X, continue", readerStatus);
    return readerStatus;
}

short NfcTamaBfl::tamaCommand(std::uint8_t* cmd, int len, std::uint8_t& readerStatus) {
    const OperationLock lock = lockOperation();
    if (const short status = tamaCommand(cmd, len); status != kBflOk) return status;
    if (replyLen() < kStatusReplyLen) return shortReply();
    readerStatus = mDataInBuf[tama::kData];
    return kBflOk;
}

short NfcTamaBfl::relayNFCCmd(std::uint8_t* cmd, int len, std::uint8_t*& reply, int& replyLength) {
    const OperationLock lock = lockOperation();
    replyLength = 0;
    short status = kBflOk;
    {
        const RelayMode relay(mRelayMode);
        status = tamaCommand(cmd, len);
    }
    if (status != kBflOk) {
        QVL_LOG(kLogFailure, "NfcTamaBfl::relayNFCCmd tamaCommand failed!");
        return status;
    }
    const std::size_t length = replyLen() - 1;
    reply = new (std::nothrow) std::uint8_t[length];
    if (reply == nullptr) return kBflOutOfRange;
    std::copy_n(mDataInBuf + tama::kCode, length, reply);
    replyLength = static_cast<int>(length);
    return kBflOk;
}

short NfcTamaBfl::pcdRelay(std::uint8_t* cmd, int len, std::uint8_t*& reply, int& replyLength) {
    return relayNFCCmd(cmd, len, reply, replyLength);
}

// The generic door: a command by number, its arguments and results in collections.

#include "Guarded.h"
#include "LogService.h"
#include "QVLParamCollection.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "TagPromptScope.h"

#include <memory>

namespace {

enum Command : int {
    kSend = 40,
    kSendRaw = 41,
    kWaitForCard = 42,
    kDeselectCard = 43,
    kNothing = 44,
    kNfcRelay = 46,
};

constexpr int kWrongArguments = -21;

bool ok(int status) { return status == kMemoryOk; }

int readBytes(QVLParamCollection& in, std::vector<std::uint8_t>& bytes) {
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    const int status = in.getBytes(length, data);
    const std::unique_ptr<std::uint8_t[]> owner(data);
    if (ok(status) && data != nullptr) bytes.assign(data, data + length);
    return status;
}

int wrongArguments(const char* message) {
    QVL_LOG(kLogFailure, "%s", message);
    return kWrongArguments;
}

/// A new collection in `out`. @return 3100 when `append` has filled it, else the status of what could not be appended.
template <typename Append>
int deliver(QVLParamCollection*& out, const char* failure, Append append) {
    out = new QVLParamCollection;
    const int status = append(*out);
    if (ok(status)) return kOk;
    QVL_LOG(kLogFailure, "%s", failure);
    return status;
}

int deliverNothing(QVLParamCollection*& out) {
    out = new QVLParamCollection;
    return kOk;
}

int addBytes(QVLParamCollection& out, const std::vector<std::uint8_t>& bytes) {
    return out.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
}

}  // namespace

int QvlMf500ReaderImpl::runCommand(int id, QVLParamCollection& in, QVLParamCollection*& out) {
    return guarded("runCommand", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(*this);
        const TagPromptScope prompt(*this);
        switch (id) {
        case kSend:
            return runSend(in, out);
        case kSendRaw:
            return runSendRaw(in, out);
        case kWaitForCard:
            return runWaitForCard(in, out);
        case kDeselectCard:
            return runDeselect(in, out);
        case kNothing:
            return deliverNothing(out);
        case kNfcRelay:
            return runNfcRelay(in, out);
        default:
            break;
        }
        QVL_LOG(kLogFailure, "runCommand: not supported command ID = %d", id);
        deliverNothing(out);
        return kReaderFailed;
    });
}

int QvlMf500ReaderImpl::runSend(QVLParamCollection& in, QVLParamCollection*& out) {
    TagUID tag;
    std::uint8_t nad = 0, retry = 0;
    CardData command;
    if (!ok(in.getParameter(tag)) || !ok(in.getByte(nad)) || !ok(readBytes(in, command)) || !ok(in.getByte(retry)))
        return wrongArguments("send of runCommand with wrong parameter");
    return sendAndDeliver(tag, nad, command, retry != 0, out);
}

int QvlMf500ReaderImpl::runSendRaw(QVLParamCollection& in, QVLParamCollection*& out) {
    TagUID tag;
    std::uint8_t retry = 0;
    std::uint32_t unused = 0;
    CardData command;
    if (!ok(in.getParameter(tag)) || !ok(readBytes(in, command)) || !ok(in.getLong(unused)) || !ok(in.getByte(retry)))
        return wrongArguments("sendRaw of runCommand with wrong parameter");
    return sendAndDeliver(tag, 0, command, retry != 0, out);
}

int QvlMf500ReaderImpl::sendAndDeliver(TagUID& tag, std::uint8_t nad, CardData& command, bool retry,
                                       QVLParamCollection*& out) {
    CardData answer;
    if (const int status = sendTCL(tag, nad, command, answer, retry); status != kTclOk) {
        QVL_LOG(kLogFailure, "sendTCL failed with %d", status);
        return status;
    }
    return deliver(out, "runCommand: failed to add len, outData for sendTCL",
                   [&](QVLParamCollection& results) { return addBytes(results, answer); });
}

int QvlMf500ReaderImpl::runWaitForCard(QVLParamCollection& in, QVLParamCollection*& out) {
    TagUID tag;
    std::uint32_t timeout = 0;
    if (!ok(in.getParameter(tag))) tag = TagUID();
    if (!ok(in.getLong(timeout))) return wrongArguments("waitForCard of runCommand with wrong parameter");
    QVL_LOG(kLogProgress, "waitForCardTCL: suspendPolling");
    if (suspendPoll(tag) != kOk) QVL_LOG(kLogProgress, "waitForCardTCL: suspendPolling failed");
    std::uint8_t cid = 0;
    CardData ats;
    if (const int status = waitForCardTCL(tag, static_cast<int>(timeout), cid, ats); status != kTclOk) {
        QVL_LOG(kLogFailure, "waitForCardTCL failed with %d", status);
        QVL_LOG(kLogProgress, "waitForCardTCL: waitForCardTCL is failed,  resumePolling");
        if (resumePoll(tag) != kOk)
            QVL_LOG(kLogProgress, "waitForCardTCL: waitForCardTCL is failed,  resumePolling failed");
        return status;
    }
    return deliver(out, "runCommand: failed to add atsLength for waitForCardTCL", [&](QVLParamCollection& results) {
        int status = results.addParameter(tag);
        if (ok(status)) status = results.addByte(cid);
        return ok(status) ? addBytes(results, ats) : status;
    });
}

int QvlMf500ReaderImpl::runDeselect(QVLParamCollection& in, QVLParamCollection*& out) {
    TagUID tag;
    if (!ok(in.getParameter(tag))) return wrongArguments("deselect of runCommand with wrong parameter TagUID");
    if (const int status = deselectTCL(tag); status != kTclOk) {
        QVL_LOG(kLogFailure, "deselectTCL failed with %d", status);
        return status;
    }
    QVL_LOG(kLogProgress, "deselectTCL: resumePolling");
    if (resumePoll(tag) != kOk) QVL_LOG(kLogProgress, "deselectTCL: resumePolling failed");
    return deliverNothing(out);
}

int QvlMf500ReaderImpl::runNfcRelay(QVLParamCollection& in, QVLParamCollection*& out) {
    CardData command, reply;
    if (!ok(readBytes(in, command))) return wrongArguments("nfcRelay of runCommand with wrong parameter");
    if (const int status = relayNFC(command, reply); status != kBflOk) {
        QVL_LOG(kLogFailure, "relayNFC failed with %d", status);
        return status;
    }
    return deliver(out, "runCommand: failed to add len, outData for relayNFC",
                   [&](QVLParamCollection& results) { return addBytes(results, reply); });
}

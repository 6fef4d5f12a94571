// The command door: a command by number, its arguments and results in collections.

#include "CardSessions.h"
#include "Guarded.h"
#include "LogService.h"
#include "QVLParamCollection.h"
#include "QvlMf500ReaderImpl.h"
#include "SecretBytes.h"
#include "TagPromptScope.h"

#include <algorithm>
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

int readBytes(QVLParamCollection& in, CardData& bytes) {
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    const int status = in.getBytes(length, data);
    const std::unique_ptr<std::uint8_t[]> owner(data);
    if (!ok(status) || data == nullptr) return status;
    const WipedAtEnd wiped(data, length);
    bytes.assign(data, data + length);
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

int deliverBytes(QVLParamCollection*& out, const char* failure, const CardData& bytes) {
    return deliver(out, failure, [&](QVLParamCollection& results) {
        return results.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
    });
}

/// Polling is suspended from here on; unless a session has begun, it is resumed at the end.
class SuspendedPolling {
  public:
    SuspendedPolling(ReaderImpl& adaptor, TagUID& tag) : mAdaptor(adaptor), mTag(tag) {
        QVL_LOG(kLogProgress, "waitForCardTCL: suspendPolling");
        if (mAdaptor.suspendPoll(mTag) != kOk) QVL_LOG(kLogProgress, "waitForCardTCL: suspendPolling failed");
    }
    ~SuspendedPolling() {
        if (mSessionBegan) return;
        QVL_LOG(kLogProgress, "waitForCardTCL: waitForCardTCL is failed,  resumePolling");
        if (mAdaptor.resumePoll(mTag) != kOk)
            QVL_LOG(kLogProgress, "waitForCardTCL: waitForCardTCL is failed,  resumePolling failed");
    }
    SuspendedPolling(const SuspendedPolling&) = delete;
    SuspendedPolling& operator=(const SuspendedPolling&) = delete;

    void sessionBegan() { mSessionBegan = true; }

  private:
    ReaderImpl& mAdaptor;
    TagUID& mTag;
    bool mSessionBegan = false;
};

/// One command of the door.
class CommandRun {
  public:
    CommandRun(ReaderImpl& adaptor, CardSessions& sessions, QVLParamCollection& in, QVLParamCollection*& out)
        : mAdaptor(adaptor), mSessions(sessions), mIn(in), mOut(out) {}

    int run(int id);

  private:
    int send();
    int sendRaw();
    int sendAndDeliver(const TagUID& tag, std::uint8_t nad, CardData& command, bool retry);
    int waitForCard();
    int deselect();
    int relay();

    ReaderImpl& mAdaptor;
    CardSessions& mSessions;
    QVLParamCollection& mIn;
    QVLParamCollection*& mOut;
};

int CommandRun::run(int id) {
    switch (id) {
    case kSend:
        return send();
    case kSendRaw:
        return sendRaw();
    case kWaitForCard:
        return waitForCard();
    case kDeselectCard:
        return deselect();
    case kNothing:
        return deliverNothing(mOut);
    case kNfcRelay:
        return relay();
    default:
        break;
    }
    QVL_LOG(kLogFailure, "runCommand: not supported command ID = %d", id);
    deliverNothing(mOut);
    return kReaderFailed;
}

int CommandRun::send() {
    TagUID tag;
    std::uint8_t nad = 0, retry = 0;
    CardData command;
    if (!ok(mIn.getParameter(tag)) || !ok(mIn.getByte(nad)) || !ok(readBytes(mIn, command)) || !ok(mIn.getByte(retry)))
        return wrongArguments("send of runCommand with wrong parameter");
    return sendAndDeliver(tag, nad, command, retry != 0);
}

int CommandRun::sendRaw() {
    TagUID tag;
    std::uint8_t retry = 0;
    std::uint32_t unused = 0;
    CardData command;
    if (!ok(mIn.getParameter(tag)) || !ok(readBytes(mIn, command)) || !ok(mIn.getLong(unused)) ||
        !ok(mIn.getByte(retry)))
        return wrongArguments("sendRaw of runCommand with wrong parameter");
    return sendAndDeliver(tag, 0, command, retry != 0);
}

int CommandRun::sendAndDeliver(const TagUID& tag, std::uint8_t nad, CardData& command, bool retry) {
    CardData answer;
    if (const int result = mSessions.send(tag, nad, command, retry, answer); result != kOk) {
        QVL_LOG(kLogFailure, "sendTCL failed with %d", result);
        return result;
    }
    return deliverBytes(mOut, "runCommand: failed to add len, outData for sendTCL", answer);
}

int CommandRun::waitForCard() {
    TagUID tag;
    std::uint32_t timeout = 0;
    if (!ok(mIn.getParameter(tag))) tag = TagUID();
    if (!ok(mIn.getLong(timeout))) return wrongArguments("waitForCard of runCommand with wrong parameter");
    SuspendedPolling suspended(mAdaptor, tag);
    std::uint8_t cid = 0;
    CardData ats;
    if (const int result = mSessions.waitForCard(tag, static_cast<int>(timeout), cid, ats); result != kOk) {
        QVL_LOG(kLogFailure, "waitForCardTCL failed with %d", result);
        return result;
    }
    const int result = deliver(mOut, "runCommand: failed to add atsLength for waitForCardTCL", [&](auto& results) {
        int status = results.addParameter(tag);
        if (ok(status)) status = results.addByte(cid);
        return ok(status) ? results.addBytes(static_cast<std::uint32_t>(ats.size()), ats.data()) : status;
    });
    suspended.sessionBegan();
    return result;
}

int CommandRun::deselect() {
    TagUID tag;
    if (!ok(mIn.getParameter(tag))) return wrongArguments("deselect of runCommand with wrong parameter TagUID");
    if (const int result = mSessions.deselect(tag); result != kOk) {
        QVL_LOG(kLogFailure, "deselectTCL failed with %d", result);
        return result;
    }
    QVL_LOG(kLogProgress, "deselectTCL: resumePolling");
    if (mAdaptor.resumePoll(tag) != kOk) QVL_LOG(kLogProgress, "deselectTCL: resumePolling failed");
    return deliverNothing(mOut);
}

int CommandRun::relay() {
    CardData command, reply;
    if (!ok(readBytes(mIn, command))) return wrongArguments("nfcRelay of runCommand with wrong parameter");
    if (const int result = mSessions.relay(command, reply); result != kOk) {
        QVL_LOG(kLogFailure, "relayNFC failed with %d", result);
        return result;
    }
    return deliverBytes(mOut, "runCommand: failed to add len, outData for relayNFC", reply);
}

}  // namespace

int QvlMf500ReaderImpl::runCommand(int id, QVLParamCollection& in, QVLParamCollection*& out) {
    return guarded("runCommand", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(mReader);
        if (id != kNothing) revive();
        const TagPromptScope prompt(*this);
        CardSessions sessions(*mTcl, mSuspendTime);
        return CommandRun(*this, sessions, in, out).run(id);
    });
}

int QvlMf500ReaderImpl::openCard(int, const TagUID& tag, std::uint8_t& cid, std::uint8_t*& ats, int& atsLength) {
    ats = nullptr;
    atsLength = 0;
    return guarded("openCard", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(mReader);
        if (!revive()) return kReaderNotReady;
        const TagPromptScope prompt(*this);
        CardSessions sessions(*mTcl, mSuspendTime);
        CardData bytes;
        if (const int result = sessions.open(tag, cid, bytes); result != kOk) return result;
        ats = new std::uint8_t[bytes.size()];
        std::ranges::copy(bytes, ats);
        atsLength = static_cast<int>(bytes.size());
        return kOk;
    });
}

#include "CardSession.h"

#include "FromLibrary.h"
#include "QvlTcl.h"
#include "ServiceStatus.h"

#include <memory>
#include <utility>

namespace {

using Bytes = CardSession::Bytes;

enum Command : int { kSend = 40, kSendRaw = 41, kWaitForCard = 42, kDeselect = 43 };

constexpr std::size_t kLibraryAnswer = 4096;
constexpr int kMostRests = 64;  // A card that never comes to an end is left there.

/// The stream's statuses for success differ from the library's, and the first failure counts.
class Status {
  public:
    Status& operator+=(int status) {
        if (mStatus == kOk && status != kMemoryOk) mStatus = status;
        return *this;
    }
    int get() const { return mStatus; }

  private:
    int mStatus = kOk;
};

/// Both directions are written to the end first, and read from the beginning.
int run(ReaderImpl& adaptor, Command command, QVLParamCollection& in, FromLibrary<QVLParamCollection>& out) {
    in.rewind();
    const int status = adaptor.runCommand(command, in, out.out());
    if (out.get()) out.get()->rewind();
    return status;
}

TagUID tagOf(const Bytes& uid) { return {uid.data(), static_cast<std::uint32_t>(uid.size()), kTagUnknown}; }

int addBytes(QVLParamCollection& in, const Bytes& bytes) {
    return in.addBytes(static_cast<std::uint32_t>(bytes.size()), bytes.data());
}

int takeBytes(QVLParamCollection& out, Bytes& bytes) {
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    const int status = out.getBytes(length, data);
    const std::unique_ptr<std::uint8_t[]> owner(data);
    bytes.assign(data, data + (data ? length : 0));
    return status;
}

}  // namespace

int CardSession::waitForCard(const Bytes& uid, std::chrono::milliseconds timeout) {
    QVLParamCollection in;
    TagUID wanted = tagOf(uid);
    Status status;
    status += in.addParameter(wanted);
    status += in.addLong(static_cast<std::uint32_t>(timeout.count()));
    if (status.get() != kOk) return status.get();
    FromLibrary<QVLParamCollection> out(mSession.adaptor());
    if (const int result = run(mSession.adaptor(), kWaitForCard, in, out); result != kOk) return result;

    TagUID found;
    std::uint8_t cid = 0;
    status += out.get()->getParameter(found);
    status += out.get()->getByte(cid);
    Bytes ats;
    status += takeBytes(*out.get(), ats);
    mCard = {{found.getUid(), found.getUid() + found.getUidLen()}, cid, std::move(ats)};
    mIsOpen = true;
    if (status.get() != kOk || uid.empty() || found == wanted) return status.get();
    close();
    mCard = {uid, std::nullopt, {}};
    mIsOpen = true;
    return kOk;
}

int CardSession::sendOnce(const Bytes& command, bool retry, Bytes& answer) {
    QVLParamCollection in;
    TagUID tag = tagOf(mCard.uid);
    constexpr std::uint32_t kUnused = 0;
    Status status;
    status += in.addParameter(tag);
    if (!mOptions.raw) status += in.addByte(mOptions.nad);
    status += addBytes(in, command);
    if (mOptions.raw) status += in.addLong(kUnused);
    status += in.addByte(static_cast<std::uint8_t>(retry));
    if (status.get() != kOk) return status.get();
    FromLibrary<QVLParamCollection> out(mSession.adaptor());
    const int result = run(mSession.adaptor(), mOptions.raw ? kSendRaw : kSend, in, out);
    if (result != kOk) return result;
    status += takeBytes(*out.get(), answer);
    return status.get();
}

CardSession::Answer CardSession::send(const Bytes& command) {
    Answer answer;
    answer.status = sendOnce(command, mOptions.retry, answer.bytes);
    if (answer.status != kTclRestPending) return answer;
    // What the next call sends plays no part, but it would be the card's answer to the user's next command.
    for (int i = 0; i < kMostRests; ++i) {
        answer.lost += kLibraryAnswer;
        if (sendOnce(command, false, answer.bytes) != kTclRestPending) break;
    }
    return answer;
}

int CardSession::close() {
    if (!std::exchange(mIsOpen, false)) return kOk;
    QVLParamCollection in;
    TagUID tag = tagOf(mCard.uid);
    if (const int status = in.addParameter(tag); status != kMemoryOk) return status;
    FromLibrary<QVLParamCollection> out(mSession.adaptor());
    return run(mSession.adaptor(), kDeselect, in, out);
}

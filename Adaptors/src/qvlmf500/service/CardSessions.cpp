// Sessions with smart cards: a card is addressed by its UID, found in the card table or woken, and waited for.

#include "LogService.h"
#include "NfcTamaBfl.h"
#include "PromptWait.h"
#include "QvlMf500ReaderImpl.h"
#include "QvlTclUtil.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr std::uint32_t kMostUidBytes = 10;
constexpr std::size_t kAnswerSize = 4096;
constexpr std::uint8_t kBaudrate106 = 0;
constexpr std::uint16_t kFieldResetMs = 5;
constexpr short kBadTagUid = kTclBadArgument;
constexpr short kNoFreeCid = -45;

/// The UID as the card layer takes it, and what an activation reports.
struct Card {
    Card() = default;
    explicit Card(const TagUID& tag) : length(static_cast<std::uint8_t>(tag.getUidLen())) {
        std::copy_n(tag.getUid(), length, uid);
    }
    std::uint8_t uid[kMostUidBytes] = {};
    std::uint8_t length = 0;
    std::uint8_t atq[2] = {};
    std::uint8_t sak = 0;
};

bool isTooLong(const TagUID& tag) { return tag.getUidLen() > kMostUidBytes; }

}  // namespace

template <typename Activate>
int QvlMf500ReaderImpl::waitForActivation(int timeout, Activate activate) {
    const std::atomic<std::uint32_t> limit{timeout > 0 ? static_cast<std::uint32_t>(timeout) : mSuspendTime.load()};
    PromptWait wait(limit);
    int status = kOk;
    while (wait.mayTry()) {
        if (activate()) break;
        wait.measure();
        status = wait.pass();
        if (status != kOk) break;
    }
    return wait.result(status);
}

int QvlMf500ReaderImpl::tclActiveIdleLoop(int timeout, std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak,
                                          std::uint8_t* uid, std::uint8_t* uidLen) {
    return waitForActivation(timeout, [&] {
        const short status = mTcl->TclActivateIdle(baudrate, atq, sak, uid, uidLen);
        if (status != kTclOk) QVL_LOG(kLogProgress, "tclActiveIdleLoop: TclActivateIdle failed with %d", status);
        return status == kTclOk;
    });
}

int QvlMf500ReaderImpl::tclActiveWakupLoop(int timeout, std::uint8_t baudrate, std::uint8_t* atq, std::uint8_t* sak,
                                           std::uint8_t* uid, std::uint8_t uidLen) {
    return waitForActivation(timeout,
                             [&] { return mTcl->TclActivateWakeup(baudrate, atq, sak, uid, uidLen) == kTclOk; });
}

short QvlMf500ReaderImpl::fetchCardAts(std::uint8_t cid, CardData& ats) {
    CardData buffer(kAnswerSize);
    auto length = static_cast<std::uint16_t>(buffer.size());
    std::uint8_t* historical = nullptr;
    std::uint16_t historicalLength = 0;
    std::uint8_t takesCid = 0, takesNad = 0;
    const short status =
        mTcl->TclGetAts(cid, buffer.data(), &length, &historical, &historicalLength, &takesCid, &takesNad);
    delete[] historical;
    if (status != kTclOk) {
        QVL_LOG(kLogFailure, "sendTCL: TclGetAts failed with status = %d", status);
        return status;
    }
    buffer.resize(length);
    ats = std::move(buffer);
    return kTclOk;
}

short QvlMf500ReaderImpl::exchangeWithCard(std::uint8_t cid, std::uint8_t nad, CardData& command, CardData& answer) {
    answer.assign(kAnswerSize, 0);
    auto length = static_cast<std::uint32_t>(answer.size());
    std::uint8_t nadOut = 0;
    const short status = mTcl->TclExchange(cid, nad, command.data(), static_cast<std::uint32_t>(command.size()),
                                           &nadOut, answer.data(), &length);
    answer.resize(length);
    if (status != kTclOk) QVL_LOG(kLogFailure, "sendTCL: TclExchange failed with status = %d", status);
    return status;
}

int QvlMf500ReaderImpl::sendTCL(TagUID& tag, std::uint8_t nad, CardData& command, CardData& answer, bool retry) {
    if (isTooLong(tag)) {
        QVL_LOG(kLogFailure, "sendTCL with wrong TagUID size = %d", static_cast<int>(tag.getUidLen()));
        return kBadTagUid;
    }
    Card card(tag);
    std::uint8_t cid = 0;
    if (!QvlTclUtil::isNewCid(mTcl.get(), card.uid, card.length, cid)) {
        const short status = exchangeWithCard(cid, nad, command, answer);
        if (status == kTclOk) return kTclOk;
        if (!retry) {
            QVL_LOG(kLogFailure, "sendTCL: no retry, returned with failed status = %d", status);
            return status;
        }
        QVL_LOG(kLogNotice, "sendTCL: deselect the existed cid = %d, then retry again to wake it up.", cid);
        mTcl->TclDeselect(cid);
    } else if (cid == QvlTcl::kCards) {
        QVL_LOG(kLogFailure, "sendTCL: Cannot find available CID, all used.");
        return kNoFreeCid;
    }
    if (const int status = tclActiveWakupLoop(0, kBaudrate106, card.atq, &card.sak, card.uid, card.length);
        status != kOk) {
        QVL_LOG(kLogFailure, "sendTCL: tclActiveWakupLoop failed with status = %d", status);
        return status;
    }
    CardData ats;
    if (const short status = fetchCardAts(cid, ats); status != kTclOk) return status;
    return exchangeWithCard(cid, nad, command, answer);
}

int QvlMf500ReaderImpl::waitForCardTCL(TagUID& tag, int timeout, std::uint8_t& cid, CardData& ats) {
    for (std::uint8_t taken = 0; taken < QvlTcl::kCards; ++taken)
        if (mTcl->mPicc[taken]->mUidLen > 0) mTcl->TclDeselect(taken);
    if (const auto bfl = driver()) bfl->pcdRfReset(kFieldResetMs);
    if (isTooLong(tag)) {
        QVL_LOG(kLogFailure, "waitForCardTCL with wrong TagUID size = %d", static_cast<int>(tag.getUidLen()));
        return kBadTagUid;
    }
    Card card(tag);
    const bool isKnown = card.length > 0 && !QvlTclUtil::isNewCid(mTcl.get(), card.uid, card.length, cid);
    if (isKnown) {
        if (const int status = tclActiveWakupLoop(timeout, kBaudrate106, card.atq, &card.sak, card.uid, card.length);
            status != kOk) {
            QVL_LOG(kLogFailure, "sendTCL: tclActiveWakupLoop failed with status = %d", status);
            return status;
        }
    } else {
        if (const int status = tclActiveIdleLoop(timeout, kBaudrate106, card.atq, &card.sak, card.uid, &card.length);
            status != kOk) {
            QVL_LOG(kLogFailure, "waitForCardTCL: tclActiveIdleLoop failed with status = %d", status);
            return status;
        }
        tag.setUid(card.uid, card.length);
        tag.setTagType(tagTypeFromSak(card.sak));
        cid = QvlTclUtil::getAvailableCid(mTcl.get());
    }
    return fetchCardAts(cid, ats);
}

int QvlMf500ReaderImpl::deselectTCL(TagUID& tag) {
    if (isTooLong(tag)) {
        QVL_LOG(kLogFailure, "deselect with wrong TagUID size = %d", static_cast<int>(tag.getUidLen()));
        return kBadTagUid;
    }
    const Card card(tag);
    std::uint8_t cid = 0;
    if (QvlTclUtil::isNewCid(mTcl.get(), card.uid, card.length, cid)) return kTclOk;
    const short status = mTcl->TclDeselect(cid);
    if (status != kTclOk) QVL_LOG(kLogFailure, "deselectTCL: TclDeselect failed with status = %d", status);
    return status;
}

int QvlMf500ReaderImpl::relayNFC(CardData& command, CardData& reply) {
    const auto bfl = driver();
    if (!bfl || bfl->getBflType() != BflTypeNfcTama) return kNotImplemented;
    std::uint8_t* bytes = nullptr;
    int length = 0;
    const short status =
        static_cast<NfcTamaBfl&>(*bfl).relayNFCCmd(command.data(), static_cast<int>(command.size()), bytes, length);
    const std::unique_ptr<std::uint8_t[]> owner(bytes);
    if (status == kBflOk) reply.assign(bytes, bytes + length);
    return status;
}

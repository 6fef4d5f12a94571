#include "CardSessions.h"

#include "LogService.h"
#include "PromptWait.h"
#include "QvlTclUtil.h"
#include "SecretBytes.h"
#include "TagSizes.h"

#include <algorithm>
#include <memory>

namespace {

constexpr std::size_t kAnswerSize = 4096;
constexpr std::uint8_t kBaudrate106 = 0;
constexpr std::uint16_t kFieldResetMs = 5;
constexpr int kBadTagUid = kTclBadArgument;
constexpr int kNoFreeCid = -45;

/// The border between the statuses of the layers below and the results of the command door: success has another number.
int toResult(short status) { return status == kTclOk ? int{kOk} : status; }

int refuseUid(const char* operation, const TagUID& tag) {
    QVL_LOG(kLogFailure, "%s with wrong TagUID size = %d", operation, static_cast<int>(tag.getUidLen()));
    return kBadTagUid;
}

bool isTooLong(const TagUID& tag) { return tag.getUidLen() > kMostUidBytes; }

}  // namespace

/// The UID as the card layer takes it, and what an activation reports.
struct CardSessions::Card {
    explicit Card(const TagUID& tag) : length(static_cast<std::uint8_t>(tag.getUidLen())) {
        std::copy_n(tag.getUid(), length, uid);
    }
    /// True if it is in the card table, then with its number; else with a free one, or 16.
    bool isKnownTo(const QvlTcl& cards, std::uint8_t& cid) const {
        return !QvlTclUtil::isNewCid(&cards, uid, length, cid);
    }
    std::uint8_t uid[kMostUidBytes] = {};
    std::uint8_t length;
    std::uint8_t atq[2] = {};
    std::uint8_t sak = 0;
};

template <typename Activate>
int CardSessions::waitFor(int timeoutMs, Activate activate) {
    const std::atomic<std::uint32_t> limit{timeoutMs > 0 ? static_cast<std::uint32_t>(timeoutMs) : mWaitMs.load()};
    PromptWait wait(limit);
    WaitBudget budget(wait);
    return budget.wait(
        WaitBudget::ClockRead::beforePause, [&](std::uint32_t) { return activate() == kTclOk; },
        [this] { return mCards.driver()->isReaderLost(); });
}

int CardSessions::activateAny(Card& card, int timeoutMs) {
    return waitFor(timeoutMs, [&] {
        const short status = mCards.TclActivateIdle(kBaudrate106, card.atq, &card.sak, card.uid, &card.length);
        if (status != kTclOk) QVL_LOG(kLogProgress, "tclActiveIdleLoop: TclActivateIdle failed with %d", status);
        return status;
    });
}

int CardSessions::wake(Card& card, int timeoutMs) {
    const int result = waitFor(
        timeoutMs, [&] { return mCards.TclActivateWakeup(kBaudrate106, card.atq, &card.sak, card.uid, card.length); });
    if (result != kOk) QVL_LOG(kLogFailure, "sendTCL: tclActiveWakupLoop failed with status = %d", result);
    return result;
}

int CardSessions::fetchAts(std::uint8_t cid, CardData& ats) {
    CardData buffer(kAnswerSize);
    auto length = static_cast<std::uint16_t>(buffer.size());
    std::uint8_t* historical = nullptr;
    std::uint16_t historicalLength = 0;
    std::uint8_t takesCid = 0, takesNad = 0;
    const short status =
        mCards.TclGetAts(cid, buffer.data(), &length, &historical, &historicalLength, &takesCid, &takesNad);
    delete[] historical;
    if (status != kTclOk) {
        QVL_LOG(kLogFailure, "sendTCL: TclGetAts failed with status = %d", status);
        return status;
    }
    buffer.resize(length);
    ats = std::move(buffer);
    return kOk;
}

short CardSessions::exchange(std::uint8_t cid, std::uint8_t nad, CardData& command, CardData& answer) {
    answer.assign(kAnswerSize, 0);
    auto length = static_cast<std::uint32_t>(answer.size());
    std::uint8_t nadOut = 0;
    const short status = mCards.TclExchange(cid, nad, command.data(), static_cast<std::uint32_t>(command.size()),
                                            &nadOut, answer.data(), &length);
    answer.resize(length);
    if (status != kTclOk) QVL_LOG(kLogFailure, "sendTCL: TclExchange failed with status = %d", status);
    return status;
}

int CardSessions::send(const TagUID& tag, std::uint8_t nad, CardData& command, bool retry, CardData& answer) {
    if (isTooLong(tag)) return refuseUid("sendTCL", tag);
    Card card(tag);
    std::uint8_t cid = 0;
    if (card.isKnownTo(mCards, cid)) {
        const short status = exchange(cid, nad, command, answer);
        if (status == kTclOk) return kOk;
        if (!retry) {
            QVL_LOG(kLogFailure, "sendTCL: no retry, returned with failed status = %d", status);
            return status;
        }
        QVL_LOG(kLogNotice, "sendTCL: deselect the existed cid = %d, then retry again to wake it up.", cid);
        mCards.TclDeselect(cid);
    } else if (cid == QvlTcl::kCards) {
        QVL_LOG(kLogFailure, "sendTCL: Cannot find available CID, all used.");
        return kNoFreeCid;
    }
    if (const int result = wake(card, 0); result != kOk) return result;
    CardData ats;
    if (const int result = fetchAts(cid, ats); result != kOk) return result;
    return toResult(exchange(cid, nad, command, answer));
}

int CardSessions::waitForCard(TagUID& tag, int timeoutMs, std::uint8_t& cid, CardData& ats) {
    for (std::uint8_t taken = 0; taken < QvlTcl::kCards; ++taken)
        if (mCards.mPicc[taken]->mUidLen > 0) mCards.TclDeselect(taken);
    mCards.driver()->pcdRfReset(kFieldResetMs);
    if (isTooLong(tag)) return refuseUid("waitForCardTCL", tag);
    Card card(tag);
    if (card.length > 0 && card.isKnownTo(mCards, cid)) {
        if (const int result = wake(card, timeoutMs); result != kOk) return result;
    } else {
        if (const int result = activateAny(card, timeoutMs); result != kOk) {
            QVL_LOG(kLogFailure, "waitForCardTCL: tclActiveIdleLoop failed with status = %d", result);
            return result;
        }
        tag.setUid(card.uid, card.length);
        tag.setTagType(tagTypeFromSak(card.sak));
        cid = QvlTclUtil::getAvailableCid(&mCards);
    }
    return fetchAts(cid, ats);
}

int CardSessions::open(const TagUID& tag, std::uint8_t& cid, CardData& ats) {
    if (tag.getUidLen() == 0 || isTooLong(tag)) return refuseUid("openCard", tag);
    Card card(tag);
    if (card.isKnownTo(mCards, cid)) mCards.TclDeselect(cid);
    if (mCards.driver()->traits().doesRats && hasCards()) return kNotImplemented;
    if (cid == QvlTcl::kCards) return kNoFreeCid;
    if (const int result = wake(card, 0); result != kOk) return result;
    return fetchAts(cid, ats);
}

bool CardSessions::hasCards() const {
    return std::ranges::any_of(mCards.mPicc, [](const auto& card) { return card->mUidLen > 0; });
}

int CardSessions::deselect(const TagUID& tag) {
    if (isTooLong(tag)) return refuseUid("deselect", tag);
    const Card card(tag);
    std::uint8_t cid = 0;
    if (!card.isKnownTo(mCards, cid)) return kOk;
    const short status = mCards.TclDeselect(cid);
    if (status != kTclOk) QVL_LOG(kLogFailure, "deselectTCL: TclDeselect failed with status = %d", status);
    return toResult(status);
}

int CardSessions::relay(CardData& command, CardData& reply) {
    std::uint8_t* bytes = nullptr;
    int length = 0;
    const short status = mCards.driver()->pcdRelay(command.data(), static_cast<int>(command.size()), bytes, length);
    const std::unique_ptr<std::uint8_t[]> owner(bytes);
    if (status != kBflOk) return status;
    const WipedAtEnd wiped(bytes, static_cast<std::size_t>(length));
    reply.assign(bytes, bytes + length);
    return kOk;
}

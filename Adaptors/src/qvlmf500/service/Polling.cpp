// Finding tags by polling. The memory of a tag that was seen is the tag itself: it is sent to HALT once it has been
// reported, and answers again only when it has left the field or the field was reset.

#include "Clock.h"
#include "Guarded.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "SearchLimit.h"

#include <algorithm>
#include <memory>

namespace {

constexpr std::uint16_t kWakeUpFieldResetMs = 20;
constexpr std::size_t kMostUidBytes = 10;
constexpr std::uint8_t kLongestReportedUid = 9;
constexpr short kBadUidLength = -3;

constexpr std::uint8_t kReqA = 0x26;
constexpr std::uint8_t kFirstSelectCode = 0x93;
constexpr std::uint8_t kUidIncomplete = 0x04;
constexpr std::size_t kCascadePart = 4;

}  // namespace

bool QvlMf500ReaderImpl::pollTag(EventObject*& event, bool forced, bool ignoreSuspend) {
    if (mPendingCalls != 0) return false;
    if (mSuspended && !ignoreSuspend) return false;
    return guarded("pollTag", false, [&] {
        const ReaderLock lock(*this);
        QVL_LOG(kLogDetail, "Poll tag entering forced=%d ignoreSuspend=%d", forced ? 1 : 0, ignoreSuspend ? 1 : 0);
        if (!isReady()) startReader();
        TagUID tag;
        return getTagIdOnce(tag, forced) == kOk && report(tag, event);
    });
}

void QvlMf500ReaderImpl::startReader() {
    if (initReader()) return tellHost(true);
    QVL_LOG(kLogDetail,
            "QvlMf500ReaderImpl::pollTag() failed initReader() and try to call scanUSBDevice() and wait for the next "
            "initReader() -- the scanUSBDevice() will be execute only when USBDevice event arrived");
    scanUSBDevice(kScanAfterFailedInit);
}

// Without memory for the event the tag stays awake, and the next poll reports it.
bool QvlMf500ReaderImpl::report(const TagUID& tag, EventObject*& event) {
    auto found = std::make_unique<EventObject>();
    found->set(EventObject::kTagFound, platform::wallSeconds(), tag, 0, nullptr);
    if (found->getUidLen() != tag.getUidLen()) return false;
    driver()->piccHalt();
    event = found.release();
    return true;
}

int QvlMf500ReaderImpl::getTagIdOnce(TagUID& tag, bool forced) {
    if (!isReady()) return kReaderNotReady;
    std::uint8_t atq[2] = {};
    std::uint8_t sak = 0;
    std::uint8_t uid[kMostUidBytes] = {};
    std::uint8_t uidLen = 0;
    const auto bfl = driver();
    short status =
        forced ? piccActivateWakup(*bfl, atq, &sak, uid, &uidLen) : bfl->piccActivateIdle(0, atq, &sak, uid, &uidLen);
    if (status == kBflOk && uidLen >= 1 && uidLen <= kLongestReportedUid) {
        tag.setUid(uid, uidLen);
        tag.setTagType(tagTypeFromSak(sak));
        return tag.getUidLen() == uidLen ? kOk : kNoTag;
    }
    if (status == kBflOk) status = kBadUidLength;
    if (isDeviceLost(status)) reopen(status);
    return kNoTag;
}

short QvlMf500ReaderImpl::piccActivateWakup(Qvl14443bfl& bfl, std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid,
                                            std::uint8_t* uidLen) {
    std::fill_n(uid, kMostUidBytes, std::uint8_t{0});
    bfl.pcdRfReset(kWakeUpFieldResetMs);
    if (bfl.getBflType() == BflTypeNfcTama) {
        const short status = bfl.piccActivateIdle(0, atq, sak, uid, uidLen);
        if (status == kBflOk) return kBflOk;
        QVL_LOG(kLogFailure, "QvlMf500Readerimpl::piccActivateWakup failed %d", status);
        return kNoTag;
    }

    if (const short status = bfl.piccRequest(kReqA, atq); status != kBflOk) return status;
    *sak = kUidIncomplete;
    *uidLen = 0;
    int selectCode = kFirstSelectCode;
    while ((*sak & kUidIncomplete) != 0 && selectCode != -1) {
        const auto level = static_cast<std::uint8_t>(selectCode);
        std::uint8_t part[kCascadePart] = {};
        short status = bfl.piccCascAnticoll(level, 0, part);
        const bool isEmpty = std::ranges::all_of(part, [](std::uint8_t byte) { return byte == 0; });
        if (status == kBflOk && isEmpty && level == kFirstSelectCode) status = kNoTag;
        if (status == kBflOk) status = bfl.piccCascSelect(level, part, sak);
        if (status != kBflOk) {
            QVL_LOG(kLogFailure, "piccActivateWakeup anticollision failed=%d", status);
            return status;
        }
        // A part that another level follows begins with the cascade tag.
        const std::size_t skipped = (*sak & kUidIncomplete) != 0 ? 1 : 0;
        const std::size_t taken = std::min(kCascadePart - skipped, kMostUidBytes - *uidLen);
        std::copy_n(part + skipped, taken, uid + *uidLen);
        *uidLen = static_cast<std::uint8_t>(*uidLen + taken);
        selectCode = nextCascadeLevel(selectCode);
    }
    return kBflOk;
}

int QvlMf500ReaderImpl::haltAllTag(bool haltSelected) {
    return guarded("haltAllTag", int{kOk}, [&] {
        const auto bfl = driver();
        if (haltSelected) bfl->piccHalt();
        SearchLimit limit;
        TagUID tag;
        while (getTagIdOnce(tag, false) == kOk) {
            if (!limit.mayGoOn()) {
                QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::haltAllTag gives up after %d tags", limit.tags());
                break;
            }
            driver()->piccHalt();
        }
        return kOk;
    });
}

int QvlMf500ReaderImpl::suspendPoll(TagUID&) {
    return guarded("suspendPoll", int{kReaderFailed}, [this] {
        const ReaderLock lock(*this);
        return mSuspended.exchange(true) ? kAlreadySuspended : kOk;
    });
}

int QvlMf500ReaderImpl::resumePoll(TagUID&) {
    return guarded("resumePoll", int{kReaderFailed}, [this] {
        const ReaderLock lock(*this);
        return mSuspended.exchange(false) ? kOk : kNotSuspended;
    });
}

void QvlMf500ReaderImpl::setTagPromptFlag(bool on) { mTagPrompt = on; }

void QvlMf500ReaderImpl::resetSuspendTime(std::uint32_t ms) {
    mSuspendTime = ms == 0 ? mDefaultSuspendTime.load() : ms;
}

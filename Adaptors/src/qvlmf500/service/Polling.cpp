// Finding tags by polling. The memory of a tag that was seen is the tag itself: it is sent to HALT once it has been
// reported, and answers again only when it has left the field or the field was reset.

#include "Clock.h"
#include "Guarded.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "SearchLimit.h"
#include "TagSizes.h"

#include <memory>

namespace {

constexpr std::uint8_t kLongestReportedUid = 9;
constexpr short kBadUidLength = -3;

}  // namespace

bool QvlMf500ReaderImpl::pollTag(EventObject*& event, bool forced, bool ignoreSuspend) {
    if (mReader.isBusy()) return false;
    if (mSuspended && !ignoreSuspend) return false;
    return guarded("pollTag", false, [&] {
        const ReaderLock lock(mReader);
        QVL_LOG(kLogDetail, "Poll tag entering forced=%d ignoreSuspend=%d", forced ? 1 : 0, ignoreSuspend ? 1 : 0);
        if (!mReader.isReady()) startReader();
        TagUID tag;
        return getTagIdOnce(tag, forced) == kOk && report(tag, event);
    });
}

void QvlMf500ReaderImpl::startReader() {
    if (initReader()) return tellHost(true);
    QVL_LOG(kLogDetail,
            "QvlMf500ReaderImpl::pollTag() failed initReader() and try to call scanUSBDevice() and wait for the next "
            "initReader() -- the scanUSBDevice() will be execute only when USBDevice event arrived");
    scanUSBDevice(DeviceScan::kAfterFailedInit);
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
    const unsigned opening = mReader.mOpenings;
    if (!mReader.isReady()) return kReaderNotReady;
    std::uint8_t atq[2] = {};
    std::uint8_t sak = 0;
    std::uint8_t uid[kMostUidBytes] = {};
    std::uint8_t uidLen = 0;
    const auto bfl = driver();
    short status =
        forced ? bfl->piccActivateAny(atq, &sak, uid, &uidLen) : bfl->piccActivateIdle(0, atq, &sak, uid, &uidLen);
    if (status == kBflOk && uidLen >= 1 && uidLen <= kLongestReportedUid) {
        tag.setUid(uid, uidLen);
        tag.setTagType(tagTypeFromSak(sak));
        return tag.getUidLen() == uidLen ? kOk : kNoTag;
    }
    if (status == kBflOk) status = kBadUidLength;
    if (isDeviceLost(status)) reopen(status, opening);
    return kNoTag;
}

bool QvlMf500ReaderImpl::isReaderLost() const { return !mReader.isReady() || driver()->isReaderLost(); }

int QvlMf500ReaderImpl::haltAllTag(bool haltSelected) {
    return guarded("haltAllTag", int{kOk}, [&] {
        const WatchedLink link(mReader);
        if (haltSelected) driver()->piccHalt();
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
        const ReaderLock lock(mReader);
        return mSuspended.exchange(true) ? kAlreadySuspended : kOk;
    });
}

int QvlMf500ReaderImpl::resumePoll(TagUID&) {
    return guarded("resumePoll", int{kReaderFailed}, [this] {
        const ReaderLock lock(mReader);
        return mSuspended.exchange(false) ? kOk : kNotSuspended;
    });
}

void QvlMf500ReaderImpl::setTagPromptFlag(bool on) { mTagPrompt = on; }

void QvlMf500ReaderImpl::resetSuspendTime(std::uint32_t ms) {
    mSuspendTime = ms == 0 ? mDefaultSuspendTime.load() : ms;
}

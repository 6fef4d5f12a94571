// A tag that the host knows by its UID is brought to the active state again, and waited for when it is away.

#include "Guarded.h"
#include "LogService.h"
#include "PromptWait.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"

#include <algorithm>
#include <memory>

namespace {

constexpr std::uint32_t kMostUidBytes = 10;
constexpr std::uint8_t kFirstSelectCode = 0x93;
constexpr std::uint8_t kMoreLevels = 0x04;
// No tag answers with this ATQ: it stays when the reader reports a tag that is awake already.
constexpr std::uint8_t kNoAtq = 0xFF;

std::string uidText(const TagUID& tag) {
    const std::unique_ptr<char[]> text(tag.toHexString());
    return text ? text.get() : "";
}

}  // namespace

int QvlMf500ReaderImpl::activateTag(int, TagUID& tag) {
    if (tag.getUidLen() == 0) return kTagWithoutUid;
    const ReaderLock lock(*this);
    if (!isReady()) return kReaderNotReady;
    if (tag.getUidLen() > kMostUidBytes) return kNoTag;
    return waitForTag(kIdleRequest, tag);
}

int QvlMf500ReaderImpl::waitForTag(std::uint8_t requestCode, TagUID& tag) {
    PromptWait wait(mSuspendTime);
    int status = kOk;
    std::uint8_t code = kWakeUpRequest;
    while (wait.mayTry()) {
        status = selectTag(code, tag);
        if (status == kOk) break;
        code = requestCode == kIdleRequest && !wait.hasWaited() ? kIdleRequest : kWakeUpRequest;
        wait.measure();
        status = wait.pass();
        if (status != kOk) break;
    }
    return wait.result(status);
}

// A reader that reports the tag as awake already has not looked at its UID: another tag may lie there. One halt and a
// second look tell; if the reader stays with it, the tag is taken as it is.
short QvlMf500ReaderImpl::wakeByUid(Qvl14443bfl& bfl, const TagUID& tag, std::uint8_t& sak, bool& sakKnown) {
    std::uint8_t uid[kMostUidBytes] = {};
    const auto length = static_cast<std::uint8_t>(tag.getUidLen());
    std::copy_n(tag.getUid(), length, uid);
    short status = kBflOk;
    for (int look = 0; look < 2; ++look) {
        std::uint8_t atq[2] = {kNoAtq, kNoAtq};
        status = bfl.piccActivateWakeup(0, atq, &sak, uid, length);
        sakKnown = atq[0] != kNoAtq || atq[1] != kNoAtq;
        if (status != kBflOk || sakKnown) break;
        if (look == 0) bfl.piccHalt();
    }
    return status;
}

int QvlMf500ReaderImpl::selectTag(std::uint8_t requestCode, TagUID& tag) {
    if (tag.getUidLen() == 0 || tag.getUidLen() > kMostUidBytes) return kNoTag;
    const auto bfl = driver();
    std::uint8_t sak = kMoreLevels;
    bool sakKnown = true;
    if (bfl->getBflType() == BflTypeNfcTama) {
        if (const short status = wakeByUid(*bfl, tag, sak, sakKnown); status != kBflOk) {
            QVL_LOG(kLogFailure, "Tag selection failed: %d for tagID = 0x%s", status, uidText(tag).c_str());
            return kNoTag;
        }
    } else {
        std::uint8_t atq[2] = {};
        short status = bfl->piccRequest(requestCode, atq);
        // A tag that was left active falls back to idle on the first request, without an answer.
        if (status != kBflOk && !isDeviceLost(status)) status = bfl->piccRequest(requestCode, atq);
        if (status != kBflOk) {
            QVL_LOG(kLogFailure, "Tag selection failed: %d", status);
            return kNoTag;
        }
        int selectCode = kFirstSelectCode;
        while (sak == kMoreLevels && selectCode != -1) {
            std::uint8_t part[4] = {};
            tag.getCascadeBytes(static_cast<std::uint8_t>(selectCode), part);
            status = bfl->piccCascSelect(static_cast<std::uint8_t>(selectCode), part, &sak);
            if (status != kBflOk) {
                QVL_LOG(kLogFailure, "Tag selection anticollision failed: %d", status);
                return kNoTag;
            }
            selectCode = nextCascadeLevel(selectCode);
        }
    }
    mSakSeen = sakKnown;
    if (!sakKnown) return kOk;
    const std::uint32_t type = tagTypeFromSak(sak);
    if (mHeldTagType && type != *mHeldTagType) {
        QVL_LOG(kLogFailure, "Tag selection failed: another type of tag for tagID = 0x%s", uidText(tag).c_str());
        bfl->piccHalt();  // left active, it would take what the next sector's commands say
        return kNoTag;
    }
    tag.setTagType(type);
    return kOk;
}

// Asking for a tag and waiting for it, and finding the tags that carry a directory or an application.

#include "ByteHelpers.h"
#include "DirectoryImage.h"
#include "Guarded.h"
#include "KeyUse.h"
#include "LogService.h"
#include "PromptWait.h"
#include "QvlMf500ReaderImpl.h"
#include "ReaderLock.h"
#include "SearchLimit.h"
#include "TagPromptScope.h"
#include "TagUIDList.h"

#include <algorithm>
#include <memory>
#include <new>

namespace {

constexpr int kTrailerOfSector0 = 3;
constexpr std::uint8_t kHasDirectory = 0x80;
constexpr std::size_t kFirstEntryByte = 2;

bool hasEntry(const std::uint8_t* directory, const std::uint8_t* aid) {
    for (std::size_t at = kFirstEntryByte; at < mad::kSize; at += 2)
        if (std::equal(aid, aid + 2, directory + at)) return true;
    return false;
}

void append(TagUIDList& list, const TagUID& tag) {
    auto node = std::make_unique<TagUIDListNode>(tag, nullptr);
    if (node->getTag() == nullptr) throw std::bad_alloc();
    list.append(node.release());
}

// The tags of a list as a host gets them: one array.
std::unique_ptr<TagUID[]> asArray(const TagUIDList& list) {
    if (list.count() == 0) return nullptr;
    auto tags = std::make_unique<TagUID[]>(list.count());
    const std::unique_ptr<TagUIDListIterator> iterator(list.newIterator());
    if (!iterator) throw std::bad_alloc();
    for (std::uint32_t i = 0; !iterator->atEnd(); ++i)
        tags[i] = *iterator->next()->getTag();
    return tags;
}

}  // namespace

int QvlMf500ReaderImpl::waitForAnyTag(TagUID& tag, bool forced) {
    PromptWait wait(mSuspendTime);
    int status = kOk;
    while (wait.mayTry()) {
        status = getTagIdOnce(tag, forced);
        if (status == kOk) break;
        status = wait.pass();
        if (status != kOk) break;
        wait.measure();
    }
    return wait.result(status);
}

int QvlMf500ReaderImpl::lookForDirectory(const std::uint8_t* aid, TagUID& tag, const KeyUse& key, bool& found) {
    std::uint8_t trailer[mad::kBlockSize] = {};
    std::uint8_t directory[mad::kSize] = {};
    // Without a key for its retries a read that fails once fails for good, and the search goes on with the next tag.
    const KeyUse none{nullptr, key.mode};
    int status = authenticateKey(tag, 0, key);
    if (status == kOk) status = getBlock(tag, 0, none, kTrailerOfSector0, 1, trailer, false, nullptr);
    if (status != kOk || (trailer[Trailer::kGeneralPurpose] & kHasDirectory) == 0) return status;
    if (aid != nullptr) {
        status = getBlock(tag, 0, none, 1, 2, directory, false, nullptr);
        if (status != kOk || !hasEntry(directory, aid)) return status;
    }
    found = true;
    return kOk;
}

int QvlMf500ReaderImpl::findAppTag(const std::uint8_t* aid, TagUID& tag, const KeyUse& key, bool wait, bool forced) {
    int status = wait ? waitForAnyTag(tag, forced) : getTagIdOnce(tag, forced);
    if (status != kOk) return status;
    SearchLimit limit;
    while (limit.mayGoOn()) {
        bool found = false;
        if (lookForDirectory(aid, tag, key, found) != kOk) {
            status = waitForTag(kWakeUpRequest, tag);
            if (status == kCancelled || status == kWaitOver) return status;
        }
        if (status == kOk) driver()->piccHalt();
        if (found) return kOk;
        tag.reset();
        status = getTagIdOnce(tag, false);
        if (status != kOk) return kNoDirectory;
    }
    QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::findAppTag gives up after %d tags", limit.tags());
    return kNoDirectory;
}

int QvlMf500ReaderImpl::getTagId(int, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                                 const std::uint8_t* key, bool halt) {
    return guarded("getTagId", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(*this);
        tag = nullptr;
        if (!isReady()) return kReaderNotReady;
        auto found = std::make_unique<TagUID[]>(1);
        int status = kOk;
        {
            const TagPromptScope prompt(*this);
            const KeyUse directory = directoryKey(key, keyMode);
            std::uint8_t aid[2] = {};
            if (appType == TagAppNone)
                status = waitForAnyTag(found[0], true);
            else if (appId == 0)
                status = findAppTag(nullptr, found[0], directory, true, true);
            else if (!aidToBytes(static_cast<std::uint16_t>(appId), aid))
                status = kNoApplicationId;
            else
                status = findAppTag(aid, found[0], directory, true, true);
            if (halt) haltAllTag(status == kOk);
        }
        if (status == kOk) tag = found.release();
        return status;
    });
}

int QvlMf500ReaderImpl::getAllTagId(int, TagAppType appType, short appId, AuthKeyMode keyMode, const std::uint8_t* key,
                                    short& count, TagUID*& tags) {
    std::uint8_t aidBytes[2] = {};
    const bool wantsApp = appType != TagAppNone && appId != 0;
    if (wantsApp && !aidToBytes(static_cast<std::uint16_t>(appId), aidBytes)) return kNoApplicationId;
    return guarded("getAllTagId", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(*this);
        if (!isReady()) return kReaderNotReady;
        const TagPromptScope prompt(*this);
        const HaltAtEnd halt(*this);
        const KeyUse directory = directoryKey(key, keyMode);
        const std::uint8_t* aid = wantsApp ? aidBytes : nullptr;
        count = 0;
        TagUIDList list;
        SearchLimit limit;
        for (bool first = true;; first = false) {
            TagUID tag;
            int status = kOk;
            if (appType != TagAppNone)
                status = findAppTag(aid, tag, directory, first, first);
            else
                status = first ? waitForAnyTag(tag, true) : getTagIdOnce(tag, false);
            if (status == kCancelled || status == kWaitOver) return status;
            if (status != kOk) break;  // a tag that does not answer is the normal end
            if (!limit.mayGoOn()) {
                QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::getAllTagId gives up after %d tags", limit.tags());
                break;
            }
            if (appType == TagAppNone) driver()->piccHalt();
            append(list, tag);
        }
        std::unique_ptr<TagUID[]> found = asArray(list);
        count = static_cast<short>(list.count());
        tags = found.release();
        return kOk;
    });
}

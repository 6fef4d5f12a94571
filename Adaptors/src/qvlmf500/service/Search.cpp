// Asking for a tag and waiting for it, and finding the tags that carry a directory or an application.

#include "ByteHelpers.h"
#include "FieldSearch.h"
#include "Guarded.h"
#include "PromptWait.h"
#include "QvlMf500ReaderImpl.h"
#include "TagPromptScope.h"
#include "TagUIDList.h"

#include <memory>
#include <new>

namespace {

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

int QvlMf500ReaderImpl::getTagId(int, TagAppType appType, short appId, TagUID*& tag, AuthKeyMode keyMode,
                                 const std::uint8_t* key, bool halt) {
    return guarded("getTagId", int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(mReader);
        tag = nullptr;
        if (!revive()) return kReaderNotReady;
        auto found = std::make_unique<TagUID[]>(1);
        int status = kOk;
        {
            const TagPromptScope prompt(*this);
            PromptWait wait(mSuspendTime);
            WaitBudget budget(wait);
            FieldSearch search(*this, budget, directoryKey(key, keyMode));
            std::uint8_t aid[2] = {};
            if (appType == TagAppNone)
                status = search.waitForAny(found[0]);
            else if (appId == 0)
                status = search.findWithDirectory(nullptr, found[0], true);
            else if (!aidToBytes(static_cast<std::uint16_t>(appId), aid))
                status = kNoApplicationId;
            else
                status = search.findWithDirectory(aid, found[0], true);
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
        const ReaderLock lock(mReader);
        if (!revive()) return kReaderNotReady;
        const TagPromptScope prompt(*this);
        const HaltAtEnd halt(*this);
        PromptWait wait(mSuspendTime);
        WaitBudget budget(wait);
        FieldSearch search(*this, budget, directoryKey(key, keyMode));
        const std::uint8_t* aid = wantsApp ? aidBytes : nullptr;
        count = 0;
        TagUIDList list;
        for (bool isFirst = true;; isFirst = false) {
            TagUID tag;
            int status = kOk;
            if (appType != TagAppNone)
                status = search.findWithDirectory(aid, tag, isFirst);
            else
                status = isFirst ? search.waitForAny(tag) : getTagIdOnce(tag, false);
            if (status == kCancelled || status == kWaitOver) return status;
            if (status != kOk) break;  // a tag that does not answer is the normal end
            if (appType == TagAppNone) {
                if (!search.mayGoOn("getAllTagId")) break;
                driver()->piccHalt();
            }
            append(list, tag);
        }
        std::unique_ptr<TagUID[]> found = asArray(list);
        count = static_cast<short>(list.count());
        tags = found.release();
        return kOk;
    });
}

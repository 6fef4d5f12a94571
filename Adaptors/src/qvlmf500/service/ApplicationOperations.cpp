// Directory and applications, and formatting: what the host asks for is checked here and done in tagops/.

#include "AppSectors.h"
#include "Clock.h"
#include "Formatter.h"
#include "TagDirectory.h"
#include "TagGeometry.h"
#include "TagOperation.h"

#include <algorithm>
#include <memory>

namespace {

constexpr std::uint32_t kSettleMs = 10;

// The applications of a directory, each at the place of its first sector.
int collectApps(const DirectoryImage& image, short* ids) {
    int count = 0;
    for (int word = 1; word < mad::kWords; ++word) {
        const std::uint16_t id = image.word(word);
        if (id == mad::kFree || id == mad::kDefect) continue;
        const auto value = static_cast<short>(id);
        if (std::find(ids, ids + count, value) == ids + count) ids[count++] = value;
    }
    return count;
}

}  // namespace

int QvlMf500ReaderImpl::getAllAppId(int, TagAppType, const TagUID& tag, short& count, short*& appIds,
                                    AuthKeyMode keyMode, const std::uint8_t* key) {
    count = 0;
    appIds = nullptr;
    if (const int status = checkTag(tag); status != kOk) return status;
    return operateOn("getAllAppId", tag, [&](SelectedTag& selected) {
        DirectoryImage image;
        TagDirectory directory(selected, directoryKey(key, keyMode));
        if (const int status = directory.readKnown(Login::asIs, image); status != kOk) return status;
        short ids[mad::kWords];
        const int found = collectApps(image, ids);
        auto list = std::make_unique<short[]>(static_cast<std::size_t>(found));
        std::copy_n(ids, found, list.get());
        appIds = list.release();
        count = static_cast<short>(found);
        return int{kOk};
    });
}

int QvlMf500ReaderImpl::getAppIdDir(int, TagAppType appType, const TagUID& tag, short* directory, AuthKeyMode keyMode,
                                    const std::uint8_t* key) {
    if (appType == TagAppNone) return kNotAllowedHere;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (directory == nullptr) return kReaderFailed;
    return operateOn("getAppIdDir", tag, [&](SelectedTag& selected) {
        DirectoryImage image;
        TagDirectory known(selected, directoryKey(key, keyMode));
        if (const int status = known.readKnown(Login::anew, image); status != kOk) return status;
        for (int word = 0; word < mad::kWords; ++word)
            directory[word] = static_cast<short>(image.word(word));
        return int{kOk};
    });
}

/// The frame of an operation that works on whatever tag lies in the field, which it hands out in `tag`. The search has
/// a prompt of its own unless one stands. `body(selected, prompt)` may put up the prompt that goes down at the end.
template <typename Body>
int QvlMf500ReaderImpl::operateOnAny(const char* operation, TagUID*& tag, bool isPromptFirst, Body body) {
    return guarded(operation, int{kReaderFailed}, [&]() -> int {
        const ReaderLock lock(mReader);
        tag = nullptr;
        if (!revive()) return kReaderNotReady;
        std::optional<TagPromptScope> prompt;
        const HaltAtEnd halt(*this);
        if (isPromptFirst) prompt.emplace(*this);
        PromptWait wait(mSuspendTime);
        WaitBudget budget(wait);
        auto found = std::make_unique<TagUID[]>(1);
        {
            const TagPromptScope searching(*this);
            const int status = FieldSearch(*this, budget, {}).waitForAny(found[0]);
            if (status != kOk) return status;
        }
        tag = found.release();
        SelectedTag selected(driver(), *tag, budget);
        selected.holdType();
        return selected.end(hasTrailers(selected.type()) ? body(selected, prompt) : int{kNotAllowedHere});
    });
}

int QvlMf500ReaderImpl::formatTag(int, TagAppType appType, std::uint8_t* newKeyB, TagUID*& tag, std::uint8_t* newKeyA,
                                  int& sectorCount, OpResultCode*& results) {
    sectorCount = 0;
    results = nullptr;
    if (newKeyB == nullptr) {
        tag = nullptr;
        return kReaderFailed;
    }
    return operateOnAny("formatTag", tag, false, [&](SelectedTag& selected, std::optional<TagPromptScope>& prompt) {
        if (selected.type() == kTag4K && appType != TagAppNone) return int{kNotAllowedHere};
        platform::Clock::current().pauseMs(kSettleMs);
        prompt.emplace(*this);
        const std::uint8_t* keyA = newKeyA;
        if (keyA == nullptr) keyA = appType == TagAppNone ? FactoryKey.data() : MadKeyA.data();
        OpRecords records;
        const int status = Formatter(selected).format(appType, keyA, newKeyB, records);
        records.release(sectorCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::unformatTag(int, TagAppType appType, std::uint8_t* key, TagUID*& tag, int* statuses) {
    return operateOnAny("unformatTag", tag, true, [&](SelectedTag& selected, std::optional<TagPromptScope>&) {
        return Formatter(selected).unformat(appType, key, statuses);
    });
}

int QvlMf500ReaderImpl::changeApp(bool isNew, TagAppType appType, const TagUID& tag, const SectorsToAdd& wanted,
                                  int& done, int& resultCount, OpResultCode*& results) {
    done = resultCount = 0;
    results = nullptr;
    if (tag.getTagType() == kTag4K && appType != TagAppNone) return kNotAllowedHere;
    if (const int status = checkTag(tag); status != kOk) return status;
    if (wanted.count < 0) return kTooFew;
    if (wanted.newKeyA == nullptr || wanted.newKeyB == nullptr) return kReaderFailed;
    return operateOn(isNew ? "initApp" : "addAppSector", tag, [&](SelectedTag& selected) {
        if (!hasTrailers(selected.type())) return int{kNotAllowedHere};
        OpRecords records;
        const int status = appType == TagAppNone ? PlainSectors(selected).add(wanted, done, records)
                                                 : AppSectors(selected).add(wanted, isNew, done, records);
        if (status == kPartial) selected.leaveSelected(records.lastStatus() == kOk);
        records.release(resultCount, results);
        return status;
    });
}

int QvlMf500ReaderImpl::initApp(int, TagAppType appType, short appId, const std::uint8_t* madKey,
                                const std::uint8_t* sectorKey, short, short sectorCount, const TagUID& tag,
                                const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access,
                                int& done, int& resultCount, OpResultCode*& results) {
    done = resultCount = 0;
    results = nullptr;
    if (appType == TagAppNone) return kNotAllowedHere;
    return changeApp(true, appType, tag, {appId, madKey, sectorKey, sectorCount, newKeyA, newKeyB, access}, done,
                     resultCount, results);
}

int QvlMf500ReaderImpl::addAppSector(int, TagAppType appType, short appId, const std::uint8_t* madKey,
                                     const std::uint8_t* sectorKey, short, short sectorCount, const TagUID& tag,
                                     const std::uint8_t* newKeyA, const std::uint8_t* newKeyB, DataAccControl access,
                                     int& done, int& resultCount, OpResultCode*& results) {
    return changeApp(false, appType, tag, {appId, madKey, sectorKey, sectorCount, newKeyA, newKeyB, access}, done,
                     resultCount, results);
}

int QvlMf500ReaderImpl::removeAppSector(int, TagAppType appType, short appId, const std::uint8_t* madKey, short,
                                        short startIndex, short sectorCount, const TagUID& tag, AuthKeyMode keyMode,
                                        const std::uint8_t* key, const std::uint8_t* newKeyA,
                                        const std::uint8_t* newKeyB, int* statuses) {
    if (const int status = checkTag(tag); status != kOk) return status;
    if (sectorCount < 0) return kTooFew;
    if (appType != TagAppNone && startIndex < 0) return kOutOfRange;
    bool isSelected = false;
    const int status = operateOn("removeAppSector", tag, [&](SelectedTag& selected) {
        isSelected = true;
        if (!hasTrailers(selected.type())) return int{kNotAllowedHere};
        const SectorsToRemove wanted{appId,          madKey,  startIndex, sectorCount,
                                     {key, keyMode}, newKeyA, newKeyB,    statuses};
        return appType == TagAppNone ? PlainSectors(selected).remove(wanted) : AppSectors(selected).remove(wanted);
    });
    // Whatever kept the tag from being selected counts as no tag.
    return isSelected || (status != kCancelled && status != kWaitOver) ? status : int{kNoTag};
}

int QvlMf500ReaderImpl::resetApp(int readerId, TagAppType appType, short appId, const std::uint8_t* madKey,
                                 short spareShort, short sectorCount, const TagUID& tag, AuthKeyMode keyMode,
                                 const std::uint8_t* key, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                                 int* statuses) {
    if (appType == TagAppNone) return kNotAllowedHere;
    return removeAppSector(readerId, appType, appId, madKey, spareShort, 0, sectorCount, tag, keyMode, key, newKeyA,
                           newKeyB, statuses);
}

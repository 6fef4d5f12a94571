#include "FieldSearch.h"

#include "DirectoryImage.h"
#include "LogService.h"
#include "TagSizes.h"

#include <algorithm>

namespace {

constexpr int kTrailerOfSector0 = 3;
constexpr std::uint8_t kHasDirectory = 0x80;
constexpr std::size_t kFirstEntryByte = 2;

bool hasEntry(const std::uint8_t* directory, const std::uint8_t* aid) {
    for (std::size_t at = kFirstEntryByte; at < mad::kSize; at += 2)
        if (std::equal(aid, aid + 2, directory + at)) return true;
    return false;
}

}  // namespace

int FieldSearch::waitForAny(TagUID& tag) {
    return mBudget.wait(
        WaitBudget::ClockRead::afterPause, [&](std::uint32_t) { return mFinder.getTagIdOnce(tag, true) == kOk; },
        [this] { return mFinder.isReaderLost(); });
}

bool FieldSearch::mayGoOn(const char* operation) {
    if (mLimit.mayGoOn()) return true;
    QVL_LOG(kLogFailure, "QvlMf500ReaderImpl::%s gives up after %d tags", operation, mLimit.tags());
    return false;
}

// Without a key for its retries a read that fails once fails for good, and the search goes on with the next tag.
// @return false when something failed on this tag.
bool FieldSearch::lookInto(SelectedTag& tag, const std::uint8_t* aid, bool& found) {
    std::uint8_t trailer[kBlockSize] = {};
    std::uint8_t directory[mad::kSize] = {};
    const KeyUse none{nullptr, mKey.mode};
    if (tag.authenticate(0, mKey) != kOk) return false;
    if (tag.read({0, kTrailerOfSector0, 1}, none, Login::asIs, trailer) != kOk) return false;
    if ((trailer[Trailer::kGeneralPurpose] & kHasDirectory) == 0) return true;
    if (aid != nullptr && tag.read({0, 1, 2}, none, Login::asIs, directory) != kOk) return false;
    found = aid == nullptr || hasEntry(directory, aid);
    return true;
}

int FieldSearch::findWithDirectory(const std::uint8_t* aid, TagUID& tag, bool isFirst) {
    int status = isFirst ? waitForAny(tag) : mFinder.getTagIdOnce(tag, false);
    if (status != kOk) return status;
    while (mayGoOn("findAppTag")) {
        const auto driver = mFinder.driver();
        SelectedTag candidate(driver, tag, mBudget);
        bool found = false;
        if (!lookInto(candidate, aid, found)) {
            status = candidate.wake();
            if (status != kOk) return status;
        }
        driver->piccHalt();
        if (found) return kOk;
        tag.reset();
        status = mFinder.getTagIdOnce(tag, false);
        if (status != kOk) break;
    }
    return kNoDirectory;
}

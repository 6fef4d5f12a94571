#pragma once

#include "SearchLimit.h"
#include "SelectedTag.h"
#include "TagWait.h"

#include <cstdint>
#include <memory>

/// One look into the field, as the service offers it to a search.
class TagFinder {
  public:
    virtual ~TagFinder() = default;
    /// One attempt at a tag, with `forced` at halted ones as well. 3100, 3104 or 3137.
    virtual int getTagIdOnce(TagUID& tag, bool forced) = 0;
    virtual std::shared_ptr<Qvl14443bfl> driver() const = 0;
    /// Nothing will come of further attempts in this operation.
    virtual bool isReaderLost() const = 0;
};

/// One search of the host, through the tags in the field. Under the reader lock.
class FieldSearch {
  public:
    /// `directoryKey` opens sector 0 of the tags.
    FieldSearch(TagFinder& finder, WaitBudget& budget, const KeyUse& directoryKey)
        : mFinder(finder), mBudget(budget), mKey(directoryKey) {}

    /// Waits for any tag and leaves it selected; 3100, 3121, 3122.
    int waitForAny(TagUID& tag);
    /// The next tag with a directory, and in it with the two bytes of `aid` unless that is null; it is halted, as is
    /// every tag on the way. The first one is waited for. 3100, 3121, 3122, 3130, or that of the first attempt.
    int findWithDirectory(const std::uint8_t* aid, TagUID& tag, bool isFirst);
    /// Counts a tag that was found. @return false when the search has to end.
    bool mayGoOn(const char* operation);

  private:
    bool lookInto(SelectedTag& tag, const std::uint8_t* aid, bool& found);

    TagFinder& mFinder;
    WaitBudget& mBudget;
    KeyUse mKey;
    SearchLimit mLimit;
};

#pragma once

#include "Clock.h"

#include <cstdint>

/// Ends a walk through the tags of the field. It relies on HALT taking each tag out of the game, and a tag that answers
/// again would keep it going for ever.
class SearchLimit {
  public:
    SearchLimit() : mStart(platform::Clock::current().tick()) {}

    /// Counts one tag. @return false when the walk has to end.
    bool mayGoOn() { return ++mTags <= kMostTags && platform::Clock::current().tick() - mStart < kLongestMs; }
    int tags() const { return mTags; }

  private:
    static constexpr int kMostTags = 4096;
    static constexpr std::uint32_t kLongestMs = 60000;

    std::uint32_t mStart;
    int mTags = 0;
};

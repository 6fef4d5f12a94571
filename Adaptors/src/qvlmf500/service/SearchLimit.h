#pragma once

#include "Clock.h"

#include <cstdint>

/// Ends a walk through the tags of the field. It relies on HALT taking each tag out of the game, and a tag that answers
/// again would keep it going for ever.
class SearchLimit {
  public:
    /// Counts one tag; the time runs from the first one. @return false when the walk has to end.
    bool mayGoOn() {
        const std::uint32_t now = platform::Clock::current().tick();
        if (++mTags == 1) mStart = now;
        return mTags <= kMostTags && now - mStart < kLongestMs;
    }
    int tags() const { return mTags; }

  private:
    static constexpr int kMostTags = 4096;
    static constexpr std::uint32_t kLongestMs = 60000;

    std::uint32_t mStart = 0;
    int mTags = 0;
};

#pragma once

#include "OpRecords.h"
#include "SelectedTag.h"

#include <cstdint>

/// Gives a factory tag the trailers of this system, with or without a directory, or takes them back. Goes on past a
/// sector that fails, where it can. 3100; 3111 when the directory could not be written; 3132 when sectors failed.
class Formatter {
  public:
    explicit Formatter(SelectedTag& tag) : mTag(tag) {}

    /// Keys of 6 bytes. `records` has one for each sector, and none with 3111.
    int format(TagAppType appType, const std::uint8_t* keyA, const std::uint8_t* keyB, OpRecords& records);
    /// `key` is key B of all sectors. `statuses` has one entry for each sector, or is null.
    int unformat(TagAppType appType, const std::uint8_t* key, int* statuses);

  private:
    int writeSector0(const KeyUse& key, bool withCrc, const Trailer& trailer);

    SelectedTag& mTag;
};

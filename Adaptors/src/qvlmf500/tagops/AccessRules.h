#pragma once

#include "OpRecords.h"
#include "SelectedTag.h"
#include "TagDirectory.h"

#include <array>
#include <cstdint>

/// What setDataBlockType does to one block. Keys are 6 bytes of the caller's.
struct BlockTypeChange {
    const std::uint8_t* newKeyA;
    const std::uint8_t* keyB;
    DataAccControl access;
    bool isValue;  ///< The block gets `value`, else zeros.
    std::int32_t value;
};

/// The sectors whose trailers an operation rewrites.
struct TrailerChange {
    const char* operation;  ///< For the log.
    TagAppType appType;
    short appId;  ///< Without a directory the first sector.
    int sectorCount;
    KeyUse madKey;
    KeyUse key;  ///< Opens the sectors.
};

/// Who may do what on a selected tag: access conditions of blocks and sectors, and keys. Every change of a trailer
/// writes all of it, and key A cannot be read back, so it comes from the caller each time. A trailer whose access bytes
/// are inconsistent is never written back: it would lock the sector for good.
class AccessRules {
  public:
    explicit AccessRules(SelectedTag& tag) : mTag(tag) {}

    int setBlockType(const BlockAddress& address, const BlockTypeChange& change);
    /// Whole trailers with these keys and access bytes.
    int setTrailers(const TrailerChange& change, const std::uint8_t* keyA, const std::uint8_t* keyB,
                    const std::array<std::uint8_t, 3>& access, OpRecords& records);
    /// New keys; the conditions stay.
    int setKeys(const TrailerChange& change, const std::uint8_t* newKeyA, const std::uint8_t* newKeyB,
                OpRecords& records);

    /// Condition of one block: 3100, 3124, 3127; AccInvalid after a failure.
    int conditionOf(const KeyUse& key, int sector, int blockInSector, DataAccControl& code);
    int conditionOf(const BlockAddress& address, const KeyUse& key, DataAccControl& code);
    /// The four conditions of a sector: `sectorIndex` of an application, or number `appId`.
    int sectorConditions(TagAppType appType, short appId, int sectorIndex, const KeyUse& madKey, const KeyUse& key,
                         DataAccControl* conditions);

  private:
    int changeBlock(const BlockTypeChange& change, int sector, int blockInSector, std::uint8_t addressByte);
    int readConditions(const KeyUse& key, int sector, Trailer& trailer);
    template <typename ChangeOne>
    int changeTrailers(const TrailerChange& change, OpRecords& records, ChangeOne changeOne);

    SelectedTag& mTag;
};

#pragma once

#include "KeyUse.h"
#include "OpResultCode.h"

#include <cstdint>
#include <memory>

/// What initApp and addAppSector ask for. `appId` is the application, or without a directory the first sector.
struct AppSectorChange {
    int appId;
    const std::uint8_t* madKey;     ///< Key B of sector 0.
    const std::uint8_t* sectorKey;  ///< Key B of the sectors; null for the default of the kind of tag.
    int count;
    const std::uint8_t* newKeyA;
    const std::uint8_t* newKeyB;
    DataAccControl access;
};

/// What removeAppSector asks for.
struct AppSectorRemoval {
    int appId;
    const std::uint8_t* madKey;
    int start;  ///< Position in the application's list of sectors.
    int count;
    KeyUse key;  ///< Opens the trailers.
    const std::uint8_t* newKeyA;
    const std::uint8_t* newKeyB;
    int* statuses;  ///< One entry a sector, or null.
};

/// What became of each sector that was tried.
struct SectorResults {
    int done = 0;
    int tried = 0;
    std::unique_ptr<OpResultCode[]> records;

    void add(int sector, int status) {
        records[static_cast<std::size_t>(tried++)] = {static_cast<short>(sector), status};
    }
    int lastStatus() const { return tried > 0 ? records[static_cast<std::size_t>(tried - 1)].status : 0; }
};

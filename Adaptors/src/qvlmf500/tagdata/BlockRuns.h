#pragma once

#include "DirectoryImage.h"
#include "KeyUse.h"
#include "OpResultCode.h"

#include <cstdint>
#include <memory>

/// A run of data blocks as a host asks for it.
struct RunRequest {
    TagAppType appType;
    short appId;
    int startBlock;
    int blockCount;
    KeyUse madKey;
    bool isWrite;
};

/// Where it lies on the tag.
struct ResolvedRun {
    TagAppType appType;
    SectorList sectors;
    int firstListIndex = 0;
    int offset = 0;  ///< Block in the first sector.
    int blockCount = 0;
};

/// One record a block.
struct BlockResults {
    std::unique_ptr<OpResultCode[]> records;
    int count = 0;
    int filled = 0;
    bool anyFailed = false;
    int current = 3100;  ///< Of the wake-up behind the last call that failed.
};

/// One data block as a host names it: absolute, or a block index of an application.
struct BlockAddress {
    TagAppType appType;
    short appId;
    int block;
    KeyUse madKey;
    bool mayBeTrailer = false;
};

/// The sectors whose trailers an operation rewrites.
struct TrailerChange {
    const char* operation;  ///< For the log.
    TagAppType appType;
    short appId;  ///< Without a directory the first sector.
    int sectorCount;
    KeyUse madKey;
};

#pragma once

/// Blocks of one sector that are moved in one go, and how a failure among them is told.
struct BlockRun {
    int first;  ///< Block in sector.
    int count;
    int failure;            ///< Status of a block that could not be moved.
    const char* operation;  ///< For the log.
};

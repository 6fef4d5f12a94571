#pragma once

#include "QvlExport.h"

#include <cstdint>

/// What became of one sector or block of an operation. A host receives an array of these with its count and releases it
/// with ReaderImpl::freeMemory.
struct QVL_API OpResultCode {
    std::int16_t number;  ///< Sector or block that the entry speaks of.
    std::int32_t status;  ///< 3100 for success of that one, else the failure (ServiceStatus.h).
};

#pragma once

#include <cstddef>

/// Bytes of a Classic block, and what the reader moves at a time; bytes of the longest UID of ISO/IEC 14443-3.
inline constexpr std::size_t kBlockSize = 16;
inline constexpr std::size_t kMostUidBytes = 10;

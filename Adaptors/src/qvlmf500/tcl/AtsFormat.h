#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// The answer to select of ISO/IEC 14443-4, decoded. Pure.
struct Ats {
    std::uint8_t fsci = 2;  ///< At most 8.
    std::uint8_t ta1 = 0;
    std::uint8_t tb1 = 0;
    std::uint8_t tc1 = 2;
    bool hasTb1 = false;
    std::size_t historicalStart = 0;
    std::size_t historicalCount = 0;
};

/// Where a malformed ATS breaks: the interface byte that TL leaves no room for.
struct AtsFault {
    const char* interfaceByte = nullptr;  ///< "TA1", "TB1" or "TC1"; null for a sound ATS.
    std::size_t index = 0;
};

/// Decodes `ats`, whose first byte TL equals its size, 2 or more. An interface byte that stands right after the end
/// reads as 0, and one further on is a fault; no byte after the end is used.
AtsFault decodeAts(std::span<const std::uint8_t> ats, Ats& out);

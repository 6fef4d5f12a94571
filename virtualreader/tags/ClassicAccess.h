#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <span>

/// Sectors and access conditions of MIFARE Classic as the chip sees them. Data sheets MF1S50yyX and MF1S70yyX.

/// Who may do something, as bits.
enum KeySet : std::uint8_t { kNobody = 0, kKeyA = 1, kKeyB = 2, kKeyAOrB = 3 };

struct DataRights {
    KeySet read, write, increment;
    KeySet decrement;  ///< Also transfer and restore.
};
struct TrailerRights {
    KeySet writeKeyA, readAccessBits, writeAccessBits, readKeyB, writeKeyB;
};

/// `condition` is C1 C2 C3 as a number of three bits, C1 highest.
const DataRights& dataRights(std::uint8_t condition);
const TrailerRights& trailerRights(std::uint8_t condition);

/// Block that ends the sector of `block`: every fourth, from block 128 on every sixteenth.
int sectorTrailer(int block);
/// Which of the four conditions of its sector rules `block`; 3 is the trailer's own.
std::size_t accessGroup(int block);

/// The four conditions in a trailer of 16 bytes; none if a bit is not the complement of its copy.
std::optional<std::array<std::uint8_t, 4>> accessConditions(std::span<const std::uint8_t> trailer);

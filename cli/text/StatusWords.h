#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>

/// SW1 and SW2 (ISO/IEC 7816-4), SW1 in the high byte.
using StatusWord = std::uint16_t;

inline constexpr StatusWord kSwDone = 0x9000;
inline constexpr std::uint8_t kSw1MoreBytes = 0x61, kSw1WrongLe = 0x6C;

inline std::uint8_t sw1(StatusWord word) { return static_cast<std::uint8_t>(word >> 8); }
inline std::uint8_t sw2(StatusWord word) { return static_cast<std::uint8_t>(word & 0xFF); }

/// The last two bytes of an answer; none if it is shorter.
std::optional<StatusWord> statusWordOf(std::span<const std::uint8_t> answer);
/// Whether the card did what it was told: 9000 and 61xx.
bool isFine(StatusWord word);
/// What it means, in a few words.
std::string statusWordText(StatusWord word);

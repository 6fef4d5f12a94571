#pragma once

#include <cstdint>

/// What the card layer hands to piccExchangeBlock as time-outs, and the fastest bit rate divisor that it uses.
inline constexpr std::uint32_t kRatsTimeout = 10000;
inline constexpr std::uint32_t kPpsTimeout = 16384;
inline constexpr std::uint32_t kBlockTimeout = 0x10000;
inline constexpr std::uint8_t kFastestBaudrate = 3;

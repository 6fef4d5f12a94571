#pragma once

#include "BlockFormat.h"
#include "Qvl14443bfl.h"
#include "QvlTcl.h"

#include <algorithm>
#include <cstdint>

inline constexpr std::uint16_t kLargestFrame = 512;
inline constexpr std::uint16_t kMostReceiveRoom = kLargestFrame + kCrcSize;

/// Room for any answer of a card, so that the driver takes it in whole and its check can say what is wrong with it. A
/// card with small frames may send large ones; the reader of some drivers hands out the CRC as well.
inline std::uint16_t receiveRoom(const PiccInfo& card, const ReaderTraits& traits) {
    constexpr std::uint16_t kLeast = 256;
    return static_cast<std::uint16_t>(std::max(card.mFSD, kLeast) + (traits.blocksCarryCrc ? kCrcSize : 0));
}

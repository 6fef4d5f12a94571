#include "TagLayout.h"

#include "TagTypes.h"

namespace {

constexpr int kSmallSectors = 32, kSmall = 4, kLarge = 16;
constexpr TagLayout kStandard{16, 64, 16, true}, k4K{40, 256, 16, true}, kUltralight{1, 16, 4, false};

}  // namespace

std::optional<TagLayout> TagLayout::of(std::uint32_t tagType) {
    switch (tagType) {
    case kTagStandard:
    case kTagProX:
        return kStandard;
    case kTag4K:
        return k4K;
    case kTagUltralight:
        return kUltralight;
    default:
        return std::nullopt;
    }
}

int TagLayout::firstBlock(int sector) const {
    return sector < kSmallSectors ? sector * kSmall : kSmallSectors * kSmall + (sector - kSmallSectors) * kLarge;
}

int TagLayout::blocksOf(int sector) const {
    if (!hasTrailers) return blocks;
    return sector < kSmallSectors ? kSmall : kLarge;
}

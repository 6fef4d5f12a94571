#include "AtsText.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<unsigned, 9> kFrameSizes = {16, 24, 32, 40, 48, 64, 96, 128, 256};

}  // namespace

std::optional<AtsText> atsText(std::span<const std::uint8_t> ats) {
    constexpr std::uint8_t kFsci = 0x0F, kHasTa = 0x10, kHasTb = 0x20, kHasTc = 0x40, kNad = 0x01, kCid = 0x02;
    constexpr std::size_t kFsciWithoutT0 = 2;
    if (ats.empty() || ats[0] != ats.size()) return std::nullopt;
    if (ats.size() == 1) return AtsText{kFrameSizes[kFsciWithoutT0], true, false, {}};
    const std::uint8_t t0 = ats[1];
    AtsText text;
    text.frameSize = kFrameSizes[std::min<std::size_t>(t0 & kFsci, kFrameSizes.size() - 1)];
    std::size_t at = 2;
    at += (t0 & kHasTa) != 0;
    at += (t0 & kHasTb) != 0;
    if (t0 & kHasTc) {
        if (at >= ats.size()) return std::nullopt;
        text.takesNad = (ats[at] & kNad) != 0;
        text.takesCid = (ats[at] & kCid) != 0;
        ++at;
    }
    if (at > ats.size()) return std::nullopt;
    text.historical.assign(ats.begin() + static_cast<std::ptrdiff_t>(at), ats.end());
    return text;
}

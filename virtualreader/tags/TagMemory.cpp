#include "TagMemory.h"

#include <algorithm>

bool TagMemory::write(std::size_t offset, std::span<const std::uint8_t> data) {
    ++mWriteCount;
    const auto cut = mPower ? mPower->bytesUntilPowerLoss() : std::nullopt;
    const std::size_t stored = std::min(cut.value_or(data.size()), data.size());
    std::copy_n(data.begin(), stored, mBytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return !cut;
}

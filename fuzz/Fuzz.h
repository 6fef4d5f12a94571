#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <memory>
#include <span>
#include <vector>

using Bytes = std::vector<std::uint8_t>;

inline void require(bool holds) {
    if (!holds) std::abort();
}

/// What an operation gave out must be there to be read.
inline void touch(const void* data, std::size_t size) {
    volatile std::uint8_t sum = 0;
    for (std::size_t i = 0; i < size; ++i)
        sum = static_cast<std::uint8_t>(sum + static_cast<const std::uint8_t*>(data)[i]);
}

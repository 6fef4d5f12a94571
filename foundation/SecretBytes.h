#pragma once

#include "ByteHelpers.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// Bytes that may hold a key: wiped when they die. Not set at the start.
template <std::size_t N>
struct SecretBytes : std::array<std::uint8_t, N> {
    ~SecretBytes() { wipe(this->data(), N); }
};

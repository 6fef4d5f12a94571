#pragma once

#include <array>
#include <cstdint>
#include <span>

/// MD5 as published in RFC 1321. Serves to stir the key pool only; nothing's security rests on it.
std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> data);

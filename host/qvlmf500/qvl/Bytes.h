#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qvl {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

/// Two lower-case digits for each byte.
inline std::string toHex(ByteView bytes) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const std::uint8_t byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

namespace detail {

constexpr int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// Fills `bytes` from twice as many digits. @return false if the text is anything else.
constexpr bool fromHex(std::string_view text, std::span<std::uint8_t> bytes) {
    if (text.size() != 2 * bytes.size()) return false;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const int high = hexDigit(text[2 * i]), low = hexDigit(text[2 * i + 1]);
        if (high < 0 || low < 0) return false;
        bytes[i] = static_cast<std::uint8_t>(high << 4 | low);
    }
    return true;
}

}  // namespace detail

/// Bytes from hexadecimal digits of either case; none for any other text.
inline std::optional<Bytes> fromHex(std::string_view text) {
    Bytes bytes(text.size() / 2);
    if (!detail::fromHex(text, bytes)) return std::nullopt;
    return bytes;
}

}  // namespace qvl

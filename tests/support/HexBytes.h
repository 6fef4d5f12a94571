#pragma once

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// "00 FF 1a" as bytes; anything but digits is skipped.
inline std::vector<std::uint8_t> hex(std::string_view text) {
    std::string digits;
    for (char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c))) digits += c;
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// Bytes as "00 FF 1A".
inline std::string text(std::span<const std::uint8_t> bytes) {
    std::string out;
    for (std::uint8_t byte : bytes) {
        char digits[4];
        std::snprintf(digits, sizeof digits, "%02X", byte);
        if (!out.empty()) out += ' ';
        out += digits;
    }
    return out;
}

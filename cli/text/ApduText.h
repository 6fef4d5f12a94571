#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// The longest command APDU of ISO/IEC 7816-4: header, extended Lc, 65535 bytes of data, extended Le.
inline constexpr std::size_t kLongestApdu = 4 + 3 + 65535 + 2;

/// Reads the bytes of a command, two hexadecimal digits each, with blanks and colons anywhere.
/// @throws std::invalid_argument that names the first place (a character, counted from 1) that is wrong; and, unless
/// `raw`, for fewer bytes than the header of an APDU has.
std::vector<std::uint8_t> commandFromText(std::string_view text, bool raw);

/// The same for a line, in which # begins a comment. None for a line without a command.
std::optional<std::vector<std::uint8_t>> commandFromLine(std::string_view line, bool raw);

/// All commands of a script, one a line. @throws std::invalid_argument with file, line and place of a mistake.
std::vector<std::vector<std::uint8_t>> commandsFromFile(const std::string& name, bool raw);

/// Rows of up to 16 bytes in hexadecimal and as printable text, each after `prefix`. No newline at the end.
std::string dumpRows(std::string_view prefix, std::span<const std::uint8_t> bytes);

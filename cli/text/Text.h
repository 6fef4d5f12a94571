#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Two lower-case digits a byte.
std::string hexDigits(std::span<const std::uint8_t> bytes);

/// Digits of either case as exactly the bytes of `bytes`. @return false, with `bytes` in any state, for anything else.
bool bytesFromHex(std::string_view digits, std::span<std::uint8_t> bytes);
/// The same for any number of bytes; blanks and colons between them are skipped. None for anything else.
std::optional<std::vector<std::uint8_t>> bytesFromHex(std::string_view text);
/// Printable ASCII as it stands, a point for every other byte.
std::string printable(std::span<const std::uint8_t> bytes);
/// Numbers in ascending order, runs drawn together: "1-3, 7".
std::string numberRanges(std::span<const int> numbers);
/// "block 4" or "blocks 1-3, 7".
std::string named(const std::string& what, std::span<const int> numbers);
/// "1 block" or "3 blocks".
std::string counted(std::size_t count, const std::string& what);

/// Seconds since 1970 as "HH:MM:SS" of the local day.
std::string clockTime(std::int64_t seconds);
/// The same as "YYYY-MM-DDTHH:MM:SSZ" (ISO 8601, UTC).
std::string isoTime(std::int64_t seconds);
std::int64_t secondsNow();

/// Milliseconds of what a user gave in seconds.
std::chrono::milliseconds fromSeconds(double seconds);

/// Lines of labels and values, the values below each other; rows without a value are left out. No newline at the end.
std::string alignedRows(std::span<const std::pair<std::string, std::string>> rows);

/// Rows of cells as lines, the cells of a column below each other. No blanks at the end of a line, no newline at the
/// end.
std::string alignedTable(std::span<const std::vector<std::string>> rows);

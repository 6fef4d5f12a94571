#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <utility>

/// Two lower-case digits a byte.
std::string hexDigits(std::span<const std::uint8_t> bytes);

/// Seconds since 1970 as "HH:MM:SS" of the local day.
std::string clockTime(std::int64_t seconds);
/// The same as "YYYY-MM-DDTHH:MM:SSZ" (ISO 8601, UTC).
std::string isoTime(std::int64_t seconds);
std::int64_t secondsNow();

/// Milliseconds of what a user gave in seconds.
std::chrono::milliseconds fromSeconds(double seconds);

/// Lines of labels and values, the values below each other; rows without a value are left out. No newline at the end.
std::string alignedRows(std::span<const std::pair<std::string, std::string>> rows);

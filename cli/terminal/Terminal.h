#pragma once

#include <string_view>

/// Standard error as a place for a line that changes.
namespace terminal {

inline constexpr std::string_view kEraseLine = "\r\033[K";

/// False for one that cannot erase a line as well.
bool isThere();
/// Text that nobody depends on: a failure to write it is no reason to stop.
void say(std::string_view text);

}  // namespace terminal

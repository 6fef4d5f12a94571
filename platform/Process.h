#pragma once

#include <cstdint>

namespace platform {

/// A number that stays the same for the life of a process and is another one in each child that it forks. What is
/// opened in one generation belongs to that process: an object that remembers the number of its opening and finds
/// another one has come along into a child and must not talk on what it holds. Any thread, never fails, asks the
/// system nothing.
///
/// What an implementation owes: every fork after the first call is noticed.
std::uint32_t processGeneration() noexcept;

}  // namespace platform

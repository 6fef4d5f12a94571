#pragma once

#include <cstdint>
#include <span>
#include <string>

/// Writes a file that only its owner may read, or says in words why not; empty for success.
std::string writePrivateFile(const std::string& name, std::span<const std::uint8_t> bytes);

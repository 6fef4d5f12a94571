#pragma once

#include <cstdint>
#include <span>
#include <string>

/// Writes a file that only its owner may read, or says in words why not; empty for success. An existing file is
/// replaced as a whole or stays as it is. Anything else, such as a pipe, is written to directly.
std::string writePrivateFile(const std::string& name, std::span<const std::uint8_t> bytes);

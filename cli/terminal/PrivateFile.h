#pragma once

#include <cstdint>
#include <span>
#include <string>

/// Writes a file that only its owner may read, or says in words why not; empty for success. A file that is there is
/// replaced as a whole or stays as it is; what is no file, such as a pipe, is written to.
std::string writePrivateFile(const std::string& name, std::span<const std::uint8_t> bytes);

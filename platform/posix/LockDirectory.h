#pragma once

#include <string>

namespace platform {

/// Where the lock files are, the same in every process, whatever its rights: `run`/qvlreader if only root and its group
/// may write there, else `run`/lock if everybody may, else /tmp.
std::string systemLockDirectory(const std::string& run = "/run");

}  // namespace platform

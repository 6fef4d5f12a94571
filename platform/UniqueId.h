#pragma once

#include <string>

namespace platform {

/// A new identifier as 36 characters of text in lower case (RFC 4122, version 4); empty if the system gives no
/// randomness.
std::string newUniqueId();

}  // namespace platform

#pragma once

#include "ServiceEnums.h"
#include "Trailer.h"

#include <cstdint>

/// A key and how to use it. The bytes are the caller's; null goes as far as the driver's key coding, which refuses it.
struct KeyUse {
    const std::uint8_t* key;
    AuthKeyMode mode;
};

/// The key of a directory: without one of the caller's the public key A, whatever mode was asked for.
inline KeyUse directoryKey(const std::uint8_t* key, AuthKeyMode mode) {
    return key != nullptr ? KeyUse{key, mode} : KeyUse{MadKeyA.data(), AuthKeyA};
}

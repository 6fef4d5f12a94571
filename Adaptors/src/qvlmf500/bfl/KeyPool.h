#pragma once

#include "SecretBytes.h"

#include <cstdint>

using KeyValue = SecretBytes<16>;

/// The process-wide pool of 16 bytes from which the challenges of the link key agreement come. Any thread may use it.

/// Fills the pool from the time and stirs it. Each driver does so when it is made.
void seedKeyPool();
/// Stirs the pool and copies its 16 bytes to `out`.
void nextKeyPoolValue(std::uint8_t* out);

/// Derives the confirmation from a challenge of 16 bytes: each byte is rotated within itself by the low three bits of
/// the input byte before it (the first byte by its own), to the right if its top bit is set, else to the left.
KeyValue rotateKey(const std::uint8_t* value);

/// The interval between two key changes of a link that is chosen in this second, 1 to 168 commands.
std::int16_t rekeyIntervalAt(std::uint32_t second);
std::int16_t nextRekeyInterval();

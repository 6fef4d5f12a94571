#pragma once

#include <cstddef>
#include <cstdint>

/// Byte forms of the values on a tag.

/// Low byte, then high byte of an application id. @return false for an id below 6, and then nothing is written.
bool aidToBytes(std::uint16_t id, std::uint8_t* out);
/// The signed value of a value block, from its inverted copy in bytes 4 to 7, little-endian.
std::int32_t decodeValue(const std::uint8_t* block);
/// Four bytes, little-endian, two's complement.
void valueToBytes(std::int32_t value, std::uint8_t* out);
/// Quotient, plus 1 when the division leaves a remainder. A divisor of 0 gives 0.
std::int16_t ceilDiv(std::int16_t dividend, std::int16_t divisor);

/// New copy of `count` bytes, which the caller deletes as an array. Null for null bytes, for none, and without memory.
std::uint8_t* newCopy(const std::uint8_t* bytes, std::size_t count);

/// Overwrites bytes that held a key, so that the compiler cannot leave it out.
void wipe(void* bytes, std::size_t count);

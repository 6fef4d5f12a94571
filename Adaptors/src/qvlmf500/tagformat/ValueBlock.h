#pragma once

#include <cstdint>

/// The value block of Mifare Classic, data sheet MF1S50yyX: the value, its complement and the value again, each 32 bits
/// little-endian, then the address byte, plain and inverted, twice. Decoding: decodeValue (ByteHelpers.h). Pure.

/// Writes 16 bytes.
void encodeValueBlock(std::int32_t value, std::uint8_t address, std::uint8_t* block);
/// True when value, complement and copy agree. The address bytes are ignored.
bool isSoundValueBlock(const std::uint8_t* block);

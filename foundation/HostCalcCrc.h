#pragma once

#include <cstdint>

/// The two checksums of the tag world.
/// mode 0: CRC_A of ISO/IEC 14443-3 (polynomial 0x8408 reflected, preset 0x6363), two bytes, low byte first.
/// mode 0x80: CRC of the MIFARE application directory, AN10787 (polynomial 0x1D, preset 0xC7), one byte.
/// Any other mode, and null data with a length, writes nothing.
void HostCalcCrc(std::uint8_t mode, std::uint32_t length, const std::uint8_t* data, std::uint8_t* result);

#include "HostCalcCrc.h"

namespace {

constexpr std::uint8_t kModeTypeA = 0x00;
constexpr std::uint8_t kModeDirectory = 0x80;

std::uint16_t crcTypeA(std::uint32_t length, const std::uint8_t* data) {
    std::uint32_t crc = 0x6363;
    for (std::uint32_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 1 ? crc >> 1 ^ 0x8408 : crc >> 1;
    }
    return static_cast<std::uint16_t>(crc);
}

std::uint8_t crcDirectory(std::uint32_t length, const std::uint8_t* data) {
    std::uint32_t crc = 0xC7;
    for (std::uint32_t i = 0; i < length; ++i) {
        crc ^= data[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 0x80 ? (crc << 1 ^ 0x1D) & 0xFF : crc << 1;
    }
    return static_cast<std::uint8_t>(crc);
}

}  // namespace

void HostCalcCrc(std::uint8_t mode, std::uint32_t length, const std::uint8_t* data, std::uint8_t* result) {
    if (!result || (!data && length > 0)) return;
    if (mode == kModeTypeA) {
        const std::uint16_t crc = crcTypeA(length, data);
        result[0] = static_cast<std::uint8_t>(crc);
        result[1] = static_cast<std::uint8_t>(crc >> 8);
    } else if (mode == kModeDirectory) {
        result[0] = crcDirectory(length, data);
    }
}

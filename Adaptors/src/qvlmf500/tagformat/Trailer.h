#pragma once

#include "SecretBytes.h"

#include <array>
#include <cstdint>

/// A sector trailer of Mifare Classic: key A (0 to 5), access bytes (6 to 8), general purpose byte (9), key B (10 to
/// 15). Holds keys, so it wipes itself. Pure.
class Trailer : public SecretBytes<16> {
  public:
    static constexpr std::size_t kKeySize = 6;
    static constexpr std::size_t kAccess = 6;
    static constexpr std::size_t kGeneralPurpose = 9;
    static constexpr std::size_t kKeyB = 10;

    /// All zero.
    Trailer() { fill(0); }
    Trailer(const std::uint8_t* keyA, const std::array<std::uint8_t, 3>& accessBytes, std::uint8_t generalPurpose,
            const std::uint8_t* keyB);

    std::uint8_t* access() { return data() + kAccess; }
    const std::uint8_t* access() const { return data() + kAccess; }
    std::uint8_t& generalPurpose() { return (*this)[kGeneralPurpose]; }
    void setKeyA(const std::uint8_t* key);
    void setKeyB(const std::uint8_t* key);
};

/// The keys that the system knows by itself: as delivered, and the public key A of a directory (AN10787).
inline constexpr std::array<std::uint8_t, 6> FactoryKey{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
inline constexpr std::array<std::uint8_t, 6> MadKeyA{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
/// General purpose byte of a tag without directory.
inline constexpr std::uint8_t kPlainGeneralPurpose = 0x69;

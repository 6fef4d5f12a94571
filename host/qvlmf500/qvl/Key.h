#pragma once

#include "Bytes.h"
#include "Error.h"
#include "ServiceEnums.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <optional>

namespace qvl {

/// A key of Mifare Classic: six bytes, which it wipes at its end.
class Key {
  public:
    static constexpr std::size_t kSize = 6;

    explicit Key(std::span<const std::uint8_t, kSize> bytes) { std::ranges::copy(bytes, mBytes.begin()); }
    Key(const Key&) = default;
    Key& operator=(const Key&) = default;
    ~Key() { ::explicit_bzero(mBytes.data(), mBytes.size()); }

    /// From 12 hexadecimal digits. @throws Error (badArgument), whose text does not show the digits.
    static Key parse(std::string_view digits) {
        Key key = factory();
        if (!detail::fromHex(digits, key.mBytes))
            throw Error(Reason::badArgument,
                        "a key is 12 hexadecimal digits; this has " + std::to_string(digits.size()) + " characters");
        return key;
    }
    /// FFFFFFFFFFFF, with which tags are delivered.
    static Key factory() { return Key(std::array<std::uint8_t, kSize>{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}); }
    /// A0A1A2A3A4A5, the public key A of an application directory (AN10787).
    static Key directory() { return Key(std::array<std::uint8_t, kSize>{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5}); }

    std::span<const std::uint8_t, kSize> bytes() const { return mBytes; }
    /// All zero, as a key A reads from a tag: most likely not a key at all.
    bool isBlank() const { return std::ranges::count(mBytes, 0) == static_cast<std::ptrdiff_t>(kSize); }
    friend bool operator==(const Key&, const Key&) = default;

  private:
    std::array<std::uint8_t, kSize> mBytes;
};

/// Which key of a sector.
enum class KeyType : std::int32_t { a = AuthKeyA, b = AuthKeyB };

/// A key and as which of a sector's two it is used.
struct Login {
    Key key = Key::factory();
    KeyType type = KeyType::a;
};

/// The two keys that a sector is to have.
struct KeyPair {
    Key a;
    Key b;
};

}  // namespace qvl

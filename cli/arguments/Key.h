#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

/// A key of a sector: six bytes, which wipe themselves. Nothing prints them.
class Key {
  public:
    static constexpr std::size_t kSize = 6;

    explicit Key(std::span<const std::uint8_t, kSize> bytes);
    Key(const Key&) = default;
    Key& operator=(const Key&) = default;
    ~Key();

    /// As tags are delivered.
    static Key factory();
    /// The public key A of an application directory (AN10787).
    static Key directory();

    const std::uint8_t* data() const { return mBytes.data(); }
    /// For the operations of the library that do not promise to leave it alone.
    std::uint8_t* data() { return mBytes.data(); }
    /// All zero, as key A reads from a tag: most likely not a key at all.
    bool isBlank() const;

  private:
    std::array<std::uint8_t, kSize> mBytes;
};

inline const std::uint8_t* bytesOrNull(const std::optional<Key>& key) { return key ? key->data() : nullptr; }
inline std::uint8_t* bytesOrNull(std::optional<Key>& key) { return key ? key->data() : nullptr; }

/// A key as users give it: 12 hexadecimal digits, "factory", "mad", "@FILE" for the first line of a file, or "env:NAME"
/// for an environment variable. The last two keep it off the command line, which other users of the machine can see.
/// @throws std::invalid_argument, whose text says what is wrong and never shows a key.
Key keyFromText(const std::string& text);

/// The same for digits alone.
Key keyFromDigits(std::string_view digits);

/// A text that may hold keys; it wipes itself.
class SecretText {
  public:
    SecretText() = default;
    ~SecretText();
    SecretText(const SecretText&) = delete;
    SecretText& operator=(const SecretText&) = delete;

    /// All of a file of at most `limit` bytes. @throws std::invalid_argument.
    void readFile(const std::string& name, std::size_t limit);

    std::string text;
};

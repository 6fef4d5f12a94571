#pragma once

#include <cstdint>
#include <string>

/// Bytes as text and back. Two lower-case digits a byte.

/// Writes 2 * count digits and a NUL to `out`, which holds 2 * count + 1 bytes and is cleared first.
void hexDump(const std::uint8_t* bytes, std::uint32_t count, char* out);
/// The same in a new buffer that the caller deletes as an array; null for null bytes.
char* hexEncode(const std::uint8_t* bytes, std::uint32_t count);
/// Turns text into bytes: `count` = half the text's length, an odd digit at the end is dropped. `out` holds that many
/// bytes and is cleared first. A character that is no digit counts as 23, cut to the byte. @return count
std::uint32_t hexDecode(const char* text, std::uint32_t& count, std::uint8_t* out);
/// Value of a hexadecimal digit in either case; 23 for any other character.
std::uint8_t hexDigit(char digit);

/// The digits of at most 1024 bytes as a log record shows them; needs no memory. From byte `shown` on each byte stands
/// as
/// "**": what follows may be a key.
class HexLine {
  public:
    HexLine(const std::uint8_t* bytes, std::size_t count, std::size_t shown = SIZE_MAX);
    const char* text() const { return mText; }

  private:
    static constexpr std::size_t kMostBytes = 1024;
    char mText[2 * kMostBytes + 1];
};

/// The same text for people; a null pointer gives an empty text.
std::string hexText(const std::uint8_t* bytes, std::size_t count);

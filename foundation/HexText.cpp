#include "HexText.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr char kDigits[] = "0123456789abcdef";
constexpr std::uint8_t kNoDigit = 23;

void writeDigits(const std::uint8_t* bytes, std::size_t count, char* out) {
    for (std::size_t i = 0; i < count; ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 0x0F];
    }
}

}  // namespace

void hexDump(const std::uint8_t* bytes, std::uint32_t count, char* out) {
    std::memset(out, 0, 2 * std::size_t{count} + 1);
    if (bytes) writeDigits(bytes, count, out);
}

char* hexEncode(const std::uint8_t* bytes, std::uint32_t count) {
    if (!bytes) return nullptr;
    auto* text = new (std::nothrow) char[2 * std::size_t{count} + 1];
    if (text) hexDump(bytes, count, text);
    return text;
}

std::uint32_t hexDecode(const char* text, std::uint32_t& count, std::uint8_t* out) {
    const std::size_t pairs = text ? std::strlen(text) / 2 : 0;
    count = static_cast<std::uint32_t>(std::min<std::size_t>(pairs, std::numeric_limits<std::uint32_t>::max()));
    for (std::size_t i = 0; i < count; ++i)
        out[i] = static_cast<std::uint8_t>(hexDigit(text[2 * i]) * 16 + hexDigit(text[2 * i + 1]));
    return count;
}

std::uint8_t hexDigit(char digit) {
    if (digit >= '0' && digit <= '9') return static_cast<std::uint8_t>(digit - '0');
    if (digit >= 'a' && digit <= 'f') return static_cast<std::uint8_t>(digit - 'a' + 10);
    if (digit >= 'A' && digit <= 'F') return static_cast<std::uint8_t>(digit - 'A' + 10);
    return kNoDigit;
}

std::string hexText(const std::uint8_t* bytes, std::size_t count) {
    std::string text(bytes ? 2 * count : 0, '\0');
    if (bytes) writeDigits(bytes, count, text.data());
    return text;
}

HexLine::HexLine(const std::uint8_t* bytes, std::size_t count, std::size_t shown) {
    count = bytes != nullptr ? std::min(count, kMostBytes) : 0;
    shown = std::min(shown, count);
    hexDump(bytes, static_cast<std::uint32_t>(shown), mText);
    std::fill(mText + 2 * shown, mText + 2 * count, '*');
    mText[2 * count] = '\0';
}

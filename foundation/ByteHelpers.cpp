#include "ByteHelpers.h"

#include <cstring>
#include <new>

namespace {
constexpr std::uint16_t kFirstApplicationId = 6;
constexpr std::size_t kInvertedCopy = 4;  // where a value block keeps its inverted copy
}  // namespace

bool aidToBytes(std::uint16_t id, std::uint8_t* out) {
    if (id < kFirstApplicationId) return false;
    out[0] = static_cast<std::uint8_t>(id);
    out[1] = static_cast<std::uint8_t>(id >> 8);
    return true;
}

std::int32_t decodeValue(const std::uint8_t* block) {
    std::uint32_t inverted = 0;
    for (std::size_t i = 4; i-- > 0;)
        inverted = inverted << 8 | block[kInvertedCopy + i];
    return static_cast<std::int32_t>(~inverted);
}

void valueToBytes(std::int32_t value, std::uint8_t* out) {
    const auto bits = static_cast<std::uint32_t>(value);
    for (std::size_t i = 0; i < 4; ++i)
        out[i] = static_cast<std::uint8_t>(bits >> 8 * i);
}

std::int16_t ceilDiv(std::int16_t dividend, std::int16_t divisor) {
    if (divisor == 0) return 0;
    const int quotient = dividend / divisor;
    return static_cast<std::int16_t>(dividend % divisor ? quotient + 1 : quotient);
}

std::uint8_t* newCopy(const std::uint8_t* bytes, std::size_t count) {
    if (!bytes || count == 0) return nullptr;
    auto* copy = new (std::nothrow) std::uint8_t[count];
    if (copy) std::memcpy(copy, bytes, count);
    return copy;
}

void wipe(void* bytes, std::size_t count) {
    if (count == 0) return;
    std::memset(bytes, 0, count);
    asm volatile("" : : "r"(bytes) : "memory");  // the stores count as read, so they stay
}

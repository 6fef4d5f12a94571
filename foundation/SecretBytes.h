#pragma once

#include "ByteHelpers.h"

#include <array>
#include <cstddef>
#include <cstdint>

/// Wipes bytes of somebody else's at the end of its scope.
class WipedAtEnd {
  public:
    WipedAtEnd(void* bytes, std::size_t count) : mBytes(bytes), mCount(count) {}
    ~WipedAtEnd() { wipe(mBytes, mCount); }
    WipedAtEnd(const WipedAtEnd&) = delete;
    WipedAtEnd& operator=(const WipedAtEnd&) = delete;

  private:
    void* mBytes;
    std::size_t mCount;
};

/// Bytes that may hold a key: wiped when they die. Not set at the start.
template <std::size_t N>
struct SecretBytes : std::array<std::uint8_t, N> {
    ~SecretBytes() { wipe(this->data(), N); }
};

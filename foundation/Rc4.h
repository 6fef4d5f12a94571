#pragma once

#include <array>
#include <cstdint>
#include <span>

/// The RC4 key stream, as published: permutation of 256 bytes and two index bytes. The stream runs on from call to
/// call. Wiped when it ends.
class Rc4 {
  public:
    /// The stream of no key: the identity permutation. Key it before use.
    Rc4();
    ~Rc4();
    Rc4(const Rc4&) = default;
    Rc4& operator=(const Rc4&) = default;

    /// Runs the key schedule and starts the stream anew. `key` has 1 to 256 bytes.
    void setKey(std::span<const std::uint8_t> key);
    /// XORs the next bytes of the stream over `data`.
    void crypt(std::span<std::uint8_t> data);

  private:
    std::array<std::uint32_t, 256> mPermutation;
    std::uint8_t mI = 0;
    std::uint8_t mJ = 0;
};

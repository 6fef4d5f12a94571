#pragma once

#include "Rc4.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// What the host links of the readers share: the keys, and the RC4 stream that scrambles.

constexpr std::size_t kLinkKeyBytes = 16;
using LinkKey = std::array<std::uint8_t, kLinkKeyBytes>;

/// Derives the answer to a challenge. Byte i is byte i of the challenge, turned within the byte by the low three bits
/// of the byte before it (of itself for byte 0): to the right if its top bit is set, else to the left.
LinkKey deriveLinkKey(const LinkKey& challenge);

class LinkStream {
  public:
    /// Starts the stream with a new key; zeros put the link in the clear.
    void setKey(const LinkKey& key);
    bool isKeyed() const { return mKeyed; }
    /// Scrambles or unscrambles in place.
    void crypt(std::span<std::uint8_t> data);
    /// Lets the stream run on by one byte, which puts it out of step with the host.
    void skip();

  private:
    Rc4 mCipher;
    bool mKeyed = false;
};

#pragma once

#include "Rc4.h"
#include "SecretBytes.h"

#include <cstdint>

/// Key and RC4 state of a scrambled link. Sixteen zero bytes mean that there is no key; the link then runs in the
/// clear. One key stream serves both directions and runs on from frame to frame; setKey starts it anew.
class LinkCipher {
  public:
    static constexpr std::size_t kKeySize = 16;

    LinkCipher() { mKey.fill(0); }

    /// Copies 16 bytes and starts the stream; null sets the zero key.
    void setKey(const std::uint8_t* key);
    /// Scrambles or unscrambles in place, which is the same. Nothing happens without a key or with `len` below 1.
    void crypt(std::uint8_t* data, int len);
    bool hasKey() const { return mHasKey; }

  private:
    SecretBytes<kKeySize> mKey;
    Rc4 mStream;
    bool mHasKey = false;
};

/// True if all 16 bytes are zero: no key.
bool isZeroKey(const std::uint8_t* key);

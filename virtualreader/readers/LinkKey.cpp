#include "LinkKey.h"

#include <algorithm>
#include <bit>

LinkKey deriveLinkKey(const LinkKey& challenge) {
    LinkKey derived{};
    for (std::size_t i = 0; i < derived.size(); ++i) {
        const int bits = challenge[i == 0 ? 0 : i - 1] & 7;
        derived[i] = (challenge[i] & 0x80) ? std::rotr(challenge[i], bits) : std::rotl(challenge[i], bits);
    }
    return derived;
}

void LinkStream::setKey(const LinkKey& key) {
    mKeyed = std::ranges::any_of(key, [](std::uint8_t byte) { return byte != 0; });
    if (mKeyed) mCipher.setKey(key);
}

void LinkStream::crypt(std::span<std::uint8_t> data) {
    if (mKeyed) mCipher.crypt(data);
}

void LinkStream::skip() {
    std::uint8_t skipped = 0;
    crypt({&skipped, 1});
}

#include "LinkCipher.h"

#include <algorithm>

bool isZeroKey(const std::uint8_t* key) {
    return std::all_of(key, key + LinkCipher::kKeySize, [](std::uint8_t b) { return b == 0; });
}

void LinkCipher::setKey(const std::uint8_t* key) {
    if (key == nullptr)
        mKey.fill(0);
    else
        std::copy_n(key, kKeySize, mKey.begin());
    mHasKey = !isZeroKey(mKey.data());
    if (mHasKey) mStream.setKey(mKey);
}

void LinkCipher::crypt(std::uint8_t* data, int len) {
    if (mHasKey && len >= 1) mStream.crypt({data, static_cast<std::size_t>(len)});
}

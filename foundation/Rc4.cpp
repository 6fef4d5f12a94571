#include "Rc4.h"

#include "ByteHelpers.h"

#include <numeric>
#include <utility>

Rc4::Rc4() { std::iota(mPermutation.begin(), mPermutation.end(), std::uint8_t{0}); }

Rc4::~Rc4() {
    wipe(mPermutation.data(), mPermutation.size());
    wipe(&mI, sizeof mI);
    wipe(&mJ, sizeof mJ);
}

void Rc4::setKey(std::span<const std::uint8_t> key) {
    std::iota(mPermutation.begin(), mPermutation.end(), std::uint8_t{0});
    mI = mJ = 0;
    if (key.empty()) return;
    std::uint8_t j = 0;
    for (std::size_t i = 0; i < mPermutation.size(); ++i) {
        j = static_cast<std::uint8_t>(j + mPermutation[i] + key[i % key.size()]);
        std::swap(mPermutation[i], mPermutation[j]);
    }
}

void Rc4::crypt(std::span<std::uint8_t> data) {
    for (std::uint8_t& byte : data) {
        mI = static_cast<std::uint8_t>(mI + 1);
        mJ = static_cast<std::uint8_t>(mJ + mPermutation[mI]);
        std::swap(mPermutation[mI], mPermutation[mJ]);
        const auto index = static_cast<std::uint8_t>(mPermutation[mI] + mPermutation[mJ]);
        byte = static_cast<std::uint8_t>(byte ^ mPermutation[index]);
    }
}

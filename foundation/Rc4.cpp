#include "Rc4.h"

#include "ByteHelpers.h"

#include <numeric>
#include <utility>

Rc4::Rc4() { std::iota(mPermutation.begin(), mPermutation.end(), std::uint32_t{0}); }

Rc4::~Rc4() {
    wipe(mPermutation.data(), sizeof mPermutation);
    wipe(&mI, sizeof mI);
    wipe(&mJ, sizeof mJ);
}

void Rc4::setKey(std::span<const std::uint8_t> key) {
    std::iota(mPermutation.begin(), mPermutation.end(), std::uint32_t{0});
    mI = mJ = 0;
    if (key.empty()) return;
    std::uint8_t j = 0;
    auto next = key.begin();
    for (std::uint32_t& entry : mPermutation) {
        j = static_cast<std::uint8_t>(j + entry + *next);
        if (++next == key.end()) next = key.begin();
        std::swap(entry, mPermutation[j]);
    }
}

// Works on copies of the indices: the data might lie anywhere, so members would be written back for each byte.
void Rc4::crypt(std::span<std::uint8_t> data) {
    std::uint8_t i = mI;
    std::uint8_t j = mJ;
    for (std::uint8_t& byte : data) {
        const std::uint32_t a = mPermutation[++i];
        j = static_cast<std::uint8_t>(j + a);
        const std::uint32_t b = mPermutation[j];
        mPermutation[i] = b;
        mPermutation[j] = a;
        byte = static_cast<std::uint8_t>(byte ^ mPermutation[static_cast<std::uint8_t>(a + b)]);
    }
    mI = i;
    mJ = j;
}

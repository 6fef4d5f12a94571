#include "Trailer.h"

#include <algorithm>

Trailer::Trailer(const std::uint8_t* keyA, const std::array<std::uint8_t, 3>& accessBytes, std::uint8_t generalPurpose,
                 const std::uint8_t* keyB) {
    setKeyA(keyA);
    std::ranges::copy(accessBytes, access());
    this->generalPurpose() = generalPurpose;
    setKeyB(keyB);
}

void Trailer::setKeyA(const std::uint8_t* key) { std::copy_n(key, kKeySize, data()); }

void Trailer::setKeyB(const std::uint8_t* key) { std::copy_n(key, kKeySize, data() + kKeyB); }

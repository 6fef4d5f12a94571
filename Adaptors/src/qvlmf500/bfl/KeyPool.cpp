#include "KeyPool.h"

#include "Clock.h"
#include "Md5.h"

#include <algorithm>
#include <array>
#include <bit>
#include <mutex>
#include <random>

namespace {

constexpr std::size_t kValueSize = 16;
constexpr std::uint32_t kLongestInterval = 168;

std::mutex& poolMutex() {
    static std::mutex mutex;
    return mutex;
}

std::array<std::uint8_t, kValueSize> gPool{};

}  // namespace

void seedKeyPool() {
    std::minstd_rand random(platform::wallSeconds());
    const std::lock_guard lock(poolMutex());
    for (std::size_t word = 0; word < kValueSize / 2; ++word) {
        const auto value = random();
        gPool[2 * word] = static_cast<std::uint8_t>(value);
        gPool[2 * word + 1] = static_cast<std::uint8_t>(value >> 8);
    }
    gPool = md5(gPool);
}

void nextKeyPoolValue(std::uint8_t* out) {
    const std::lock_guard lock(poolMutex());
    gPool = md5(gPool);
    std::ranges::copy(gPool, out);
}

KeyValue rotateKey(const std::uint8_t* value) {
    KeyValue rotated;
    for (std::size_t i = 0; i < kValueSize; ++i) {
        const int bits = value[i == 0 ? 0 : i - 1] & 0x07;
        const bool toTheRight = (value[i] & 0x80) != 0;
        rotated[i] = toTheRight ? std::rotr(value[i], bits) : std::rotl(value[i], bits);
    }
    return rotated;
}

std::int16_t nextRekeyInterval() { return rekeyIntervalAt(platform::wallSeconds()); }

std::int16_t rekeyIntervalAt(std::uint32_t second) {
    std::minstd_rand random(second);
    return static_cast<std::int16_t>(random() % kLongestInterval + 1);
}

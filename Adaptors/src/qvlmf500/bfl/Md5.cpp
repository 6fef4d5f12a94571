#include "Md5.h"

#include <algorithm>
#include <bit>
#include <cstddef>

namespace {

constexpr std::size_t kBlockSize = 64;
using State = std::array<std::uint32_t, 4>;

// RFC 1321, 3.4: the integer part of 4294967296 * abs(sin(i + 1)).
constexpr std::array<std::uint32_t, 64> kSines{
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391};

constexpr int kShifts[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

std::uint32_t word(const std::uint8_t* block, std::size_t index) {
    const std::uint8_t* b = block + 4 * index;
    return static_cast<std::uint32_t>(b[0]) | static_cast<std::uint32_t>(b[1]) << 8 |
           static_cast<std::uint32_t>(b[2]) << 16 | static_cast<std::uint32_t>(b[3]) << 24;
}

void digestBlock(State& state, const std::uint8_t* block) {
    auto [a, b, c, d] = state;
    for (std::size_t i = 0; i < 64; ++i) {
        const std::size_t round = i / 16;
        std::uint32_t mix = 0;
        std::size_t from = 0;
        switch (round) {
        case 0:
            mix = (b & c) | (~b & d), from = i;
            break;
        case 1:
            mix = (d & b) | (~d & c), from = (5 * i + 1) % 16;
            break;
        case 2:
            mix = b ^ c ^ d, from = (3 * i + 5) % 16;
            break;
        default:
            mix = c ^ (b | ~d), from = (7 * i) % 16;
            break;
        }
        const std::uint32_t rotated = std::rotl(a + mix + kSines[i] + word(block, from), kShifts[round][i % 4]);
        a = d;
        d = c;
        c = b;
        b += rotated;
    }
    state[0] += a;
    state[1] += b;
    state[2] += c;
    state[3] += d;
}

}  // namespace

std::array<std::uint8_t, 16> md5(std::span<const std::uint8_t> data) {
    State state{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    const std::size_t whole = data.size() / kBlockSize * kBlockSize;
    for (std::size_t at = 0; at < whole; at += kBlockSize)
        digestBlock(state, data.data() + at);

    std::array<std::uint8_t, 2 * kBlockSize> tail{};
    const std::size_t rest = data.size() - whole;
    std::ranges::copy(data.subspan(whole), tail.begin());
    tail[rest] = 0x80;
    const std::size_t tailSize = rest < kBlockSize - 8 ? kBlockSize : 2 * kBlockSize;
    const std::uint64_t bits = std::uint64_t{data.size()} * 8;
    for (std::size_t i = 0; i < 8; ++i)
        tail[tailSize - 8 + i] = static_cast<std::uint8_t>(bits >> (8 * i));
    for (std::size_t at = 0; at < tailSize; at += kBlockSize)
        digestBlock(state, tail.data() + at);

    std::array<std::uint8_t, 16> digest{};
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<std::uint8_t>(state[i / 4] >> (8 * (i % 4)));
    return digest;
}

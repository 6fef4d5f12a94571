// Polls the empty field of a reader without link key by bare frames: a write and a read, nothing checked but the number
// of bytes. What the library costs is the difference to this. Some host must have configured the reader before, which
// would otherwise wait for a tag.
//
//     bench_bare LINE POLLS

#include "Times.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr std::array<std::uint8_t, 11> kListTargets{0x00, 0x00, 0xFF, 0x04, 0xFC, 0xD4, 0x4A, 0x01, 0x00, 0xE1, 0x00};
constexpr std::size_t kAckAndReply = 6 + 10;
constexpr cc_t kLongestSilence = 10;  // in tenths of a second

/// A function of its own in the profile.
[[gnu::noinline]] bool exchange(int line) {
    if (::write(line, kListTargets.data(), kListTargets.size()) != static_cast<ssize_t>(kListTargets.size()))
        return false;
    std::array<std::uint8_t, kAckAndReply> answer;
    for (std::size_t got = 0; got < answer.size();) {
        const ssize_t count = ::read(line, answer.data() + got, answer.size() - got);
        if (count <= 0) return false;
        got += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return std::fputs("usage: bench_bare LINE POLLS\n", stderr), 2;
    const int line = ::open(argv[1], O_RDWR | O_NOCTTY);
    termios settings{};
    if (line < 0 || ::tcgetattr(line, &settings) != 0) return std::perror(argv[1]), 1;
    ::cfmakeraw(&settings);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = kLongestSilence;
    ::tcsetattr(line, TCSANOW, &settings);
    Times times(std::strtoul(argv[2], nullptr, 10));
    if (timeRounds(times, [line] { return exchange(line); }) != times.size())
        return std::fputs("bench_bare: the reader does not answer\n", stderr), 1;
    printTimes(times);
    return 0;
}

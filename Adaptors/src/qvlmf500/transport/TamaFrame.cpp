#include "TamaFrame.h"

#include <algorithm>
#include <array>
#include <numeric>

namespace tama {

namespace {

constexpr std::array<std::uint8_t, kAckSize> kAck{0x00, 0x00, 0xFF, 0x00, 0xFF, 0x00};
constexpr std::array<std::uint8_t, kErrorSize> kError{0x00, 0x00, 0xFF, 0x01, 0xFF, 0x7F, 0x81, 0x00};

std::uint8_t sum(std::span<const std::uint8_t> bytes) {
    return std::accumulate(bytes.begin(), bytes.end(), std::uint8_t{0},
                           [](std::uint8_t a, std::uint8_t b) { return static_cast<std::uint8_t>(a + b); });
}

std::uint8_t negative(std::uint8_t value) { return static_cast<std::uint8_t>(0x100 - value); }

}  // namespace

std::size_t buildFrame(std::span<const std::uint8_t> command, std::span<std::uint8_t> out) {
    const std::size_t size = command.size() + kFrameOverhead;
    if (command.empty() || command.size() > kLongestCommand || size > out.size()) return 0;
    const auto len = static_cast<std::uint8_t>(command.size() + 1);
    out[0] = 0x00;
    out[1] = 0x00;
    out[2] = 0xFF;
    out[kLen] = len;
    out[kLcs] = negative(len);
    out[kTfi] = kToReader;
    std::copy(command.begin(), command.end(), out.begin() + kCode);
    out[size - 2] = negative(sum(out.subspan(kTfi, len)));
    out[size - 1] = 0x00;
    return size;
}

bool isAck(std::span<const std::uint8_t> frame) { return std::ranges::equal(frame, kAck); }

bool isError(std::span<const std::uint8_t> frame) { return std::ranges::equal(frame, kError); }

bool isInformation(std::span<const std::uint8_t> frame) {
    return frame.size() > kData && frame[0] == 0x00 && frame[1] == 0x00 && frame[2] == 0xFF && frame[kLen] >= 2 &&
           static_cast<std::uint8_t>(frame[kLen] + frame[kLcs]) == 0 && frame.size() == frame[kLen] + std::size_t{7} &&
           frame[kTfi] == kToHost;
}

std::span<std::uint8_t> scrambledPart(std::span<std::uint8_t> frame) {
    if (frame.size() <= kData || frame[kLen] <= 2) return {};
    const std::size_t length = static_cast<std::size_t>(frame[kLen]) - 2;
    return frame.subspan(kData, std::min(length, frame.size() - kData));
}

std::uint8_t checksumOf(std::span<const std::uint8_t> frame) {
    return sum(frame.subspan(kTfi, static_cast<std::size_t>(frame[kLen]) + 1));
}

Fault checkReply(std::span<const std::uint8_t> buffer, std::size_t received, std::span<const std::uint8_t> sent,
                 bool checkStatus) {
    if (buffer[0] != 0x00 || buffer[1] != 0x00 || buffer[2] != 0xFF) return Fault::start;
    const std::uint8_t len = buffer[kLen];
    if (static_cast<std::uint8_t>(len + buffer[kLcs]) != 0) return Fault::head;
    if (received != std::size_t{len} + 7) return Fault::size;
    if (checksumOf(buffer) != 0) return Fault::checksum;
    if (buffer[kTfi] != static_cast<std::uint8_t>(sent[kTfi] + 1) ||
        buffer[kCode] != static_cast<std::uint8_t>(sent[kCode] + 1))
        return Fault::otherCommand;
    if (!checkStatus || (sent[kCode] != kInDataExchange && sent[kCode] != kInJumpForDep)) return Fault::none;
    if (len < 3) return Fault::noStatus;
    return buffer[kData] == 0 ? Fault::none : Fault::status;
}

}  // namespace tama

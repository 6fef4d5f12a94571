#include "TamaLink.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kHostToReader = 0xD4;
constexpr std::uint8_t kReaderToHost = 0xD5;
constexpr std::uint8_t kChallengeCode = 0x1C;
constexpr std::size_t kHeadBytes = 5;  ///< Preamble, start code, LEN, LCS.
constexpr std::size_t kCodeAt = 6;
constexpr std::size_t kDataAt = 7;

/// The challenge of a key agreement is in the clear whatever key is in force.
bool isChallenge(std::span<const std::uint8_t> command) {
    return command[0] == kChallengeCode && command.size() == 1 + kLinkKeyBytes;
}

std::uint8_t sum(std::span<const std::uint8_t> bytes) {
    unsigned total = 0;
    for (std::uint8_t byte : bytes)
        total += byte;
    return static_cast<std::uint8_t>(total);
}

}  // namespace

bool TamaLink::takeByte(std::uint8_t byte, HostFrame& frame) {
    // Start code 00 FF after any number of zeros; mReceived counts as if there had been one preamble byte.
    if (mReceived < 2) {
        mReceived = byte == 0x00 ? mReceived + 1 : 0;
        return false;
    }
    if (mReceived == 2) {
        if (byte == 0x00) return false;
        mReceived = byte == 0xFF ? 3 : 0;
        return false;
    }
    mFrame[mReceived++] = byte;
    if (mReceived < kHeadBytes || !isComplete(frame)) return false;
    mReceived = 0;
    return true;
}

/// True when the bytes so far are a frame, or can become none.
bool TamaLink::isComplete(HostFrame& frame) {
    const std::uint8_t length = mFrame[3], check = mFrame[4];
    const bool isAck = length == 0x00 && check == 0xFF;
    if (isAck || (length == 0xFF && check == 0x00)) {
        frame = {isAck ? HostFrame::Kind::ack : HostFrame::Kind::nack, {}};
        return mReceived > kHeadBytes;  // The postamble belongs to it.
    }
    if (static_cast<std::uint8_t>(length + check) != 0 || length < 2) {
        frame = {HostFrame::Kind::damaged, {}};
        return true;
    }
    frame = {HostFrame::Kind::command, {mFrame.data() + kCodeAt, length - 1u}};
    return mReceived == length + kFrameOverhead;
}

bool TamaLink::open(HostFrame& frame) {
    if (!isChallenge(frame.command)) mStream.crypt(frame.command.subspan(1));
    const std::span<const std::uint8_t> checked(mFrame.data() + kHeadBytes, frame.command.size() + 2);
    return checked[0] == kHostToReader && sum(checked) == 0;
}

std::size_t TamaLink::buildReply(std::uint8_t code, std::span<const std::uint8_t> data,
                                 std::span<std::uint8_t, kMaxReplyFrame> out) {
    const std::size_t length = 2 + std::min(data.size(), kMaxReplyData);
    out[0] = out[1] = 0x00;
    out[2] = 0xFF;
    out[3] = static_cast<std::uint8_t>(length);
    out[4] = static_cast<std::uint8_t>(0x100 - length);
    out[5] = kReaderToHost;
    out[kCodeAt] = code;
    const auto body = out.subspan(kDataAt, length - 2);
    std::copy_n(data.begin(), body.size(), body.begin());
    out[kHeadBytes + length] = static_cast<std::uint8_t>(0x100 - sum(out.subspan(kHeadBytes, length)));
    out[kHeadBytes + length + 1] = 0x00;
    mStream.crypt(body);
    return length + kFrameOverhead;
}

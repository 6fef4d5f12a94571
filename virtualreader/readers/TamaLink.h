#pragma once

#include "LinkKey.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// The reader's end of the host link: frames of the PN53x host interface, whose data bytes are scrambled with RC4 once
/// both ends share a key.

constexpr std::array<std::uint8_t, 6> kAckFrame{0x00, 0x00, 0xFF, 0x00, 0xFF, 0x00};
constexpr std::array<std::uint8_t, 6> kNackFrame{0x00, 0x00, 0xFF, 0xFF, 0x00, 0x00};
constexpr std::array<std::uint8_t, 8> kErrorFrame{0x00, 0x00, 0xFF, 0x01, 0xFF, 0x7F, 0x81, 0x00};

constexpr std::size_t kFrameOverhead = 7;  ///< Frame bytes beside those that LEN counts.
constexpr std::size_t kMaxFrameLen = 255;
constexpr std::size_t kMaxReplyFrame = kMaxFrameLen + kFrameOverhead;
constexpr std::size_t kMaxReplyData = kMaxFrameLen - 2;

/// What the host sent.
struct HostFrame {
    enum class Kind { ack, nack, command, damaged };
    Kind kind;
    std::span<std::uint8_t> command;  ///< Command code and data, these as they came. Valid until the next byte.
};

class TamaLink {
  public:
    /// Takes one byte from the host. @return true when it ends a frame, which is then in `frame`. Bytes outside frames
    /// are skipped.
    bool takeByte(std::uint8_t byte, HostFrame& frame);
    /// Unscrambles the data of a command in place and checks the frame. @return false if it is damaged. The key stream
    /// has run on in both cases; a command that is never opened is one that the reader has not heard.
    bool open(HostFrame& frame);
    /// Forgets a frame that was begun.
    void resync() { mReceived = 0; }

    /// Starts the stream with a new key; zeros put the link in the clear.
    void setKey(const LinkKey& key) { mStream.setKey(key); }
    bool isKeyed() const { return mStream.isKeyed(); }
    /// Lets the stream run on by one byte, which puts it out of step with the host.
    void skipStream() { mStream.skip(); }

    /// Builds a reply frame in `out`: the data, at most kMaxReplyData bytes, go out scrambled. @return its length.
    std::size_t buildReply(std::uint8_t code, std::span<const std::uint8_t> data,
                           std::span<std::uint8_t, kMaxReplyFrame> out);

  private:
    bool isComplete(HostFrame& frame);

    LinkStream mStream;
    std::array<std::uint8_t, kMaxReplyFrame> mFrame{};
    std::size_t mReceived = 0;
};

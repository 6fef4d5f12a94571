#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

/// Frames of the PN53x host link as bytes. Pure: no device, no cipher, no log. Sizes and offsets in bytes.
///
///   0  preamble 00          5        TFI: D4 host to reader, D5 reader to host
///   1  start code 00 FF     6        command code; a reply carries the command's code + 1
///   3  LEN                  7        data, LEN - 2 bytes, the only scrambled ones
///   4  LCS, -LEN            5 + LEN  DCS, minus the sum of the plain bytes from TFI on
///                           6 + LEN  postamble 00
///
/// LEN counts from TFI to the last data byte.

namespace tama {

inline constexpr std::size_t kBufferSize = 1024;
inline constexpr std::size_t kAckSize = 6;
inline constexpr std::size_t kErrorSize = 8;
/// What a frame holds beyond the command that it carries: everything but command code and data.
inline constexpr std::size_t kFrameOverhead = 8;
/// LEN is one byte and counts TFI too.
inline constexpr std::size_t kLongestCommand = 254;

inline constexpr std::size_t kLen = 3;
inline constexpr std::size_t kLcs = 4;
inline constexpr std::size_t kTfi = 5;
inline constexpr std::size_t kCode = 6;
inline constexpr std::size_t kData = 7;

inline constexpr std::uint8_t kToReader = 0xD4;
inline constexpr std::uint8_t kToHost = 0xD5;

inline constexpr std::uint8_t kInDataExchange = 0x40;
inline constexpr std::uint8_t kInJumpForDep = 0x56;

/// Writes the frame of `command`, which runs from the command code to the last data byte, to `out`. The DCS covers the
/// plain bytes, so scramble afterwards.
/// @return bytes written, command + 8; 0 if the command has none or more than 254 bytes or `out` is too small, and then
/// `out` is untouched.
std::size_t buildFrame(std::span<const std::uint8_t> command, std::span<std::uint8_t> out);

bool isAck(std::span<const std::uint8_t> frame);
/// The frame that stands in place of a reply when the reader did not understand the command.
bool isError(std::span<const std::uint8_t> frame);
/// A whole frame of the reader with a command code; its data and DCS are not looked at.
bool isInformation(std::span<const std::uint8_t> frame);

/// The scrambled bytes of `frame`, as far as they have arrived; empty for a frame without data.
std::span<std::uint8_t> scrambledPart(std::span<std::uint8_t> frame);

/// The first check that a reply fails, in the order in which they are made.
enum class Fault {
    none,
    start,         ///< Preamble or start code.
    head,          ///< LEN and LCS do not fit each other.
    size,          ///< LEN and the bytes received do not fit each other.
    checksum,      ///< DCS.
    otherCommand,  ///< TFI or command code of another command's reply.
    noStatus,      ///< A reply that must begin with a status byte holds none.
    status,        ///< The reader's status byte is not 0.
};

/// Checks a whole reply, unscrambled, against the plain frame that was sent. `buffer` is the receiving buffer and
/// `received` the bytes that the device reported, which may be more. The status byte of InDataExchange and InJumpForDEP
/// is looked at only with `checkStatus`.
Fault checkReply(std::span<const std::uint8_t> buffer, std::size_t received, std::span<const std::uint8_t> sent,
                 bool checkStatus);

/// Sum of the bytes from TFI to DCS, 0 for a frame in order. For the log.
std::uint8_t checksumOf(std::span<const std::uint8_t> frame);

}  // namespace tama

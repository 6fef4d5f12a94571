#pragma once

#include <array>
#include <cstdint>

/// How a model of the reader differs from others. The defaults are those of the reader that the library serves.
struct ReaderOptions {
    /// False for a reader without the key commands: it answers ERROR to them and the link stays in the clear.
    bool knowsLinkKey = true;
    /// Gives a session key of zeros, which leaves the link in the clear.
    bool zeroSessionKey = false;
    /// Answers a frame whose checksum is wrong, as after a lost frame on a scrambled link, with ACK and ERROR.
    /// Without this it is silent, as the chip's manual has it.
    bool errorToBadFrames = false;
    /// The chip reports the two ATQA bytes low byte first; its successors the other way round.
    bool atqaHighByteFirst = false;
    /// The chip reports long UIDs with the cascade tag (88) in front of each part but the last.
    bool cascadeTagInUid = false;
    /// Status of a block command that the tag refused with a NAK: 01 on some chips, 13 on others.
    std::uint8_t refusedStatus = 0x01;

    std::array<std::uint8_t, 6> serialNumber{0x00, 0x17, 0x2A, 0x00, 0x00, 0x01};
    std::uint16_t vendorId = 0x04CC;
    std::uint16_t productId = 0x0531;
    std::array<std::uint8_t, 3> version{2, 1, 0x03};  ///< Major, minor, build.
    /// Seeds the generator of session keys, so that a run can be repeated.
    std::uint32_t keySeed = 1;
};

#pragma once

#include <cstdint>

/// Bytes and bits of the blocks of ISO/IEC 14443-4, and of the flags that steer an exchange.

// Protocol control byte.
inline constexpr std::uint8_t kIBlock = 0x02;
inline constexpr std::uint8_t kRBlock = 0xA2;
inline constexpr std::uint8_t kSBlock = 0xC2;
inline constexpr std::uint8_t kPcbNumber = 0x01;
inline constexpr std::uint8_t kPcbNad = 0x04;
inline constexpr std::uint8_t kPcbCid = 0x08;
inline constexpr std::uint8_t kPcbChaining = 0x10;

inline constexpr std::uint8_t kAck = 0x00;       // of an R-block
inline constexpr std::uint8_t kNak = 0x10;       // of an R-block
inline constexpr std::uint8_t kDeselect = 0x00;  // of an S-block
inline constexpr std::uint8_t kWtx = 0x30;       // of an S-block
inline constexpr std::uint8_t kNadReserved = 0x88;
inline constexpr std::uint8_t kCidReserved = 0x30;
inline constexpr std::uint8_t kCidNumber = 0x0F;

// What tells the blocks apart.
inline constexpr std::uint8_t kIBlockMask = 0xC2;
inline constexpr std::uint8_t kControlMask = 0xF4;  // of R- and S-blocks: all but CID, number and a fixed bit
inline constexpr std::uint8_t kAckControl = 0xA0;
inline constexpr std::uint8_t kWtxControl = 0xF0;

// QvlTclInternalParams::flags
inline constexpr std::uint8_t kNadInUse = 0x01;
inline constexpr std::uint8_t kCidInUse = 0x02;
inline constexpr std::uint8_t kNadSent = 0x04;         // the answer has to carry one
inline constexpr std::uint8_t kReceivingChain = 0x08;  // from the card
inline constexpr std::uint8_t kEndsChaining = 0x20;    // the send data is complete and more of the command follows
inline constexpr std::uint8_t kMoreToReceive = 0x40;   // the I-block taken in last had its chaining bit set

// PiccInfo::mFlags holds kNadInUse and kCidInUse as the ATS gave them, and these two of the exchange.
inline constexpr std::uint8_t kRestPending = 0x04;
inline constexpr std::uint8_t kMoreFollows = 0x08;

inline constexpr std::uint8_t kCrcSize = 2;

#pragma once

#include <cstdint>

/// The enumerations of the service interface. All travel as 32-bit integers.

/// How an operation addresses the memory of a tag.
enum TagAppType : std::int32_t {
    TagAppNone = 0,  ///< Absolute blocks and sectors, no application directory.
    TagAppMad1 = 1,  ///< Blocks and sectors of an application in the tag's directory.
    TagAppMad2 = 2,  ///< The same; formatting writes a version 2 directory.
};

/// With which key of a sector to authenticate: the Mifare command byte itself.
enum AuthKeyMode : std::int32_t {
    AuthKeyA = 0x60,
    AuthKeyB = 0x61,
};

/// Operations on a value block.
enum ValueBlockOper : std::int32_t {
    ValueIncrement = 0,
    ValueDecrement = 1,
};

/// Access condition of a data block or a sector trailer, by its bits C1 C2 C3.
enum DataAccControl : std::int32_t {
    AccData010 = 0,
    AccData100 = 1,
    AccData011 = 2,
    AccData101 = 3,
    AccData111 = 4,
    AccData000 = 5,
    AccData110 = 6,  ///< Value block.
    AccData001 = 7,  ///< Value block that can only be decremented.
    AccTrailer000 = 8,
    AccTrailer010 = 9,
    AccTrailer100 = 10,
    AccTrailer110 = 11,
    AccTrailer001 = 12,
    AccTrailer011 = 13,
    AccTrailer101 = 14,
    AccTrailer111 = 15,
    AccInvalid = 16,
};

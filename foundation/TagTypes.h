#pragma once

#include "QvlExport.h"

#include <cstdint>

/// Tag type codes; those of the Mifare types are the ATQA read as a big-endian number.
enum TagType : std::uint32_t {
    kTagUnknown = 0x0000,
    kTagUltralight = 0x4400,
    kTagStandard = 0x0400,
    kTag4K = 0x0200,
    kTagProX = 0x0407,
    kTagDesFire = 0x4403,
    kTagIcodeOne = 0x0001,
    kTagIcodeSli = 0x0002,
};

/// One row of the tag type table. Sizes in bytes.
struct QVL_API TagTypeInfo {
    std::uint32_t type;
    const char* name;
    std::uint32_t uidLength;
    std::uint32_t sectorCount;
    std::uint32_t blockSize;
    std::uint32_t sectorSize;
    std::uint32_t isClassic;
};

/// Rows by type code, by the two bytes of an ATQA, by SAK. A code outside the table gives the row "Mifare Standard".
QVL_API TagTypeInfo tagInfoByType(std::uint32_t type);
QVL_API TagTypeInfo tagInfoByAtqa(const std::uint8_t* atqa);
QVL_API TagTypeInfo tagInfoBySak(std::uint8_t sak);
/// How every selection decides a tag's type; kTagUnknown for a SAK without a meaning here.
QVL_API std::uint32_t tagTypeFromSak(std::uint8_t sak);

/// The codes 2000 to 2007 that stand for a type in streams and events, and back.
QVL_API std::uint32_t tagTypeToWire(std::uint32_t type);
QVL_API std::uint32_t wireToTagType(std::uint32_t wireCode);

/// The select code of the next cascade level of ISO/IEC 14443-3: 0x95 after 0x93, 0x97 after 0x95, else -1.
QVL_API int nextCascadeLevel(int selectCode);

#include "TagTypes.h"

#include <cstddef>

namespace {

// type, name, UID length, sectors, block size, sector size, classic. The place of a row is its wire code.
constexpr TagTypeInfo kTagTypes[] = {
    {kTagUnknown, "Unknown", 0, 0, 16, 64, 0},           {kTagUltralight, "Mifare Ultralight", 7, 1, 4, 16, 0},
    {kTagStandard, "Mifare Standard", 4, 16, 16, 64, 1}, {kTag4K, "Mifare 4K", 4, 40, 16, 256, 1},
    {kTagProX, "Mifare ProX", 4, 16, 16, 64, 0},         {kTagDesFire, "Mifare Des Fire", 7, 14, 0, 0, 0},
    {kTagIcodeOne, "ICODE ONE", 8, 1, 4, 16, 0},         {kTagIcodeSli, "ICODE SLI", 8, 1, 4, 16, 0},
};
constexpr std::uint32_t kTagTypeCount = sizeof kTagTypes / sizeof kTagTypes[0];
constexpr std::uint32_t kFallbackRow = 2;  // Mifare Standard
constexpr std::uint32_t kFirstWireCode = 2000;

std::uint32_t rowOf(std::uint32_t type) {
    std::uint32_t row = 0;
    while (row < kTagTypeCount && kTagTypes[row].type != type)
        ++row;
    return row;
}

}  // namespace

TagTypeInfo tagInfoByType(std::uint32_t type) {
    const std::uint32_t row = rowOf(type);
    return kTagTypes[row < kTagTypeCount ? row : kFallbackRow];
}

TagTypeInfo tagInfoByAtqa(const std::uint8_t* atqa) {
    return tagInfoByType(static_cast<std::uint32_t>(atqa[0]) << 8 | atqa[1]);
}

TagTypeInfo tagInfoBySak(std::uint8_t sak) { return tagInfoByType(tagTypeFromSak(sak)); }

std::uint32_t tagTypeFromSak(std::uint8_t sak) {
    switch (sak) {
    case 0x00:
        return kTagUltralight;
    case 0x08:
    case 0x28:
    case 0x38:
        return kTagStandard;
    case 0x18:
        return kTag4K;
    case 0x20:
        return kTagDesFire;
    default:
        return kTagUnknown;
    }
}

std::uint32_t tagTypeToWire(std::uint32_t type) {
    const std::uint32_t row = rowOf(type);
    return kFirstWireCode + (row < kTagTypeCount ? row : 0);
}

std::uint32_t wireToTagType(std::uint32_t wireCode) {
    const std::uint32_t row = wireCode - kFirstWireCode;
    return row < kTagTypeCount ? kTagTypes[row].type : kTagUnknown;
}

int nextCascadeLevel(int selectCode) {
    switch (selectCode) {
    case 0x93:
        return 0x95;
    case 0x95:
        return 0x97;
    default:
        return -1;
    }
}

#include "SectorAccessBits.h"

#include "TagGeometry.h"

#include <algorithm>

namespace {

constexpr int kGroups = 4;
constexpr int kConditions = 3;
constexpr int kBlocksInGroup = 5;  // of a large sector

// Where a bit stands: byte of the triple, and shift of its nibble.
struct BitPlace {
    std::size_t byte;
    int shift;
};
constexpr BitPlace kPlain[kConditions] = {{1, 4}, {2, 0}, {2, 4}};
constexpr BitPlace kInverted[kConditions] = {{0, 0}, {0, 4}, {1, 0}};

// The codes of data conditions by C1 C2 C3 as a number.
constexpr DataAccControl kDataCodes[8] = {AccData000, AccData001, AccData010, AccData011,
                                          AccData100, AccData101, AccData110, AccData111};
constexpr DataAccControl kTrailerCodes[8] = {AccTrailer000, AccTrailer001, AccTrailer010, AccTrailer011,
                                             AccTrailer100, AccTrailer101, AccTrailer110, AccTrailer111};

std::size_t asIndex(bool c1, bool c2, bool c3) { return (c1 ? 4u : 0u) + (c2 ? 2u : 0u) + (c3 ? 1u : 0u); }

bool bitAt(const std::array<std::uint8_t, accessbits::kSize>& bytes, const BitPlace& place, int group) {
    return (bytes[place.byte] >> (place.shift + group) & 1) != 0;
}

void putBit(std::uint8_t* bytes, const BitPlace& place, int group, bool value) {
    const auto mask = static_cast<std::uint8_t>(1 << (place.shift + group));
    bytes[place.byte] = static_cast<std::uint8_t>(value ? bytes[place.byte] | mask : bytes[place.byte] & ~mask);
}

}  // namespace

SectorAccessBits::SectorAccessBits(const std::uint8_t* access) : mAccess{}, mValid(false) {
    if (access == nullptr) return;
    std::copy_n(access, accessbits::kSize, mAccess.begin());
    validate();
}

bool SectorAccessBits::validate() {
    mValid = true;
    for (int group = 0; group < kGroups && mValid; ++group)
        for (int condition = 1; condition <= kConditions; ++condition)
            mValid = mValid && getBit(group, condition) != getInvertedBit(group, condition);
    return mValid;
}

bool SectorAccessBits::getBit(int group, int condition) const { return bitAt(mAccess, kPlain[condition - 1], group); }

bool SectorAccessBits::getInvertedBit(int group, int condition) const {
    return bitAt(mAccess, kInverted[condition - 1], group);
}

DataAccControl SectorAccessBits::conditionOf(int group) const {
    const bool c1 = getBit(group, 1), c2 = getBit(group, 2), c3 = getBit(group, 3);
    return group == accessbits::kTrailerGroup ? trailerCondition(c1, c2, c3) : dataCondition(c1, c2, c3);
}

DataAccControl SectorAccessBits::getBlockCondition(std::uint32_t tagType, int sector, int blockInSector) const {
    const bool isLarge = isLargeSector(tagType, sector);
    const int trailer = isLarge ? kLargeTrailer : kSmallTrailer;
    if (blockInSector < 0 || blockInSector > trailer) return AccInvalid;
    return conditionOf(isLarge ? blockInSector / kBlocksInGroup : blockInSector);
}

void SectorAccessBits::getSectorConditions(DataAccControl* conditions) const {
    for (int group = 0; group < kGroups; ++group)
        conditions[group] = conditionOf(group);
}

DataAccControl dataCondition(bool c1, bool c2, bool c3) { return kDataCodes[asIndex(c1, c2, c3)]; }

DataAccControl trailerCondition(bool c1, bool c2, bool c3) { return kTrailerCodes[asIndex(c1, c2, c3)]; }

void setBlockCondition(std::uint8_t* access, int group, DataAccControl code) {
    const auto found = std::ranges::find(kDataCodes, code);
    const std::size_t bits = found == std::end(kDataCodes) ? 0 : static_cast<std::size_t>(found - kDataCodes);
    for (std::size_t condition = 0; condition < kConditions; ++condition) {
        const bool value = (bits >> (kConditions - 1 - condition) & 1) != 0;
        putBit(access, kPlain[condition], group, value);
        putBit(access, kInverted[condition], group, !value);
    }
}

void setDataConditions(std::uint8_t* access, DataAccControl code) {
    for (int group = 0; group < accessbits::kTrailerGroup; ++group)
        setBlockCondition(access, group, code);
}

int accessGroupOf(std::uint32_t tagType, int sector, int blockInSector) {
    if (blockInSector < 0) return 0;
    if (isLargeSector(tagType, sector)) return blockInSector <= kLargeTrailer ? blockInSector / kBlocksInGroup : 0;
    if (tagType != kTag4K && tagType != kTagStandard) return 0;
    return blockInSector <= kSmallTrailer ? blockInSector : 0;
}

bool isValueCode(DataAccControl code) { return code == AccData110 || code == AccData001; }

bool isClosedToKeyB(DataAccControl code) {
    return code == AccData010 || code == AccData101 || code == AccData111 || code == AccData001;
}

#pragma once

#include "ServiceEnums.h"

#include <array>
#include <cstdint>

/// Access conditions of a Mifare Classic sector: bytes 6, 7 and 8 of its trailer, as the data sheets MF1S50yyX and
/// MF1S70yyX publish them. Pure.
///
/// A sector has four groups of blocks; group 3 is the trailer. In a sector of four blocks group g is block g; in a
/// sector of sixteen a group is five blocks. Each group has the bits C1, C2, C3, each stored plain and inverted, in bit
/// g of a nibble:
///
///   byte 6   C2 inverted   C1 inverted
///   byte 7   C1            C3 inverted
///   byte 8   C3            C2

namespace accessbits {

inline constexpr std::size_t kSize = 3;
inline constexpr int kTrailerGroup = 3;

/// Whole triples: as delivered; data sectors of a formatted tag; sector 0 of a tag with a directory.
inline constexpr std::array<std::uint8_t, kSize> kFactory{0xFF, 0x07, 0x80};
inline constexpr std::array<std::uint8_t, kSize> kFormatted{0x78, 0x77, 0x88};
inline constexpr std::array<std::uint8_t, kSize> kDirectory{0x69, 0x67, 0x89};

}  // namespace accessbits

class SectorAccessBits {
  public:
    /// Copies three bytes; null gives zero bytes, which are invalid.
    explicit SectorAccessBits(const std::uint8_t* access);

    bool isValid() const { return mValid; }
    /// True when every inverted bit is the complement of its plain bit.
    bool validate();
    /// The plain and the inverted bit as stored. `group` 0 to 3, `condition` 1 to 3.
    bool getBit(int group, int condition) const;
    bool getInvertedBit(int group, int condition) const;
    /// Condition of one block; AccInvalid for a block outside its sector. Does not look at isValid.
    DataAccControl getBlockCondition(std::uint32_t tagType, int sector, int blockInSector) const;
    /// Conditions of groups 0 to 2 and of the trailer.
    void getSectorConditions(DataAccControl* conditions) const;

  private:
    DataAccControl conditionOf(int group) const;

    std::array<std::uint8_t, accessbits::kSize> mAccess;
    bool mValid;
};

/// The code of a data block, 0 to 7, and of a trailer, 8 to 15.
DataAccControl dataCondition(bool c1, bool c2, bool c3);
DataAccControl trailerCondition(bool c1, bool c2, bool c3);
/// Rewrites the bits of one group in place; a code above 7 counts as 0 0 0. The other groups stay as they are.
void setBlockCondition(std::uint8_t* access, int group, DataAccControl code);
/// The same for groups 0 to 2 at once.
void setDataConditions(std::uint8_t* access, DataAccControl code);
/// Group of a block, 0 to 3; 0 for blocks outside the sector and tags without groups.
int accessGroupOf(std::uint32_t tagType, int sector, int blockInSector);

/// A value block by its code.
bool isValueCode(DataAccControl code);
/// True when key B may not write a data block of this code.
bool isClosedToKeyB(DataAccControl code);

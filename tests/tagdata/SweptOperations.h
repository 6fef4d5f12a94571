#pragma once

#include "TagWorkplace.h"

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// Every operation on the memory of a tag, each on a tag of its own layout, for the sweeps that let something go wrong
/// in the middle of it; and a reading of such a tag that shares no code with the library.

inline const Bytes kOpenBits{0xFF, 0x07, 0x80}, kFormattedBits{0x78, 0x77, 0x88}, kDirectoryBits{0x69, 0x67, 0x89};
inline constexpr int kSector0Data = 3;
inline constexpr std::uint16_t kOwnApp = 0x1234;

// ---- a tag from outside ----

inline int firstBlockOf(int sector) { return sector < 32 ? sector * 4 : 128 + (sector - 32) * 16; }
inline int trailerOf(int sector) { return sector < 32 ? sector * 4 + 3 : 143 + (sector - 32) * 16; }
inline int sectorsOf(const Bytes& image) { return image.size() == 4096 ? 40 : 16; }
inline int sectorOf(int block) { return block < 128 ? block / 4 : 32 + (block - 128) / 16; }
inline Bytes blockOf(const Bytes& image, int block) {
    return {image.begin() + block * 16, image.begin() + block * 16 + 16};
}
inline int entryOf(const Bytes& image, int sector) {
    const auto at = static_cast<std::size_t>(16 + 2 * sector);
    return image[at] | image[at + 1] << 8;
}
inline std::uint8_t directoryCrc(const Bytes& image) {
    unsigned crc = 0xC7;
    for (std::size_t i = 17; i < 48; ++i) {
        crc ^= image[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 0x80 ? (crc << 1 ^ 0x1D) & 0xFF : crc << 1;
    }
    return static_cast<std::uint8_t>(crc);
}
inline bool bitsAreSound(const Bytes& trailer) {
    const int b6 = trailer[6], b7 = trailer[7], b8 = trailer[8];
    return (b6 & 15) == (~b7 >> 4 & 15) && b6 >> 4 == (~b8 & 15) && (b7 & 15) == (~b8 >> 4 & 15);
}
/// Whether the key opens a sector for writing its trailer: it stands there, is no key B that can be read, and may.
inline bool opens(const Bytes& trailer, const Key& key, AuthKeyMode mode) {
    if (!bitsAreSound(trailer)) return false;
    const bool c1 = trailer[7] & 0x80, c2 = trailer[8] & 0x08, c3 = trailer[8] & 0x80;
    const bool keyBIsReadable = !c1 && !(c2 && c3), keyAMay = !c1 && !c2 && c3;
    if (mode == AuthKeyB ? keyBIsReadable : !keyAMay) return false;
    return std::equal(key.begin(), key.end(), trailer.begin() + (mode == AuthKeyB ? 10 : 0));
}

// ---- layouts ----

inline Bytes trailerBytes(const Key& a, const Bytes& bits, std::uint8_t generalPurpose, const Key& b) {
    Bytes bytes(a.begin(), a.end());
    bytes.insert(bytes.end(), bits.begin(), bits.end());
    bytes.push_back(generalPurpose);
    bytes.insert(bytes.end(), b.begin(), b.end());
    return bytes;
}
inline void putBlock(Bytes& image, int block, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), image.begin() + block * 16);
}
/// Every sector with the same trailer, every data block with bytes of its own.
inline Bytes uniformTag(std::size_t size, const Bytes& trailer) {
    Bytes image = MifareClassicTag::blankImage(size, Bytes{0xDE, 0xAD, 0xBE, 0xEF});
    for (int block = 1; block < static_cast<int>(size / 16); ++block) {
        const bool isTrailer = block == trailerOf(sectorOf(block));
        putBlock(image, block, isTrailer ? trailer : Bytes(16, static_cast<std::uint8_t>(1 + block % 251)));
    }
    return image;
}
inline Bytes factoryTag(std::size_t size) {
    return uniformTag(size, trailerBytes(kFactory, kOpenBits, 0x69, kFactory));
}
inline Bytes plainTag(std::size_t size) { return uniformTag(size, trailerBytes(kA, kFormattedBits, 0x69, kC)); }
/// A tag with a directory of these entries. Free sectors have the keys kMad and kB, those of applications kA and kC.
inline Bytes directoryTag(const std::vector<std::pair<int, int>>& entries) {
    Bytes image = uniformTag(1024, trailerBytes(kMad, kFormattedBits, 0x69, kB));
    putBlock(image, 1, Bytes(32, 0));
    putBlock(image, 3, trailerBytes(kMad, kDirectoryBits, 0xC1, kB));
    for (const auto& [sector, id] : entries) {
        const auto at = static_cast<std::size_t>(16 + 2 * sector);
        image[at] = static_cast<std::uint8_t>(id);
        image[at + 1] = static_cast<std::uint8_t>(id >> 8);
        if (id > 5) putBlock(image, trailerOf(sector), trailerBytes(kA, kFormattedBits, 0x69, kC));
    }
    image[16] = directoryCrc(image);
    return image;
}
/// `image` with one block replaced.
inline Bytes with(Bytes image, int block, const Bytes& bytes) {
    putBlock(image, block, bytes);
    return image;
}

// ---- operations ----

struct Outcome {
    int status = 0;
    std::vector<OpResultCode> records;
    Bytes data;
};

struct Operation {
    std::string name;
    Bytes before;
    std::function<Outcome(TagWorkplace&)> run;
    std::set<int> statuses = {};  ///< That it documents, apart from success and from no tag.
    // Where it may write. Nothing at all for an operation that reads.
    std::vector<int> sectors = {};
    std::set<int> entries = {};        ///< Values that it may give to their entries; none: it keeps off the directory.
    std::vector<Bytes> trailers = {};  ///< Trailers that stand there only on the way, or in a stand-in sector.
    Key key = kB;                      ///< Opens the sectors.
    AuthKeyMode mode = AuthKeyB;
    bool claims = false;           ///< Free sectors stand in for those that fail.
    bool goesOn = false;           ///< Repeated after success it does something more.
    std::vector<int> blocks = {};  ///< Records are of blocks: the absolute number of each in turn.

    bool findsTag = false;  ///< Works on whatever tag lies in the field.

    friend void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }
    bool writes() const { return !sectors.empty(); }
    bool touches(int sector) const { return std::find(sectors.begin(), sectors.end(), sector) != sectors.end(); }
};

// ---- what must hold ----

/// One run of an operation in which something went wrong.
struct Cut {
    const Operation& op;
    const Bytes& before;
    const Bytes& whole;  ///< What the tag holds after the operation without a cut.
    int bytes;           ///< Of the write, that reached the memory.
    int wanted;          ///< Sectors that the operation gives to the application.
};

/// Applications, keys and data of others untouched; trailers and data blocks old or new as a whole, apart from one that
/// was torn; no sector with an application's data free; records and status true. @return what is not so, or nothing.
std::string wrong(const Cut& cut, const Outcome& told, const Bytes& after);
/// A sector stands as the finished operation leaves it, or where it stands in for another, as it leaves such a one.
bool isDone(const Cut& cut, const Bytes& after, int sector);
int ownedSectors(const Bytes& image);
inline std::string at(const std::string& what, int number) { return what + " " + std::to_string(number); }

std::vector<Operation> writingOperations();
std::vector<Operation> readingOperations();
inline std::string nameOf(const ::testing::TestParamInfo<Operation>& info) { return info.param.name; }

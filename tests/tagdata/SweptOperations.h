#pragma once

#include "TagWorkplace.h"

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

/// Every operation on the memory of a tag, each on a tag of its own layout, for the sweeps that let something go wrong
/// in the middle of it; and a reading of such a tag that shares no code with the library.

inline const Bytes kFormattedBits{0x78, 0x77, 0x88};

// ---- a tag from outside ----

inline int firstBlockOf(int sector) { return sector < 32 ? sector * 4 : 128 + (sector - 32) * 16; }
inline int trailerOf(int sector) { return firstBlockOf(sector + 1) - 1; }
inline int sectorOf(int block) { return block < 128 ? block / 4 : 32 + (block - 128) / 16; }
inline Bytes blockOf(const Bytes& image, int block) {
    return {image.begin() + block * 16, image.begin() + block * 16 + 16};
}
inline int entryOf(const Bytes& image, int sector) {
    const auto at = static_cast<std::size_t>(16 + 2 * sector);
    return image[at] | image[at + 1] << 8;
}
int ownedSectors(const Bytes& image);
std::uint8_t directoryCrc(const Bytes& image);
/// Whether the key opens a sector for writing its trailer: it stands there, is no key B that can be read, and may.
bool opens(const Bytes& trailer, const Key& key, AuthKeyMode mode);

// ---- layouts ----

Bytes trailerBytes(const Key& a, const Bytes& bits, std::uint8_t generalPurpose, const Key& b);
/// A tag with a directory of these entries. Free sectors have the keys kMad and kB, those of applications kA and kC.
Bytes directoryTag(const std::vector<std::pair<int, int>>& entries);

// ---- operations ----

struct Outcome {
    int status = 0;
    std::vector<OpResultCode> records = {};
    Bytes data = {};
    std::vector<int> numbers = {};  ///< Ids, access codes and a value.
};

struct Operation {
    std::string name = {};
    Bytes before = {};
    std::function<int(TagWorkplace&)> call = {};
    std::set<int> statuses = {};    ///< That it documents, apart from success and from no tag.
    std::vector<int> sectors = {};  ///< Where it may write. None for an operation that reads.
    std::set<int> entries = {};     ///< Values that it may give to their entries; none: it keeps off the directory.
    Key key = kC;                   ///< Opens the sectors.
    AuthKeyMode mode = AuthKeyB;
    std::vector<int> blocks = {};  ///< Records are of blocks: the absolute number of each in turn.
    bool claims = false;           ///< Free sectors stand in for those that fail.
    bool goesOn = false;           ///< Repeated after success it does something more.
    bool findsTag = false;         ///< Works on whatever tag lies in the field.
    bool isTimedOnly = false;      ///< Of the reader or of the field: only its length is judged.

    Outcome run(TagWorkplace& place) const {
        Outcome out{call(place), place.records, place.data, {place.ids.begin(), place.ids.end()}};
        out.numbers.insert(out.numbers.end(), place.codes.begin(), place.codes.end());
        out.numbers.push_back(place.number);
        return out;
    }
    friend void PrintTo(const Operation& op, std::ostream* out) { *out << op.name; }
    bool touches(int sector) const { return std::find(sectors.begin(), sectors.end(), sector) != sectors.end(); }
};

std::vector<Operation> writingOperations();
std::vector<Operation> readingOperations();
std::vector<Operation> otherOperations();

// ---- what must hold ----

/// One run of an operation in which something went wrong.
struct Cut {
    const Operation& op;
    const Bytes& before;
    const Bytes& whole;  ///< What the tag holds after the operation without a cut.
    bool tears;          ///< One write may have reached the memory in part.
};

/// Applications, keys and data of others untouched; trailers and data blocks old or new as a whole, apart from one that
/// was torn; no sector with an application's data free; records and status true. @return what is not so, or nothing.
std::string wrong(const Cut& cut, const Outcome& told, const Bytes& after);
/// A sector stands as the finished operation leaves it, or where it stands in for another, as it leaves such a one.
bool isDone(const Cut& cut, const Bytes& after, int sector);
inline std::string at(const std::string& what, int number) { return what + " " + std::to_string(number); }

// What holds for a tag whatever went wrong, read from its bytes alone.

#include "SweptOperations.h"

namespace {

const Bytes kZeros(16, 0);

bool bitsAreSound(const Bytes& trailer) {
    const int b6 = trailer[6], b7 = trailer[7], b8 = trailer[8];
    return (b6 & 15) == (~b7 >> 4 & 15) && b6 >> 4 == (~b8 & 15) && (b7 & 15) == (~b8 >> 4 & 15);
}

/// What a block may hold as a whole: the old, the new, and in a sector that stands in for another what belongs there.
/// A trailer on the way may open the sector, under no keys but these.
bool isWhole(const Cut& cut, const Bytes& is, int block) {
    const bool isTrailer = block == trailerOf(sectorOf(block));
    std::vector<Bytes> contents{blockOf(cut.before, block), blockOf(cut.whole, block)};
    if (cut.op.claims) contents.push_back(isTrailer ? trailerBytes(kA, kFormattedBits, 0x69, kC) : kZeros);
    bool keyA = false, keyB = false;
    for (const Bytes& content : contents) {
        if (is == content) return true;
        keyA = keyA || std::equal(is.begin(), is.begin() + 6, content.begin());
        keyB = keyB || std::equal(is.begin() + 9, is.end(), content.begin() + 9);
    }
    return isTrailer && keyA && keyB && bitsAreSound(is);
}

std::string wrongBlock(const Cut& cut, const Bytes& after) {
    int torn = 0;
    for (int block = 0; block < static_cast<int>(after.size() / 16); ++block) {
        if (!cut.op.entries.empty() && (block == 1 || block == 2)) continue;
        if (std::equal(after.begin() + block * 16, after.begin() + block * 16 + 16, cut.before.begin() + block * 16))
            continue;
        if (block == 0 || !cut.op.touches(sectorOf(block))) return at("touched: block", block);
        const Bytes is = blockOf(after, block);
        if (!isWhole(cut, is, block) && (!cut.tears || ++torn > 1)) return at("neither old nor new: block", block);
    }
    return {};
}

/// Entries: old or new, those of others untouched; and no sector with an application's data is free.
std::string wrongEntry(const Cut& cut, const Bytes& after) {
    if (cut.op.entries.empty()) return {};
    if (after[17] != cut.before[17] && after[17] != cut.whole[17]) return "info byte";
    for (int sector = 1; sector < 16; ++sector) {
        const int is = entryOf(after, sector), was = entryOf(cut.before, sector);
        if (is == was) continue;
        if (!cut.op.touches(sector) || cut.op.entries.count(is) == 0) return at("wrong entry: sector", sector);
        const bool isReleased = cut.op.entries.count(kOwnApp) > 0 && was == kOwnApp && is == 0;
        for (int block = firstBlockOf(sector); isReleased && block < trailerOf(sector); ++block)
            if (blockOf(after, block) != kZeros) return at("free with an application's data: sector", sector);
    }
    return {};
}

/// What the records say is so.
std::string wrongRecord(const Cut& cut, const Outcome& told, const Bytes& after) {
    const bool tellsEntries = cut.op.entries.count(kOwnApp) > 0 && (told.status == kOk || told.status == kPartial);
    for (std::size_t i = 0; i < told.records.size(); ++i) {
        const int number = cut.op.blocks.empty() ? told.records[i].number : cut.op.blocks[i];
        const bool said = told.records[i].status == kOk;
        const bool isSo =
            cut.op.blocks.empty() ? isDone(cut, after, number) : blockOf(after, number) == blockOf(cut.whole, number);
        if (said && !isSo) return at("told as done: sector or block", number);
        if (tellsEntries && said != ((entryOf(after, number) == kOwnApp) == cut.op.claims))
            return at("wrong entry of sector", number);
    }
    return {};
}

/// Success means that everything is on the tag, and every other status is one that the operation documents.
std::string wrongStatus(const Cut& cut, const Outcome& told, const Bytes& after) {
    const bool noTag = told.status == kCancelled || told.status == kNoTag || told.status == kWaitOver;
    if (told.status != kOk) return noTag || cut.op.statuses.count(told.status) > 0 ? "" : "undocumented";
    if (!cut.op.entries.empty() && cut.whole[16] != 0 && after[16] != directoryCrc(after)) return "checksum";
    if (!cut.op.claims) return after == cut.whole ? "" : "success without all writes";
    const int wanted = ownedSectors(cut.whole) - ownedSectors(cut.op.before);
    if (ownedSectors(after) - ownedSectors(cut.before) != wanted) return "success with too few sectors";
    for (const int sector : cut.op.sectors)
        if (entryOf(after, sector) != entryOf(cut.before, sector) && !isDone(cut, after, sector))
            return at("success with an unprepared sector", sector);
    return {};
}

}  // namespace

int ownedSectors(const Bytes& image) {
    int count = 0;
    for (int sector = 1; sector < 16; ++sector)
        count += entryOf(image, sector) == kOwnApp ? 1 : 0;
    return count;
}

std::uint8_t directoryCrc(const Bytes& image) {
    unsigned crc = 0xC7;
    for (std::size_t i = 17; i < 48; ++i) {
        crc ^= image[i];
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 0x80 ? (crc << 1 ^ 0x1D) & 0xFF : crc << 1;
    }
    return static_cast<std::uint8_t>(crc);
}

bool opens(const Bytes& trailer, const Key& key, AuthKeyMode mode) {
    const bool c1 = trailer[7] & 0x80, c2 = trailer[8] & 0x08, c3 = trailer[8] & 0x80;
    const bool keyBIsReadable = !c1 && !(c2 && c3), keyAMay = !c1 && !c2 && c3;
    if (!bitsAreSound(trailer) || (mode == AuthKeyB ? keyBIsReadable : !keyAMay)) return false;
    return std::equal(key.begin(), key.end(), trailer.begin() + (mode == AuthKeyB ? 10 : 0));
}

bool isDone(const Cut& cut, const Bytes& after, int sector) {
    const int first = sector > 0 ? firstBlockOf(sector) : cut.op.entries.empty() ? 1 : 3;
    for (int block = first; block <= trailerOf(sector); ++block) {
        const Bytes claimed = block == trailerOf(sector) ? trailerBytes(kA, kFormattedBits, 0x69, kC) : kZeros;
        if (blockOf(after, block) != (cut.op.claims ? claimed : blockOf(cut.whole, block))) return false;
    }
    return true;
}

std::string wrong(const Cut& cut, const Outcome& told, const Bytes& after) {
    for (const std::string& found :
         {wrongBlock(cut, after), wrongEntry(cut, after), wrongRecord(cut, told, after), wrongStatus(cut, told, after)})
        if (!found.empty()) return found + at(", status", told.status);
    return {};
}

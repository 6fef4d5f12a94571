#include "SweptOperations.h"

namespace {

/// The first `bytes` of one content over the rest of another.
bool isTorn(const Bytes& block, const std::vector<Bytes>& contents, int bytes) {
    for (const Bytes& above : contents)
        for (const Bytes& below : contents)
            if (std::equal(block.begin(), block.begin() + bytes, above.begin()) &&
                std::equal(block.begin() + bytes, block.end(), below.begin() + bytes))
                return true;
    return false;
}

/// Data blocks and trailers: old or new as a whole, apart from one that was torn; everything else as it was.
std::string wrongBlock(const Cut& cut, const Bytes& after) {
    int torn = 0;
    for (int block = 0; block < static_cast<int>(after.size() / 16); ++block) {
        if (std::equal(after.begin() + block * 16, after.begin() + block * 16 + 16, cut.before.begin() + block * 16))
            continue;
        if (!cut.op.entries.empty() && (block == 1 || block == 2)) continue;
        const Bytes is = blockOf(after, block), was = blockOf(cut.before, block);
        const int sector = sectorOf(block);
        if (block == 0 || !cut.op.touches(sector)) return at("touched: block", block);
        const bool isTrailer = block == trailerOf(sector);
        std::vector<Bytes> contents{was, blockOf(cut.whole, block)};
        if (isTrailer) contents.insert(contents.end(), cut.op.trailers.begin(), cut.op.trailers.end());
        if (!isTrailer && cut.op.claims) contents.push_back(Bytes(16, 0));
        if (std::find(contents.begin(), contents.end(), is) == contents.end()) {
            if (!isTorn(is, contents, cut.bytes)) return at("neither old nor new: block", block);
            if (++torn > 1) return at("a second torn block", block);
        } else if (isTrailer && !bitsAreSound(is)) {
            return at("locked for good: sector", sector);
        }
    }
    return {};
}

/// Entries: old or new, those of others untouched; and no sector with an application's data is free.
std::string wrongEntry(const Cut& cut, const Bytes& after) {
    if (cut.op.entries.empty()) return {};
    const int info = after[17];
    if (info != cut.before[17] && info != cut.whole[17]) return "info byte";
    for (int sector = 1; sector < 16; ++sector) {
        const int is = entryOf(after, sector), was = entryOf(cut.before, sector);
        if (is == was) continue;
        if (!cut.op.touches(sector)) return at("another's entry changed: sector", sector);
        const bool isHalf = cut.bytes % 2 == 1;
        bool fits = cut.op.entries.count(is) > 0;
        for (const int low : cut.op.entries)
            for (const int high : {was, *cut.op.entries.rbegin(), 0})
                fits = fits || (isHalf && is == ((high & 0xFF00) | (low & 0xFF)));
        if (!fits) return at("neither old nor new: entry", sector);
        const bool isRelease = cut.op.entries.count(kOwnApp) > 0 && was == kOwnApp;
        if (isRelease && is == 0)
            for (int block = firstBlockOf(sector); block < trailerOf(sector); ++block)
                if (blockOf(after, block) != Bytes(16, 0)) return at("free with an application's data: sector", sector);
    }
    return {};
}

/// What the records say is so.
std::string wrongRecord(const Cut& cut, const Outcome& told, const Bytes& after) {
    const bool tellsEntries = cut.op.entries.count(kOwnApp) > 0 && (told.status == kOk || told.status == kPartial);
    for (std::size_t i = 0; i < told.records.size(); ++i) {
        const OpResultCode& record = told.records[i];
        if (!cut.op.blocks.empty()) {
            const int block = cut.op.blocks[i];
            if (record.status == kOk && blockOf(after, block) != blockOf(cut.whole, block)) return at("block", block);
            continue;
        }
        if (record.status == kOk && !isDone(cut, after, record.number))
            return at("told as done: sector", record.number);
        const bool owned = entryOf(after, record.number) == kOwnApp;
        if (tellsEntries && (record.status == kOk) != (cut.op.claims ? owned : !owned))
            return at("wrong entry of sector", record.number);
    }
    return {};
}

/// Success means that everything is on the tag, and every other status is one that the operation documents.
std::string wrongStatus(const Cut& cut, const Outcome& told, const Bytes& after) {
    const bool noTag = told.status == kCancelled || told.status == kNoTag || told.status == kWaitOver;
    if (told.status != kOk) return noTag || cut.op.statuses.count(told.status) > 0 ? "" : "undocumented";
    const bool hasDirectory = !cut.op.entries.empty() && cut.whole[16] != 0;
    if (hasDirectory && after[16] != directoryCrc(after)) return "checksum";
    if (!cut.op.claims) return after == cut.whole ? "" : "success without all writes";
    if (ownedSectors(after) - ownedSectors(cut.before) != cut.wanted) return "success with too few sectors";
    for (const int sector : cut.op.sectors)
        if (entryOf(after, sector) != entryOf(cut.before, sector) && !isDone(cut, after, sector))
            return at("success with an unprepared sector", sector);
    return {};
}

}  // namespace

bool isDone(const Cut& cut, const Bytes& after, int sector) {
    for (int block = std::max(firstBlockOf(sector), sector == 0 ? (cut.op.entries.empty() ? 1 : 3) : 0);
         block <= trailerOf(sector); ++block) {
        const bool isTrailer = block == trailerOf(sector);
        const Bytes expected = !cut.op.claims ? blockOf(cut.whole, block)
                               : isTrailer    ? cut.op.trailers[0]
                                              : Bytes(16, 0);
        if (blockOf(after, block) != expected) return false;
    }
    return true;
}

int ownedSectors(const Bytes& image) {
    int count = 0;
    for (int sector = 1; sector < 16; ++sector)
        count += entryOf(image, sector) == kOwnApp ? 1 : 0;
    return count;
}

std::string wrong(const Cut& cut, const Outcome& told, const Bytes& after) {
    for (const std::string& found :
         {wrongBlock(cut, after), wrongEntry(cut, after), wrongRecord(cut, told, after), wrongStatus(cut, told, after)})
        if (!found.empty()) return found + ", status " + std::to_string(told.status);
    return {};
}

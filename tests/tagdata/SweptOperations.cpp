#include "SweptOperations.h"

#include <cstdlib>
#include <numeric>

namespace {

constexpr Key kNew1{0x71, 0x71, 0x71, 0x71, 0x71, 0x71}, kNew2{0x72, 0x72, 0x72, 0x72, 0x72, 0x72};

using Call = std::function<int(TagWorkplace&)>;
using Sectors = std::vector<int>;
using Entries = std::vector<std::pair<int, int>>;

Sectors range(int first, int count) {
    Sectors all(static_cast<std::size_t>(count));
    std::iota(all.begin(), all.end(), first);
    return all;
}
int sectorsOf(const Bytes& image) { return image.size() == 4096 ? 40 : 16; }
short sizeOf(const Sectors& sectors) { return static_cast<short>(sectors.size()); }

// ---- layouts ----

void put(Bytes& image, int block, const Bytes& bytes) {
    std::copy(bytes.begin(), bytes.end(), image.begin() + block * 16);
}
Bytes with(Bytes image, int block, const Bytes& bytes) {
    put(image, block, bytes);
    return image;
}
/// Every sector with the same trailer, every data block with bytes of its own.
Bytes uniformTag(std::size_t size, const Bytes& trailer) {
    Bytes image = MifareClassicTag::blankImage(size, Bytes{0xDE, 0xAD, 0xBE, 0xEF});
    for (int block = 1; block < static_cast<int>(size / 16); ++block) {
        const bool isTrailer = block == trailerOf(sectorOf(block));
        put(image, block, isTrailer ? trailer : Bytes(16, static_cast<std::uint8_t>(1 + block % 251)));
    }
    return image;
}
Bytes factoryTag(std::size_t size) {
    return uniformTag(size, trailerBytes(kFactory, {0xFF, 0x07, 0x80}, 0x69, kFactory));
}
Bytes plainTag(std::size_t size = 1024) { return uniformTag(size, trailerBytes(kA, kFormattedBits, 0x69, kC)); }
/// Two other applications, one of them in two pieces, a defect sector, and the sectors given.
Bytes crowded(const Entries& more = {}) {
    Entries entries{{1, 0x2211}, {2, 0x4433}, {4, 0x2211}, {9, 0x4433}, {3, 1}};
    entries.insert(entries.end(), more.begin(), more.end());
    return directoryTag(entries);
}
const Sectors kFreeAmongOthers{5, 6, 7, 8, 10, 11, 12, 13, 14, 15};
Bytes ownTag() { return crowded({{5, kOwnApp}, {7, kOwnApp}, {8, kOwnApp}}); }
/// Sectors 7, 8 and 15 are free.
Bytes nearlyFull() {
    Entries entries;
    for (const int sector : {1, 2, 3, 4, 5, 6, 9, 10, 11, 12, 13, 14})
        entries.emplace_back(sector, 0x2211);
    return directoryTag(entries);
}
/// 64, a value block at its own place 9 with increment allowed.
Bytes valueTag() {
    const Bytes value{64, 0, 0, 0, 191, 255, 255, 255, 64, 0, 0, 0, 9, 246, 9, 246};
    return with(with(plainTag(), 9, value), 11, trailerBytes(kA, {0x58, 0x77, 0x8A}, 0x69, kC));
}

// ---- operations ----

/// Tells an array of statuses as records of these sectors.
int listed(TagWorkplace& place, const Sectors& sectors, int status) {
    place.records.clear();
    for (std::size_t i = 0; i < sectors.size(); ++i)
        if (place.statuses[i] != 0) place.records.push_back({static_cast<short>(sectors[i]), place.statuses[i]});
    std::ranges::fill(place.statuses, 0);
    return status;
}

Operation added(const std::string& name, const Bytes& before, bool isNew, short count, const Sectors& free) {
    const Call call = [=](TagWorkplace& place) { return isNew ? place.init(kId, count) : place.add(kApp, kId, count); };
    const int refused = isNew ? kApplicationExists : kApplicationMissing;
    const std::set<int> statuses{kDirectoryNotRead, kDirectoryNotWritten, kPartial, kRepairFailed, kTooFew, refused};
    Operation op{name, before, call, statuses, free, {0, kOwnApp}, kB};
    op.claims = true;
    op.goesOn = !isNew;
    return op;
}

/// From the application's start on; all of it with no start.
Operation removed(const std::string& name, short start, const Sectors& sectors) {
    const Call call = [=](TagWorkplace& place) {
        const int status = start == 0 ? place.adaptor->resetApp(0, kApp, kId, kB.data(), 0, sizeOf(sectors), place.tag,
                                                                AuthKeyB, kC.data(), nullptr, nullptr, place.statuses)
                                      : place.remove(kApp, kId, start, sizeOf(sectors), kC.data(), nullptr);
        return listed(place, sectors, status);
    };
    const std::set<int> statuses{kDirectoryNotRead, kDirectoryNotWritten, kPartial, kTooFew, kOutOfRange};
    return {name, ownTag(), call, statuses, sectors, {0, kOwnApp}};
}

/// Sectors of a tag without a directory, added or removed.
Operation plain(const std::string& name, std::size_t size, bool adding, short first, short count) {
    const Sectors sectors = range(first, count);
    const Call call = [=](TagWorkplace& place) {
        return adding ? place.add(kPlain, first, count, kNew1.data(), kNew2.data(), AccData110, kC.data())
                      : listed(place, sectors, place.remove(kPlain, first, 0, count, kC.data(), kNew2.data()));
    };
    return {name, plainTag(size), call, {kPartial}, sectors};
}

/// To a kind of tag, or back from it.
Operation formatted(const std::string& name, const Bytes& before, bool isBack, TagAppType kind, const Key& key) {
    const Sectors sectors = range(0, sectorsOf(before));
    const Call call = [=](TagWorkplace& place) {
        return isBack ? listed(place, sectors, place.unformat(kind, key, place.statuses)) : place.format(kind);
    };
    Operation op{name, before, call, {kPartial}, sectors, {0}, key, isBack ? AuthKeyB : AuthKeyA};
    op.findsTag = true;
    if (kind != kPlain) op.statuses.insert(kDirectoryNotWritten);
    if (kind != kPlain && !isBack) op.entries.insert(1);
    return op;
}

/// A block of a sector whose trailer has these access bytes gets another type.
Operation typeSet(const std::string& name, const Bytes& from, short kind, DataAccControl to, unsigned value,
                  short block = 9) {
    const int sector = sectorOf(block);
    const Call call = [=](TagWorkplace& place) { return place.type(kPlain, block, to, kNew1.data(), kind, value); };
    const Bytes before = with(plainTag(block < 64 ? 1024 : 4096), trailerOf(sector), trailerBytes(kA, from, 0x69, kC));
    return {name, before, call, {kBlockNotOpened, kTypeNotWritten, kTrailerNotRead, kAccessRefused}, {sector}};
}

/// New keys, or with an access code new trailers. In application mode the sectors are those of kOwnApp.
Operation trailersSet(const std::string& name, const Bytes& before, TagAppType kind, const Sectors& sectors,
                      DataAccControl access = AccInvalid) {
    const short id = kind == kPlain ? static_cast<short>(sectors[0]) : kId, count = sizeOf(sectors);
    const Call call = [=](TagWorkplace& place) {
        return access == AccInvalid ? place.keys(kind, id, count, kC.data(), kNew1.data(), kNew2.data())
                                    : place.trailers(kind, id, count, access, kNew1.data());
    };
    return {name, before, call, {kPartial, kDirectoryNotRead, kApplicationMissing}, sectors};
}

Operation dataMoved(const std::string& name, const Bytes& before, bool isWritten, TagAppType kind, short start,
                    const Sectors& blocks) {
    const Call call = [=, count = sizeOf(blocks)](TagWorkplace& place) {
        return isWritten ? place.write(kind, start, count, Bytes(blocks.size() * 16 - 5, 0xE5))
                         : place.read(kind, start, count);
    };
    Operation op{.name = name, .before = before, .call = call, .blocks = blocks};
    op.statuses = {kPartial, kDirectoryNotRead, kApplicationMissing};
    if (!isWritten) op.statuses.insert({kOutOfRange, kTooFew});
    for (const int block : blocks)
        if (isWritten) op.sectors.push_back(sectorOf(block));
    return op;
}

}  // namespace

Bytes trailerBytes(const Key& a, const Bytes& bits, std::uint8_t generalPurpose, const Key& b) {
    Bytes bytes(a.begin(), a.end());
    bytes.insert(bytes.end(), bits.begin(), bits.end());
    bytes.push_back(generalPurpose);
    bytes.insert(bytes.end(), b.begin(), b.end());
    return bytes;
}

Bytes directoryTag(const Entries& entries) {
    Bytes image = uniformTag(1024, trailerBytes(kMad, kFormattedBits, 0x69, kB));
    put(image, 1, Bytes(32, 0));
    put(image, 3, trailerBytes(kMad, {0x69, 0x67, 0x89}, 0xC1, kB));
    for (const auto& [sector, id] : entries) {
        const auto at = static_cast<std::size_t>(16 + 2 * sector);
        image[at] = static_cast<std::uint8_t>(id);
        image[at + 1] = static_cast<std::uint8_t>(id >> 8);
        if (id > 5) put(image, trailerOf(sector), trailerBytes(kA, kFormattedBits, 0x69, kC));
    }
    image[16] = directoryCrc(image);
    return image;
}

std::vector<Operation> readingOperations() {
    using Place = TagWorkplace;
    const Bytes own = ownTag();
    const std::set<int> noDirectory{kDirectoryNotRead, kNoDirectory};
    const std::set<int> noAccess{kDirectoryNotRead, kTrailerNotRead, kAccessRefused};
    const std::set<int> noValue{kTrailerNotRead, kValueNotRead, kNoValueBlock, kValueInconsistent, kAccessRefused};
    const auto directory = [](Place& place) {
        place.ids.assign(16, 0);
        return place.adaptor->getAppIdDir(0, kApp, place.tag, place.ids.data(), AuthKeyA, nullptr);
    };
    const auto access = [](Place& place) { return place.sectorAccess(kApp, kId, 2, place.codes.data()); };
    Operation all = dataMoved("getAppData", own, false, kApp, 0, {20, 21, 22, 28, 29, 30, 32, 33, 34});
    all.call = [](Place& place) { return place.readApp(); };
    return {
        {"getAllAppId", own, [](Place& place) { return place.apps(); }, noDirectory},
        {"getAppIdDir", own, directory, noDirectory},
        {"getValue", valueTag(), [](Place& place) { return place.value(kPlain, 9); }, noValue},
        {"getBlockAccessMode", own, [](Place& place) { return place.blockAccess(kApp, 4, kA.data()); }, noAccess},
        {"getSectorAccessMode", own, access, noAccess},
        dataMoved("getBlockData_plain", plainTag(), false, kPlain, 5, {5, 6, 8, 9, 10, 12}),
        dataMoved("getBlockData_4K", plainTag(4096), false, kPlain, 125, {125, 126, 128, 129, 130}),
        all,
    };
}

std::vector<Operation> otherOperations() {
    const std::pair<const char*, Call> calls[] = {
        {"initReader", [](TagWorkplace& place) { return place.adaptor->initReader() ? kOk : kReaderFailed; }},
        {"pollTag", [](TagWorkplace& place) { return place.poll().empty() ? kNoTag : kOk; }},
        {"pollTag_forced", [](TagWorkplace& place) { return place.poll(true).empty() ? kNoTag : kOk; }},
        {"haltAllTag", [](TagWorkplace& place) { return place.adaptor->haltAllTag(true); }},
        {"getTagId", [](TagWorkplace& place) { return place.findTag(); }},
        {"getTagId_application", [](TagWorkplace& place) { return place.findTag(kApp, kId, true); }},
        {"getAllTagId", [](TagWorkplace& place) { return place.findAll(kApp); }},
        {"getReaderId", [](TagWorkplace& place) { return place.askReaderId(); }},
        {"switchReaderLED", [](TagWorkplace& place) { return place.adaptor->switchReaderLED(2, 1, 5); }},
    };
    std::vector<Operation> all;
    for (const auto& [name, call] : calls)
        all.push_back({.name = name, .before = ownTag(), .call = call, .isTimedOnly = true});
    return all;
}

std::vector<Operation> writingOperations() {
    const Bytes own = ownTag();
    const Bytes foreign = with(factoryTag(1024), trailerOf(5), trailerBytes(kC, kFormattedBits, 0x69, kC));
    const Bytes locked = with(crowded(), trailerOf(6), trailerBytes(kMad, {0, 0, 0}, 0x69, kB));
    const Call setValue = [](TagWorkplace& place) { return place.setValue(kPlain, 9, kC.data(), -3); };
    const Call adjust = [](TagWorkplace& place) {
        return place.adjust(kPlain, 9, -1, ValueIncrement, kC.data(), AuthKeyB, 5);
    };
    const std::set<int> notSet{kBlockNotWritten, kTrailerNotRead, kNoValueBlock, kAccessRefused};
    std::vector<Operation> all{
        added("initApp_empty", directoryTag({}), true, 2, range(1, 15)),
        added("initApp_crowded", crowded(), true, 4, kFreeAmongOthers),
        added("initApp_lockedSector", locked, true, 3, kFreeAmongOthers),
        added("initApp_fills", nearlyFull(), true, 3, {7, 8, 15}),
        added("addAppSector_directory", crowded({{6, kOwnApp}, {7, kOwnApp}}), false, 2, {8, 10, 11, 12, 13, 14, 15}),
        added("addAppSector_low", directoryTag({{1, kOwnApp}, {2, 0x2211}}), false, 2, range(3, 13)),
        removed("removeAppSector_directory", 1, {7, 8}),
        removed("resetApp", 0, {5, 7, 8}),
        plain("addAppSector_plain", 1024, true, 0, 3),
        plain("addAppSector_plain4K", 4096, true, 31, 2),
        plain("removeAppSector_plain", 1024, false, 2, 3),
        plain("removeAppSector_plain4K", 4096, false, 31, 2),
        formatted("formatTag_mad1", factoryTag(1024), false, TagAppMad1, kFactory),
        formatted("formatTag_mad1_foreignSector", foreign, false, TagAppMad1, kFactory),
        formatted("formatTag_none", factoryTag(1024), false, TagAppNone, kFactory),
        formatted("unformatTag_mad1", directoryTag({}), true, TagAppMad1, kB),
        formatted("unformatTag_crowded", own, true, TagAppMad1, kB),
        formatted("unformatTag_none", plainTag(), true, TagAppNone, kC),
        trailersSet("setTrailerBlockType_factory", plainTag(), TagAppNone, {2, 3, 4}, AccTrailer001),
        trailersSet("setTrailerBlockType_app", own, TagAppMad1, {5, 7, 8}, AccTrailer011),
        trailersSet("setTrailerBlockType_4K", plainTag(4096), TagAppNone, {31, 32}, AccTrailer011),
        trailersSet("setKey_plain", plainTag(), TagAppNone, {2, 3, 4}),
        trailersSet("setKey_app", own, TagAppMad1, {5, 7, 8}),
        trailersSet("setKey_4K", plainTag(4096), TagAppNone, {31, 32, 33}),
        dataMoved("setBlockData_plain", plainTag(), true, TagAppNone, 5, {5, 6, 8, 9, 10, 12}),
        dataMoved("setBlockData_app", own, true, TagAppMad1, 1, {21, 22, 28, 29, 30, 32}),
        {"setValue", valueTag(), setValue, notSet, {2}},
        {"adjustValue", valueTag(), adjust, {kKeyRefused, kValueFailed}, {2}, {}, kC, AuthKeyB, {}, false, true},
        // The block is number 1 of its group of bits.
        typeSet("setDataBlockType_data", kFormattedBits, kData, AccData101, 0),
        typeSet("setDataBlockType_readOnly", kFormattedBits, kData, AccData010, 0),
        typeSet("setDataBlockType_value", kFormattedBits, kValue, AccData110, 77),
        typeSet("setDataBlockType_ticket", kFormattedBits, kValue, AccData001, 5),
        typeSet("setDataBlockType_from010", {0x5A, 0x57, 0x8A}, kData, AccData100, 0),
        typeSet("setDataBlockType_from101", {0x78, 0x75, 0xA8}, kValue, AccData110, 7),
        typeSet("setDataBlockType_from111", {0x58, 0x75, 0xAA}, kData, AccData000, 0),
        typeSet("setDataBlockType_from001", {0x7A, 0x55, 0xA8}, kData, AccData111, 0),
        typeSet("setDataBlockType_4K", {0x5A, 0x57, 0x8A}, kData, AccData100, 0, 128 + 16 + 7),
    };
    if (std::getenv("QVL_FULL_SWEEP") != nullptr) {
        all.push_back(formatted("formatTag_none4K", factoryTag(4096), false, TagAppNone, kFactory));
        all.push_back(formatted("unformatTag_none4K", plainTag(4096), true, TagAppNone, kC));
        all.push_back(plain("removeAppSector_plain4K_all", 4096, false, 0, 40));
    }
    return all;
}

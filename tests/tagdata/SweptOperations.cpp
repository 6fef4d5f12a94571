#include "SweptOperations.h"

#include <cstdlib>
#include <numeric>
#include <sstream>

namespace {

constexpr Key kNew1{0x71, 0x71, 0x71, 0x71, 0x71, 0x71}, kNew2{0x72, 0x72, 0x72, 0x72, 0x72, 0x72};
constexpr short kId = static_cast<short>(kOwnApp);

using Run = std::function<Outcome(TagWorkplace&)>;
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

// ---- how operations answer ----

/// The records of the workplace's own calls, which it keeps as text.
Outcome toldBy(TagWorkplace& place, int status) {
    Outcome out{.status = status};
    std::istringstream words(place.told);
    for (std::string word; words >> word;) {
        const std::size_t colon = word.find(':');
        const int each = colon == std::string::npos ? int{kOk} : std::stoi(word.substr(colon + 1));
        out.records.push_back({static_cast<short>(std::stoi(word)), each});
    }
    return out;
}

template <typename Call>
Run recorded(Call call) {
    return [call](TagWorkplace& place) {
        Outcome out;
        int count = 0;
        OpResultCode* results = nullptr;
        out.status = call(*place.adaptor, place.tag, count, results);
        if (results != nullptr) out.records.assign(results, results + count);
        place.adaptor->freeMemory(results);
        return out;
    };
}

/// An array of statuses, one a sector.
template <typename Call>
Run listed(const Sectors& sectors, Call call) {
    return [sectors, call](TagWorkplace& place) {
        std::vector<int> statuses(40, 0);
        Outcome out{.status = call(*place.adaptor, place.tag, statuses.data())};
        for (std::size_t i = 0; i < sectors.size(); ++i)
            if (statuses[i] != 0) out.records.push_back({static_cast<short>(sectors[i]), statuses[i]});
        return out;
    };
}

/// `count` items of one type.
template <typename T, typename Call>
Run items(std::size_t count, Call call) {
    return [=](TagWorkplace& place) {
        std::vector<T> all(count);
        Outcome out{.status = call(*place.adaptor, place.tag, all)};
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(all.data());
        out.data.assign(bytes, bytes + all.size() * sizeof(T));
        return out;
    };
}

// ---- operations ----

Operation added(const std::string& name, const Bytes& before, bool isNew, short count, const Sectors& free) {
    const Run run = [=](TagWorkplace& place) {
        return toldBy(place, isNew ? place.initApp(kId, count) : place.addApp(kId, count));
    };
    const int refused = isNew ? kApplicationExists : kApplicationMissing;
    const std::set<int> statuses{kDirectoryNotRead, kDirectoryNotWritten, kPartial, kRepairFailed, kTooFew, refused};
    Operation op{name, before, run, statuses, free, {0, kOwnApp}, kB};
    op.claims = true;
    op.goesOn = !isNew;
    return op;
}

Operation removed(const std::string& name, short start, const Sectors& sectors) {
    const Run run = listed(sectors, [=](ReaderImpl& ai, TagUID& tag, int* statuses) {
        return start == 0 ? ai.resetApp(0, TagAppMad1, kId, kB.data(), 0, sizeOf(sectors), tag, AuthKeyB, kC.data(),
                                        nullptr, nullptr, statuses)
                          : ai.removeAppSector(0, TagAppMad1, kId, kB.data(), 0, start, sizeOf(sectors), tag, AuthKeyB,
                                               kC.data(), nullptr, nullptr, statuses);
    });
    const std::set<int> statuses{kDirectoryNotRead, kDirectoryNotWritten, kPartial, kTooFew, kOutOfRange};
    return {name, ownTag(), run, statuses, sectors, {0, kOwnApp}};
}

/// Sectors of a tag without a directory, added or removed.
Operation plain(const std::string& name, std::size_t size, bool adding, short first, short count) {
    const Run add = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, OpResultCode*& results) {
        int done = 0;
        return ai.addAppSector(0, TagAppNone, first, nullptr, kC.data(), 0, count, tag, kNew1.data(), kNew2.data(),
                               AccData110, done, records, results);
    });
    const Sectors sectors = range(first, count);
    const Run remove = listed(sectors, [=](ReaderImpl& ai, TagUID& tag, int* statuses) {
        return ai.removeAppSector(0, TagAppNone, first, nullptr, 0, 0, count, tag, AuthKeyB, kC.data(), nullptr,
                                  kNew2.data(), statuses);
    });
    return {name, plainTag(size), adding ? add : remove, {kPartial}, sectors};
}

Operation formatted(const std::string& name, const Bytes& before, TagAppType kind) {
    const Run run = [=](TagWorkplace& place) { return toldBy(place, place.format(kind)); };
    Operation op{name, before, run, {kPartial}, range(0, sectorsOf(before)), {0}, kFactory, AuthKeyA};
    if (kind != TagAppNone) op.statuses.insert(kDirectoryNotWritten);
    if (kind != TagAppNone) op.entries.insert(1);
    op.findsTag = true;
    return op;
}

Operation unformatted(const std::string& name, const Bytes& before, TagAppType kind, const Key& key) {
    const Sectors sectors = range(0, sectorsOf(before));
    const Run run = listed(sectors, [=](ReaderImpl& ai, TagUID&, int* statuses) {
        TagUID* found = nullptr;
        Key copy = key;
        const int status = ai.unformatTag(0, kind, copy.data(), found, statuses);
        ai.freeMemory(found);
        return status;
    });
    Operation op{name, before, run, {kPartial}, sectors, {0}, key};
    if (kind != TagAppNone) op.statuses.insert(kDirectoryNotWritten);
    op.findsTag = true;
    return op;
}

/// A block of a sector whose trailer has these access bytes gets another type.
Operation typeSet(const std::string& name, const Bytes& from, short kind, DataAccControl to, unsigned value,
                  short block = 9) {
    const int sector = sectorOf(block);
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int&, OpResultCode*&) {
        return ai.setDataBlockType(0, TagAppNone, 0, tag, kNew1.data(), kC.data(), block, kind, to, value, AuthKeyA,
                                   nullptr);
    });
    const Bytes before = with(plainTag(block < 64 ? 1024 : 4096), trailerOf(sector), trailerBytes(kA, from, 0x69, kC));
    return {name, before, run, {kBlockNotOpened, kTypeNotWritten, kTrailerNotRead, kAccessRefused}, {sector}};
}

/// New keys, or with an access code new trailers. In application mode the sectors are those of kOwnApp.
Operation trailersSet(const std::string& name, const Bytes& before, TagAppType kind, const Sectors& sectors,
                      DataAccControl access = AccInvalid) {
    const short id = kind == TagAppNone ? static_cast<short>(sectors[0]) : kId, count = sizeOf(sectors);
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, OpResultCode*& results) {
        return access == AccInvalid ? ai.setKey(0, kind, id, tag, AuthKeyB, kC.data(), kNew1.data(), kNew2.data(),
                                                count, AuthKeyA, nullptr, records, results)
                                    : ai.setTrailerBlockType(0, kind, id, tag, AuthKeyB, kNew1.data(), kC.data(),
                                                             access, AuthKeyA, nullptr, count, records, results);
    });
    return {name, before, run, {kPartial, kDirectoryNotRead, kApplicationMissing}, sectors};
}

Operation dataSet(const std::string& name, const Bytes& before, TagAppType kind, short start, const Sectors& blocks) {
    const Run run = [=](TagWorkplace& place) {
        const Bytes bytes(blocks.size() * 16 - 5, 0xE5);
        return toldBy(place, place.write(kind, kId, start, sizeOf(blocks), bytes, kC));
    };
    Operation op{name, before, run, {kPartial, kDirectoryNotRead, kApplicationMissing}};
    for (const int block : blocks)
        op.sectors.push_back(sectorOf(block));
    op.blocks = blocks;
    return op;
}

Operation dataRead(const std::string& name, const Bytes& before, TagAppType kind, short start, const Sectors& blocks) {
    const Run run = [=](TagWorkplace& place) {
        Outcome out = toldBy(place, place.read(kind, kId, start, sizeOf(blocks), kA));
        out.data = place.data;
        return out;
    };
    Operation op{name, before, run, {kPartial, kDirectoryNotRead, kApplicationMissing, kOutOfRange, kTooFew}};
    op.blocks = blocks;
    return op;
}

Operation appRead() {
    Operation op = dataRead("getAppData", ownTag(), TagAppMad1, 0, {20, 21, 22, 28, 29, 30, 32, 33, 34});
    op.run = [](TagWorkplace& place) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        Outcome out = recorded([&](ReaderImpl& ai, TagUID& tag, int& records, OpResultCode*& results) {
            return ai.getAppData(0, TagAppMad1, tag, kId, AuthKeyA, kA.data(), bytes, length, AuthKeyA, nullptr,
                                 records, results);
        })(place);
        out.data.assign(bytes, bytes + length);
        place.adaptor->freeMemory(bytes);
        return out;
    };
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
    const Bytes own = ownTag();
    const auto allApps = [](ReaderImpl& ai, TagUID& tag, std::vector<short>& found) {
        short count = 0;
        short* ids = nullptr;
        const int status = ai.getAllAppId(0, TagAppMad1, tag, count, ids, AuthKeyA, nullptr);
        found.assign(ids, ids + count);
        ai.freeMemory(ids);
        return status;
    };
    const auto directory = [](ReaderImpl& ai, TagUID& tag, std::vector<short>& words) {
        return ai.getAppIdDir(0, TagAppMad1, tag, words.data(), AuthKeyA, nullptr);
    };
    const auto value = [](ReaderImpl& ai, TagUID& tag, std::vector<int>& number) {
        return ai.getValue(0, TagAppNone, tag, 0, AuthKeyA, kA.data(), 9, number[0], AuthKeyA, nullptr);
    };
    const auto blockAccess = [](ReaderImpl& ai, TagUID& tag, std::vector<DataAccControl>& code) {
        return ai.getBlockAccessMode(0, TagAppMad1, tag, kId, AuthKeyA, kA.data(), 4, code[0], AuthKeyA, nullptr);
    };
    const auto sectorAccess = [](ReaderImpl& ai, TagUID& tag, std::vector<DataAccControl>& codes) {
        return ai.getSectorAccessMode(0, TagAppMad1, tag, kId, AuthKeyA, kA.data(), 2, codes.data(), AuthKeyA, nullptr);
    };
    const std::set<int> noDirectory{kDirectoryNotRead, kNoDirectory};
    const std::set<int> noAccess{kDirectoryNotRead, kTrailerNotRead, kAccessRefused};
    const std::set<int> noValue{kTrailerNotRead, kValueNotRead, kNoValueBlock, kValueInconsistent, kAccessRefused};
    return {
        {"getAllAppId", own, items<short>(0, allApps), noDirectory},
        {"getAppIdDir", own, items<short>(16, directory), noDirectory},
        {"getValue", valueTag(), items<int>(1, value), noValue},
        {"getBlockAccessMode", own, items<DataAccControl>(1, blockAccess), noAccess},
        {"getSectorAccessMode", own, items<DataAccControl>(4, sectorAccess), noAccess},
        dataRead("getBlockData_plain", plainTag(), TagAppNone, 5, {5, 6, 8, 9, 10, 12}),
        dataRead("getBlockData_4K", plainTag(4096), TagAppNone, 125, {125, 126, 128, 129, 130}),
        appRead(),
    };
}

std::vector<Operation> otherOperations() {
    const Bytes own = ownTag();
    const auto timed = [&own](const std::string& name, std::function<int(TagWorkplace&)> call) {
        Operation op{.name = name, .before = own};
        op.run = [call = std::move(call)](TagWorkplace& place) { return Outcome{.status = call(place)}; };
        op.isTimedOnly = true;
        return op;
    };
    const auto search = [](TagAppType kind, short app, bool halt) {
        return [=](TagWorkplace& place) {
            TagUID* tag = nullptr;
            const int status = place.adaptor->getTagId(0, kind, app, tag, AuthKeyA, nullptr, halt);
            place.adaptor->freeMemory(tag);
            return status;
        };
    };
    return {
        timed("initReader", [](TagWorkplace& place) { return place.adaptor->initReader() ? kOk : kReaderFailed; }),
        timed("pollTag", [](TagWorkplace& place) { return place.poll().empty() ? kNoTag : kOk; }),
        timed("pollTag_forced", [](TagWorkplace& place) { return place.poll(true).empty() ? kNoTag : kOk; }),
        timed("haltAllTag", [](TagWorkplace& place) { return place.adaptor->haltAllTag(true); }),
        timed("getTagId", search(TagAppNone, 0, false)),
        timed("getTagId_application", search(TagAppMad1, kId, true)),
        timed("getAllTagId",
              [](TagWorkplace& place) {
                  short count = 0;
                  TagUID* tags = nullptr;
                  const int status = place.adaptor->getAllTagId(0, TagAppMad1, 0, AuthKeyA, nullptr, count, tags);
                  place.adaptor->freeMemory(tags);
                  return status;
              }),
        timed("getReaderId",
              [](TagWorkplace& place) {
                  std::uint8_t id[10];
                  std::uint16_t length = 0;
                  return place.adaptor->getReaderId(id, length);
              }),
        timed("switchReaderLED", [](TagWorkplace& place) { return place.adaptor->switchReaderLED(2, 1, 5); }),
    };
}

std::vector<Operation> writingOperations() {
    constexpr short kData = 2051, kValue = 2052;
    const Bytes own = ownTag();
    const Bytes foreign = with(factoryTag(1024), trailerOf(5), trailerBytes(kC, kFormattedBits, 0x69, kC));
    const Bytes locked = with(crowded(), trailerOf(6), trailerBytes(kMad, {0, 0, 0}, 0x69, kB));
    const Run setValue = recorded([](ReaderImpl& ai, TagUID& tag, int&, OpResultCode*&) {
        return ai.setValue(0, TagAppNone, tag, 0, AuthKeyB, kC.data(), 9, -3, AuthKeyA, nullptr);
    });
    const Run adjust = recorded([](ReaderImpl& ai, TagUID& tag, int&, OpResultCode*&) {
        return ai.adjustValue(0, TagAppNone, tag, 0, AuthKeyB, kC.data(), 9, ValueIncrement, 5, -1, AuthKeyA, nullptr);
    });
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
        formatted("formatTag_mad1", factoryTag(1024), TagAppMad1),
        formatted("formatTag_mad1_foreignSector", foreign, TagAppMad1),
        formatted("formatTag_none", factoryTag(1024), TagAppNone),
        unformatted("unformatTag_mad1", directoryTag({}), TagAppMad1, kB),
        unformatted("unformatTag_crowded", own, TagAppMad1, kB),
        unformatted("unformatTag_none", plainTag(), TagAppNone, kC),
        trailersSet("setTrailerBlockType_factory", plainTag(), TagAppNone, {2, 3, 4}, AccTrailer001),
        trailersSet("setTrailerBlockType_app", own, TagAppMad1, {5, 7, 8}, AccTrailer011),
        trailersSet("setTrailerBlockType_4K", plainTag(4096), TagAppNone, {31, 32}, AccTrailer011),
        trailersSet("setKey_plain", plainTag(), TagAppNone, {2, 3, 4}),
        trailersSet("setKey_app", own, TagAppMad1, {5, 7, 8}),
        trailersSet("setKey_4K", plainTag(4096), TagAppNone, {31, 32, 33}),
        dataSet("setBlockData_plain", plainTag(), TagAppNone, 5, {5, 6, 8, 9, 10, 12}),
        dataSet("setBlockData_app", own, TagAppMad1, 1, {21, 22, 28, 29, 30, 32}),
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
        all.push_back(formatted("formatTag_none4K", factoryTag(4096), TagAppNone));
        all.push_back(unformatted("unformatTag_none4K", plainTag(4096), TagAppNone, kC));
        all.push_back(plain("removeAppSector_plain4K_all", 4096, false, 0, 40));
    }
    return all;
}

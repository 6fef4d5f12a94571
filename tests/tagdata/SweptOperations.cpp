#include "SweptOperations.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr Key kNew1{0x71, 0x71, 0x71, 0x71, 0x71, 0x71}, kNew2{0x72, 0x72, 0x72, 0x72, 0x72, 0x72};

template <typename Call>
Outcome recorded(TagWorkplace& place, Call call) {
    Outcome out;
    int count = 0;
    OpResultCode* results = nullptr;
    out.status = call(*place.adaptor, count, results);
    if (results != nullptr) out.records.assign(results, results + count);
    place.adaptor->freeMemory(results);
    return out;
}

// Operations that fill an array of statuses, one a sector.
template <typename Call>
Outcome listed(TagWorkplace& place, const std::vector<int>& sectors, Call call) {
    Outcome out;
    std::vector<int> statuses(40, 0);
    out.status = call(*place.adaptor, statuses.data());
    for (std::size_t i = 0; i < sectors.size(); ++i)
        if (statuses[i] != 0) out.records.push_back({static_cast<short>(sectors[i]), statuses[i]});
    return out;
}

std::vector<int> range(int first, int count) {
    std::vector<int> all;
    for (int i = 0; i < count; ++i)
        all.push_back(first + i);
    return all;
}

Operation added(const std::string& name, const Bytes& before, bool isNew, int count, const std::vector<int>& free) {
    const auto run = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            int done = 0;
            const auto id = static_cast<short>(kOwnApp);
            const auto sectors = static_cast<short>(count);
            return isNew ? adaptor.initApp(0, TagAppMad1, id, kB.data(), nullptr, 0, sectors, place.tag, kA.data(),
                                           kC.data(), AccData100, done, records, results)
                         : adaptor.addAppSector(0, TagAppMad1, id, kB.data(), kB.data(), 0, sectors, place.tag,
                                                kA.data(), kC.data(), AccData100, done, records, results);
        });
    };
    return {.name = name,
            .before = before,
            .run = run,
            .statuses = {kDirectoryNotRead, kDirectoryNotWritten, kPartial, kRepairFailed, kTooFew,
                         isNew ? kApplicationExists : kApplicationMissing},
            .sectors = free,
            .entries = {0, kOwnApp},
            .trailers = {trailerBytes(kA, kFormattedBits, 0x69, kC)},
            .claims = true,
            .goesOn = !isNew};
}

Operation removed(const std::string& name, const Bytes& before, short start, const std::vector<int>& sectors) {
    const auto run = [=](TagWorkplace& place) {
        return listed(place, sectors, [&](ReaderImpl& adaptor, int* statuses) {
            const auto id = static_cast<short>(kOwnApp);
            const auto count = static_cast<short>(sectors.size());
            return start == 0 ? adaptor.resetApp(0, TagAppMad1, id, kB.data(), 0, count, place.tag, AuthKeyB, kC.data(),
                                                 nullptr, nullptr, statuses)
                              : adaptor.removeAppSector(0, TagAppMad1, id, kB.data(), 0, start, count, place.tag,
                                                        AuthKeyB, kC.data(), nullptr, nullptr, statuses);
        });
    };
    return {.name = name,
            .before = before,
            .run = run,
            .statuses = {kDirectoryNotRead, kDirectoryNotWritten, kPartial, kTooFew, kOutOfRange},
            .sectors = sectors,
            .entries = {0, kOwnApp},
            .key = kC};
}

Operation plain(const std::string& name, std::size_t size, bool adding, short first, short count) {
    const std::vector<int> sectors = range(first, count);
    const auto add = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            int done = 0;
            return adaptor.addAppSector(0, TagAppNone, first, nullptr, kC.data(), 0, count, place.tag, kNew1.data(),
                                        kNew2.data(), AccData110, done, records, results);
        });
    };
    const auto remove = [=](TagWorkplace& place) {
        return listed(place, sectors, [&](ReaderImpl& adaptor, int* statuses) {
            return adaptor.removeAppSector(0, TagAppNone, first, nullptr, 0, 0, count, place.tag, AuthKeyB, kC.data(),
                                           nullptr, kNew2.data(), statuses);
        });
    };
    Operation op{.name = name, .before = plainTag(size), .run = add, .statuses = {kPartial}, .sectors = sectors};
    if (!adding) op.run = remove;
    op.key = kC;
    return op;
}

Operation formatted(const std::string& name, const Bytes& before, TagAppType kind) {
    const auto run = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            TagUID* found = nullptr;
            Key b = kB;
            const int status = adaptor.formatTag(0, kind, b.data(), found, nullptr, records, results);
            adaptor.freeMemory(found);
            return status;
        });
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}};
    if (kind != TagAppNone) op.statuses.insert(kDirectoryNotWritten);
    op.sectors = range(0, sectorsOf(before));
    op.entries = kind == TagAppNone ? std::set<int>{0} : std::set<int>{0, 1};
    op.key = kFactory;
    op.mode = AuthKeyA;
    op.findsTag = true;
    return op;
}

Operation unformatted(const std::string& name, const Bytes& before, TagAppType kind, const Key& key) {
    const std::vector<int> sectors = range(0, sectorsOf(before));
    const auto run = [=](TagWorkplace& place) {
        return listed(place, sectors, [&](ReaderImpl& adaptor, int* statuses) {
            TagUID* found = nullptr;
            Key b = key;
            const int status = adaptor.unformatTag(0, kind, b.data(), found, statuses);
            adaptor.freeMemory(found);
            return status;
        });
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}, .sectors = sectors};
    if (kind != TagAppNone) op.statuses.insert(kDirectoryNotWritten);
    op.entries = {0};
    op.key = key;
    op.findsTag = true;
    return op;
}

struct TypeChange {
    const char* name;
    Bytes from;    // access bytes of the sector
    Bytes opened;  // the same with the block's group open; empty if it is
    short kind;
    DataAccControl to;
    unsigned value;
    int block = 9;
    std::size_t size = 1024;
};

Operation typeSet(const TypeChange& change) {
    const int sector = sectorOf(change.block);
    const auto run = [=](TagWorkplace& place) {
        return Outcome{place.adaptor->setDataBlockType(0, TagAppNone, 0, place.tag, kNew1.data(), kC.data(),
                                                       static_cast<short>(change.block), change.kind, change.to,
                                                       change.value, AuthKeyA, nullptr),
                       {},
                       {}};
    };
    Operation op{.name = std::string("setDataBlockType_") + change.name,
                 .before = with(plainTag(change.size), trailerOf(sector), trailerBytes(kA, change.from, 0x69, kC)),
                 .run = run,
                 .statuses = {kBlockNotOpened, kTypeNotWritten, kTrailerNotRead, kAccessRefused},
                 .sectors = {sector}};
    if (!change.opened.empty()) op.trailers = {trailerBytes(kNew1, change.opened, 0x69, kC)};
    op.key = kC;
    return op;
}

Operation trailersSet(const std::string& name, const Bytes& before, TagAppType kind, const std::vector<int>& sectors,
                      DataAccControl access) {
    const auto run = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            const auto id = static_cast<short>(kind == TagAppNone ? sectors[0] : int{kOwnApp});
            return adaptor.setTrailerBlockType(0, kind, id, place.tag, AuthKeyB, kNew1.data(), kC.data(), access,
                                               AuthKeyA, nullptr, static_cast<short>(sectors.size()), records, results);
        });
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}, .sectors = sectors};
    if (kind != TagAppNone) op.statuses.insert({kDirectoryNotRead, kApplicationMissing});
    op.key = kC;
    return op;
}

Operation keysSet(const std::string& name, const Bytes& before, TagAppType kind, const std::vector<int>& sectors) {
    const auto run = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            const auto id = static_cast<short>(kind == TagAppNone ? sectors[0] : int{kOwnApp});
            return adaptor.setKey(0, kind, id, place.tag, AuthKeyB, kC.data(), kNew1.data(), kNew2.data(),
                                  static_cast<short>(sectors.size()), AuthKeyA, nullptr, records, results);
        });
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}, .sectors = sectors};
    if (kind != TagAppNone) op.statuses.insert({kDirectoryNotRead, kApplicationMissing});
    op.key = kC;
    return op;
}

Operation dataSet(const std::string& name, const Bytes& before, TagAppType kind, short start,
                  const std::vector<int>& blocks) {
    const auto run = [=](TagWorkplace& place) {
        return recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            Bytes bytes(blocks.size() * 16 - 5, 0xE5);
            return adaptor.setBlockData(0, kind, place.tag, static_cast<short>(kOwnApp), AuthKeyB, kC.data(), start,
                                        static_cast<short>(blocks.size()), bytes.data(), static_cast<int>(bytes.size()),
                                        AuthKeyA, nullptr, nullptr, records, results);
        });
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}, .blocks = blocks};
    if (kind != TagAppNone) op.statuses.insert({kDirectoryNotRead, kApplicationMissing});
    for (const int block : blocks)
        if (!op.touches(sectorOf(block))) op.sectors.push_back(sectorOf(block));
    op.key = kC;
    return op;
}

// Two other applications, one of them in two pieces, a defect sector, and the sectors given.
Bytes crowded(const std::vector<std::pair<int, int>>& more = {}) {
    std::vector<std::pair<int, int>> entries{{1, 0x2211}, {2, 0x4433}, {4, 0x2211}, {9, 0x4433}, {3, 1}};
    entries.insert(entries.end(), more.begin(), more.end());
    return directoryTag(entries);
}

const std::vector<int> kFreeAmongOthers{5, 6, 7, 8, 10, 11, 12, 13, 14, 15};
const std::vector<std::pair<int, int>> kOwnSectors{{5, kOwnApp}, {7, kOwnApp}, {8, kOwnApp}};

// Three sectors are free.
Bytes nearlyFull() {
    std::vector<std::pair<int, int>> entries;
    for (const int sector : {1, 2, 3, 4, 5, 6, 9, 10, 11, 12, 13, 14})
        entries.emplace_back(sector, 0x2211);
    return directoryTag(entries);
}

// 64, a value block at its own place 9 with increment allowed.
Bytes valueTag() {
    const Bytes value{64, 0, 0, 0, 191, 255, 255, 255, 64, 0, 0, 0, 9, 246, 9, 246};
    return with(with(plainTag(1024), 9, value), 11, trailerBytes(kA, {0x58, 0x77, 0x8A}, 0x69, kC));
}

Operation valueSet(const std::string& name, bool adjusts) {
    const auto run = [=](TagWorkplace& place) {
        ReaderImpl& adaptor = *place.adaptor;
        return Outcome{
            adjusts ? adaptor.adjustValue(0, TagAppNone, place.tag, 0, AuthKeyB, kC.data(), 9, ValueIncrement, 5, -1,
                                          AuthKeyA, nullptr)
                    : adaptor.setValue(0, TagAppNone, place.tag, 0, AuthKeyB, kC.data(), 9, -3, AuthKeyA, nullptr),
            {},
            {}};
    };
    Operation op{.name = name, .before = valueTag(), .run = run, .sectors = {2}, .key = kC, .goesOn = adjusts};
    op.statuses = adjusts ? std::set<int>{kKeyRefused, kValueFailed}
                          : std::set<int>{kBlockNotWritten, kTrailerNotRead, kNoValueBlock, kAccessRefused};
    return op;
}

template <typename T>
Bytes bytesOf(const T* items, std::size_t count) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(items);
    return {bytes, bytes + count * sizeof(T)};
}

Operation dataRead(const std::string& name, const Bytes& before, TagAppType kind, short start,
                   const std::vector<int>& blocks) {
    const auto run = [=](TagWorkplace& place) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        Outcome out = recorded(place, [&](ReaderImpl& adaptor, int& records, OpResultCode*& results) {
            const auto id = static_cast<short>(kOwnApp);
            const auto count = static_cast<short>(blocks.size());
            return start == 0 ? adaptor.getAppData(0, kind, place.tag, id, AuthKeyA, kA.data(), bytes, length, AuthKeyA,
                                                   nullptr, records, results)
                              : adaptor.getBlockData(0, kind, place.tag, id, AuthKeyA, kA.data(), start, count, bytes,
                                                     length, AuthKeyA, nullptr, records, results);
        });
        if (bytes != nullptr) out.data.assign(bytes, bytes + length);
        place.adaptor->freeMemory(bytes);
        return out;
    };
    Operation op{.name = name, .before = before, .run = run, .statuses = {kPartial}, .blocks = blocks};
    if (kind != TagAppNone) op.statuses.insert({kDirectoryNotRead, kApplicationMissing, kOutOfRange, kTooFew});
    return op;
}

}  // namespace

std::vector<Operation> readingOperations() {
    const Bytes own = crowded(kOwnSectors);
    const auto allApps = [](TagWorkplace& place) {
        short count = 0;
        short* ids = nullptr;
        Outcome out;
        out.status = place.adaptor->getAllAppId(0, TagAppMad1, place.tag, count, ids, AuthKeyA, nullptr);
        if (ids != nullptr) out.data = bytesOf(ids, static_cast<std::size_t>(count));
        place.adaptor->freeMemory(ids);
        return out;
    };
    const auto directory = [](TagWorkplace& place) {
        short words[16] = {};
        const int status = place.adaptor->getAppIdDir(0, TagAppMad1, place.tag, words, AuthKeyA, nullptr);
        return Outcome{status, {}, bytesOf(words, 16)};
    };
    const auto value = [](TagWorkplace& place) {
        int number = 0;
        const int status =
            place.adaptor->getValue(0, TagAppNone, place.tag, 0, AuthKeyA, kA.data(), 9, number, AuthKeyA, nullptr);
        return Outcome{status, {}, bytesOf(&number, 1)};
    };
    const auto blockAccess = [](TagWorkplace& place) {
        DataAccControl code = AccInvalid;
        const int status = place.adaptor->getBlockAccessMode(0, TagAppMad1, place.tag, static_cast<short>(kOwnApp),
                                                             AuthKeyA, kA.data(), 4, code, AuthKeyA, nullptr);
        return Outcome{status, {}, bytesOf(&code, 1)};
    };
    const auto sectorAccess = [](TagWorkplace& place) {
        DataAccControl codes[4] = {};
        const int status = place.adaptor->getSectorAccessMode(0, TagAppMad1, place.tag, static_cast<short>(kOwnApp),
                                                              AuthKeyA, kA.data(), 2, codes, AuthKeyA, nullptr);
        return Outcome{status, {}, bytesOf(codes, 4)};
    };
    const std::set<int> noDirectory{kDirectoryNotRead, kNoDirectory};
    const std::set<int> noAccess{kDirectoryNotRead, kTrailerNotRead, kAccessRefused};
    return {
        {.name = "getAllAppId", .before = own, .run = allApps, .statuses = noDirectory},
        {.name = "getAppIdDir", .before = own, .run = directory, .statuses = noDirectory},
        {.name = "getValue",
         .before = valueTag(),
         .run = value,
         .statuses = {kTrailerNotRead, kValueNotRead, kNoValueBlock, kValueInconsistent, kAccessRefused}},
        {.name = "getBlockAccessMode", .before = own, .run = blockAccess, .statuses = noAccess},
        {.name = "getSectorAccessMode", .before = own, .run = sectorAccess, .statuses = noAccess},
        dataRead("getBlockData_plain", plainTag(1024), TagAppNone, 5, {5, 6, 8, 9, 10, 12}),
        dataRead("getBlockData_4K", plainTag(4096), TagAppNone, 125, {125, 126, 128, 129, 130}),
        dataRead("getAppData", own, TagAppMad1, 0, {20, 21, 22, 28, 29, 30, 32, 33, 34}),
    };
}

std::vector<Operation> writingOperations() {
    const Bytes own = crowded(kOwnSectors);
    const Bytes foreign = with(factoryTag(1024), trailerOf(5), trailerBytes(kC, kFormattedBits, 0x69, kC));
    const Bytes locked = with(crowded(), trailerOf(6), trailerBytes(kMad, {0, 0, 0}, 0x69, kB));
    std::vector<Operation> all{
        added("initApp_empty", directoryTag({}), true, 2, range(1, 15)),
        added("initApp_crowded", crowded(), true, 4, kFreeAmongOthers),
        added("initApp_lockedSector", locked, true, 3, kFreeAmongOthers),
        added("initApp_fills", nearlyFull(), true, 3, {7, 8, 15}),
        added("addAppSector_directory", crowded({{6, kOwnApp}, {7, kOwnApp}}), false, 2, {8, 10, 11, 12, 13, 14, 15}),
        added("addAppSector_low", directoryTag({{1, kOwnApp}, {2, 0x2211}}), false, 2, range(3, 13)),
        removed("removeAppSector_directory", own, 1, {7, 8}),
        removed("resetApp", own, 0, {5, 7, 8}),
        plain("addAppSector_plain", 1024, true, 0, 3),
        plain("addAppSector_plain4K", 4096, true, 31, 2),
        plain("removeAppSector_plain", 1024, false, 2, 3),
        plain("removeAppSector_plain4K", 4096, false, 31, 2),
        formatted("formatTag_mad1", factoryTag(1024), TagAppMad1),
        formatted("formatTag_mad1_foreignSector", foreign, TagAppMad1),
        formatted("formatTag_none", factoryTag(1024), TagAppNone),
        unformatted("unformatTag_mad1", directoryTag({}), TagAppMad1, kB),
        unformatted("unformatTag_crowded", own, TagAppMad1, kB),
        unformatted("unformatTag_none", plainTag(1024), TagAppNone, kC),
        trailersSet("setTrailerBlockType_factory", plainTag(1024), TagAppNone, {2, 3, 4}, AccTrailer001),
        trailersSet("setTrailerBlockType_app", own, TagAppMad1, {5, 7, 8}, AccTrailer011),
        trailersSet("setTrailerBlockType_4K", plainTag(4096), TagAppNone, {31, 32}, AccTrailer011),
        keysSet("setKey_plain", plainTag(1024), TagAppNone, {2, 3, 4}),
        keysSet("setKey_app", own, TagAppMad1, {5, 7, 8}),
        keysSet("setKey_4K", plainTag(4096), TagAppNone, {31, 32, 33}),
        dataSet("setBlockData_plain", plainTag(1024), TagAppNone, 5, {5, 6, 8, 9, 10, 12}),
        valueSet("setValue", false),
        valueSet("adjustValue", true),
        dataSet("setBlockData_app", own, TagAppMad1, 1, {21, 22, 28, 29, 30, 32}),
    };
    // The block is number 1 of its group of bits.
    const TypeChange changes[] = {
        {"data", kFormattedBits, {}, 2051, AccData101, 0},
        {"readOnly", kFormattedBits, {}, 2051, AccData010, 0},
        {"value", kFormattedBits, {}, 2052, AccData110, 77},
        {"ticket", kFormattedBits, {}, 2052, AccData001, 5},
        {"from010", {0x5A, 0x57, 0x8A}, kFormattedBits, 2051, AccData100, 0},
        {"from101", {0x78, 0x75, 0xA8}, kFormattedBits, 2052, AccData110, 7},
        {"from111", {0x58, 0x75, 0xAA}, kFormattedBits, 2051, AccData000, 0},
        {"from001", {0x7A, 0x55, 0xA8}, kFormattedBits, 2051, AccData111, 0},
        {"4K", {0x5A, 0x57, 0x8A}, kFormattedBits, 2051, AccData100, 0, 128 + 16 + 7, 4096},
    };
    for (const TypeChange& change : changes)
        all.push_back(typeSet(change));
    if (std::getenv("QVL_FULL_SWEEP") != nullptr) {
        all.push_back(formatted("formatTag_none4K", factoryTag(4096), TagAppNone));
        all.push_back(unformatted("unformatTag_none4K", plainTag(4096), TagAppNone, kC));
        all.push_back(plain("removeAppSector_plain4K_all", 4096, false, 0, 40));
    }
    return all;
}

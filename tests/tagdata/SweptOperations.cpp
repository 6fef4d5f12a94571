#include "SweptOperations.h"

#include <algorithm>
#include <cstdlib>

namespace {

constexpr Key kNew1{0x71, 0x71, 0x71, 0x71, 0x71, 0x71}, kNew2{0x72, 0x72, 0x72, 0x72, 0x72, 0x72};

using Run = std::function<Outcome(TagWorkplace&)>;
using Records = OpResultCode*&;

constexpr short kId = static_cast<short>(kOwnApp);

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

// Operations that fill an array of statuses, one a sector.
template <typename Call>
Run listed(const std::vector<int>& sectors, Call call) {
    return [sectors, call](TagWorkplace& place) {
        Outcome out;
        std::vector<int> statuses(40, 0);
        out.status = call(*place.adaptor, place.tag, statuses.data());
        for (std::size_t i = 0; i < sectors.size(); ++i)
            if (statuses[i] != 0) out.records.push_back({static_cast<short>(sectors[i]), statuses[i]});
        return out;
    };
}

std::vector<int> range(int first, int count) {
    std::vector<int> all;
    for (int i = 0; i < count; ++i)
        all.push_back(first + i);
    return all;
}

Operation make(const std::string& name, const Bytes& before, const std::vector<int>& sectors, const Key& key,
               std::set<int> statuses, Run run) {
    Operation op;
    op.name = name;
    op.before = before;
    op.run = std::move(run);
    op.statuses = std::move(statuses);
    op.sectors = sectors;
    op.key = key;
    return op;
}

Operation added(const std::string& name, const Bytes& before, bool isNew, short count, const std::vector<int>& free) {
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, Records results) {
        int done = 0;
        return isNew ? ai.initApp(0, TagAppMad1, kId, kB.data(), nullptr, 0, count, tag, kA.data(), kC.data(),
                                  AccData100, done, records, results)
                     : ai.addAppSector(0, TagAppMad1, kId, kB.data(), kB.data(), 0, count, tag, kA.data(), kC.data(),
                                       AccData100, done, records, results);
    });
    const int refused = isNew ? kApplicationExists : kApplicationMissing;
    Operation op = make(name, before, free, kB,
                        {kDirectoryNotRead, kDirectoryNotWritten, kPartial, kRepairFailed, kTooFew, refused}, run);
    op.entries = {0, kOwnApp};
    op.trailers = {trailerBytes(kA, kFormattedBits, 0x69, kC)};
    op.claims = true;
    op.goesOn = !isNew;
    return op;
}

Operation removed(const std::string& name, const Bytes& before, short start, const std::vector<int>& sectors) {
    const auto count = static_cast<short>(sectors.size());
    const Run run = listed(sectors, [=](ReaderImpl& ai, TagUID& tag, int* statuses) {
        return start == 0 ? ai.resetApp(0, TagAppMad1, kId, kB.data(), 0, count, tag, AuthKeyB, kC.data(), nullptr,
                                        nullptr, statuses)
                          : ai.removeAppSector(0, TagAppMad1, kId, kB.data(), 0, start, count, tag, AuthKeyB, kC.data(),
                                               nullptr, nullptr, statuses);
    });
    Operation op =
        make(name, before, sectors, kC, {kDirectoryNotRead, kDirectoryNotWritten, kPartial, kTooFew, kOutOfRange}, run);
    op.entries = {0, kOwnApp};
    return op;
}

Operation plain(const std::string& name, std::size_t size, bool adding, short first, short count) {
    const Run add = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, Records results) {
        int done = 0;
        return ai.addAppSector(0, TagAppNone, first, nullptr, kC.data(), 0, count, tag, kNew1.data(), kNew2.data(),
                               AccData110, done, records, results);
    });
    const std::vector<int> sectors = range(first, count);
    const Run remove = listed(sectors, [=](ReaderImpl& ai, TagUID& tag, int* statuses) {
        return ai.removeAppSector(0, TagAppNone, first, nullptr, 0, 0, count, tag, AuthKeyB, kC.data(), nullptr,
                                  kNew2.data(), statuses);
    });
    return make(name, plainTag(size), sectors, kC, {kPartial}, adding ? add : remove);
}

// Both directions of formatting, which find their tag by themselves.
Operation formatted(const std::string& name, const Bytes& before, TagAppType kind, const Key* back = nullptr) {
    const std::vector<int> sectors = range(0, sectorsOf(before));
    Key key = back != nullptr ? *back : kB;
    const Run there = recorded([=](ReaderImpl& ai, TagUID&, int& records, Records results) {
        TagUID* found = nullptr;
        Key copy = key;
        const int status = ai.formatTag(0, kind, copy.data(), found, nullptr, records, results);
        ai.freeMemory(found);
        return status;
    });
    const Run home = listed(sectors, [=](ReaderImpl& ai, TagUID&, int* statuses) {
        TagUID* found = nullptr;
        Key copy = key;
        const int status = ai.unformatTag(0, kind, copy.data(), found, statuses);
        ai.freeMemory(found);
        return status;
    });
    Operation op =
        make(name, before, sectors, back != nullptr ? key : kFactory, {kPartial}, back != nullptr ? home : there);
    if (kind != TagAppNone) op.statuses.insert(kDirectoryNotWritten);
    op.entries = {0};
    if (kind != TagAppNone && back == nullptr) op.entries.insert(1);
    op.mode = back != nullptr ? AuthKeyB : AuthKeyA;
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
    short block = 9;
    std::size_t size = 1024;
};

Operation typeSet(const TypeChange& change) {
    const int sector = sectorOf(change.block);
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int&, Records) {
        return ai.setDataBlockType(0, TagAppNone, 0, tag, kNew1.data(), kC.data(), change.block, change.kind, change.to,
                                   change.value, AuthKeyA, nullptr);
    });
    const Bytes before = with(plainTag(change.size), trailerOf(sector), trailerBytes(kA, change.from, 0x69, kC));
    Operation op = make(std::string("setDataBlockType_") + change.name, before, {sector}, kC,
                        {kBlockNotOpened, kTypeNotWritten, kTrailerNotRead, kAccessRefused}, run);
    if (!change.opened.empty()) op.trailers = {trailerBytes(kNew1, change.opened, 0x69, kC)};
    return op;
}

/// New keys, or with an access code new trailers. In application mode the sectors are those of kOwnApp.
Operation trailersSet(const std::string& name, const Bytes& before, TagAppType kind, const std::vector<int>& sectors,
                      DataAccControl access = AccInvalid) {
    const short id = kind == TagAppNone ? static_cast<short>(sectors[0]) : kId;
    const auto count = static_cast<short>(sectors.size());
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, Records results) {
        return access == AccInvalid ? ai.setKey(0, kind, id, tag, AuthKeyB, kC.data(), kNew1.data(), kNew2.data(),
                                                count, AuthKeyA, nullptr, records, results)
                                    : ai.setTrailerBlockType(0, kind, id, tag, AuthKeyB, kNew1.data(), kC.data(),
                                                             access, AuthKeyA, nullptr, count, records, results);
    });
    return make(name, before, sectors, kC, {kPartial, kDirectoryNotRead, kApplicationMissing}, run);
}

Operation dataSet(const std::string& name, const Bytes& before, TagAppType kind, short start,
                  const std::vector<int>& blocks) {
    const auto count = static_cast<short>(blocks.size());
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int& records, Records results) {
        Bytes bytes(static_cast<std::size_t>(count) * 16 - 5, 0xE5);
        return ai.setBlockData(0, kind, tag, kId, AuthKeyB, kC.data(), start, count, bytes.data(),
                               static_cast<int>(bytes.size()), AuthKeyA, nullptr, nullptr, records, results);
    });
    Operation op = make(name, before, {}, kC, {kPartial, kDirectoryNotRead, kApplicationMissing}, run);
    op.blocks = blocks;
    for (const int block : blocks)
        if (!op.touches(sectorOf(block))) op.sectors.push_back(sectorOf(block));
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
    const Run run = recorded([=](ReaderImpl& ai, TagUID& tag, int&, Records) {
        return adjusts ? ai.adjustValue(0, TagAppNone, tag, 0, AuthKeyB, kC.data(), 9, ValueIncrement, 5, -1, AuthKeyA,
                                        nullptr)
                       : ai.setValue(0, TagAppNone, tag, 0, AuthKeyB, kC.data(), 9, -3, AuthKeyA, nullptr);
    });
    const std::set<int> adjusting{kKeyRefused, kValueFailed};
    const std::set<int> setting{kBlockNotWritten, kTrailerNotRead, kNoValueBlock, kAccessRefused};
    Operation op = make(name, valueTag(), {2}, kC, adjusts ? adjusting : setting, run);
    op.goesOn = adjusts;
    return op;
}

/// A reading operation that gives `count` items of one type.
template <typename T, typename Call>
Operation read(const std::string& name, const Bytes& before, std::size_t count, const std::set<int>& statuses,
               Call call) {
    const Run run = [=](TagWorkplace& place) {
        std::vector<T> items(count);
        Outcome out;
        out.status = call(*place.adaptor, place.tag, items);
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(items.data());
        out.data.assign(bytes, bytes + items.size() * sizeof(T));
        return out;
    };
    return make(name, before, {}, kA, statuses, run);
}

Operation dataRead(const std::string& name, const Bytes& before, TagAppType kind, short start,
                   const std::vector<int>& blocks) {
    const auto run = [=](TagWorkplace& place) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        Outcome out = recorded([&](ReaderImpl& ai, TagUID& tag, int& records, Records results) {
            const auto count = static_cast<short>(blocks.size());
            return start == 0 ? ai.getAppData(0, kind, tag, kId, AuthKeyA, kA.data(), bytes, length, AuthKeyA, nullptr,
                                              records, results)
                              : ai.getBlockData(0, kind, tag, kId, AuthKeyA, kA.data(), start, count, bytes, length,
                                                AuthKeyA, nullptr, records, results);
        })(place);
        if (bytes != nullptr) out.data.assign(bytes, bytes + length);
        place.adaptor->freeMemory(bytes);
        return out;
    };
    Operation op =
        make(name, before, {}, kA, {kPartial, kDirectoryNotRead, kApplicationMissing, kOutOfRange, kTooFew}, run);
    op.blocks = blocks;
    return op;
}

}  // namespace

std::vector<Operation> readingOperations() {
    const Bytes own = crowded(kOwnSectors);
    const auto allApps = [](ReaderImpl& ai, TagUID& tag, std::vector<short>& items) {
        short count = 0;
        short* ids = nullptr;
        const int status = ai.getAllAppId(0, TagAppMad1, tag, count, ids, AuthKeyA, nullptr);
        items.assign(ids, ids + count);
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
        read<short>("getAllAppId", own, 0, noDirectory, allApps),
        read<short>("getAppIdDir", own, 16, noDirectory, directory),
        read<int>("getValue", valueTag(), 1, noValue, value),
        read<DataAccControl>("getBlockAccessMode", own, 1, noAccess, blockAccess),
        read<DataAccControl>("getSectorAccessMode", own, 4, noAccess, sectorAccess),
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
        formatted("unformatTag_mad1", directoryTag({}), TagAppMad1, &kB),
        formatted("unformatTag_crowded", own, TagAppMad1, &kB),
        formatted("unformatTag_none", plainTag(1024), TagAppNone, &kC),
        trailersSet("setTrailerBlockType_factory", plainTag(1024), TagAppNone, {2, 3, 4}, AccTrailer001),
        trailersSet("setTrailerBlockType_app", own, TagAppMad1, {5, 7, 8}, AccTrailer011),
        trailersSet("setTrailerBlockType_4K", plainTag(4096), TagAppNone, {31, 32}, AccTrailer011),
        trailersSet("setKey_plain", plainTag(1024), TagAppNone, {2, 3, 4}),
        trailersSet("setKey_app", own, TagAppMad1, {5, 7, 8}),
        trailersSet("setKey_4K", plainTag(4096), TagAppNone, {31, 32, 33}),
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
        all.push_back(formatted("unformatTag_none4K", plainTag(4096), TagAppNone, &kC));
        all.push_back(plain("removeAppSector_plain4K_all", 4096, false, 0, 40));
    }
    return all;
}

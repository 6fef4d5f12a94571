#pragma once

#include "SweptOperations.h"

inline constexpr TagAppType kPlain = TagAppNone, kApp = TagAppMad1;
inline constexpr short kId = static_cast<short>(kOwnApp);

/// Operations with one argument after the other in the hands of the test.
class TagCalls : public ::testing::Test {
  protected:
    using Pointer = const std::uint8_t*;

    int add(TagAppType kind, short id, short sectors, Pointer a = kA.data(), Pointer b = kC.data()) {
        int done = 0;
        return ai.addAppSector(0, kind, id, kB.data(), kB.data(), 0, sectors, tag, a, b, AccData100, done, count,
                               results);
    }
    int init(short id, short sectors, Pointer madKey = kB.data()) {
        int done = 0;
        return ai.initApp(0, kApp, id, madKey, kB.data(), 0, sectors, tag, kA.data(), kC.data(), AccData100, done,
                          count, results);
    }
    int remove(TagAppType kind, short id, short start, short sectors, Pointer key = kC.data(),
               Pointer newB = kC.data()) {
        int statuses[40];
        return ai.removeAppSector(0, kind, id, kB.data(), 0, start, sectors, tag, AuthKeyB, key, nullptr, newB,
                                  statuses);
    }
    int read(TagAppType kind, short start, short blocks, Pointer key = kA.data()) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        const int status = ai.getBlockData(0, kind, tag, kId, AuthKeyA, key, start, blocks, bytes, length, AuthKeyA,
                                           nullptr, count, results);
        ai.freeMemory(bytes);
        return status;
    }
    int write(TagAppType kind, short start, short blocks, int length, std::uint8_t* bytes, Pointer key = kC.data()) {
        return ai.setBlockData(0, kind, tag, kId, AuthKeyB, key, start, blocks, bytes, length, AuthKeyA, nullptr,
                               nullptr, count, results);
    }
    int keys(short first, short sectors, Pointer key = kC.data()) {
        return ai.setKey(0, kPlain, first, tag, AuthKeyB, key, kA.data(), kC.data(), sectors, AuthKeyA, nullptr, count,
                         results);
    }
    int trailers(short first, short sectors, int access, Pointer a = kA.data()) {
        return ai.setTrailerBlockType(0, kPlain, first, tag, AuthKeyB, a, kC.data(),
                                      static_cast<DataAccControl>(access), AuthKeyA, nullptr, sectors, count, results);
    }
    int type(TagAppType kind, short block, int access, Pointer a = kA.data(), short as = 2051, unsigned number = 5) {
        return ai.setDataBlockType(0, kind, kId, tag, a, kC.data(), block, as, static_cast<DataAccControl>(access),
                                   number, AuthKeyA, nullptr);
    }
    int value(TagAppType kind, int block, Pointer key = kA.data()) {
        return ai.getValue(0, kind, tag, kId, AuthKeyA, key, block, count, AuthKeyA, nullptr);
    }
    int setValue(TagAppType kind, int block, Pointer key = kC.data(), int number = 1) {
        return ai.setValue(0, kind, tag, kId, AuthKeyB, key, block, number, AuthKeyA, nullptr);
    }
    int adjust(TagAppType kind, int block, int transfer, int operation = 0, Pointer key = kC.data(),
               AuthKeyMode mode = AuthKeyB, unsigned amount = 1) {
        return ai.adjustValue(0, kind, tag, kId, mode, key, block, static_cast<ValueBlockOper>(operation), amount,
                              transfer, AuthKeyA, nullptr);
    }
    int blockAccess(int block, Pointer key = kMad.data()) {
        return ai.getBlockAccessMode(0, kPlain, tag, kId, AuthKeyA, key, block, codes[0], AuthKeyA, nullptr);
    }
    int sectorAccess(TagAppType kind, short id, short index, DataAccControl* out, Pointer key = kA.data()) {
        return ai.getSectorAccessMode(0, kind, tag, id, AuthKeyA, key, index, out, AuthKeyA, nullptr);
    }
    /// "status number:status ..." of a call with records, which go.
    std::string told(int status) {
        std::string text = std::to_string(status);
        for (int i = 0; i < count && results != nullptr; ++i)
            text += " " + std::to_string(results[i].number) + ":" + std::to_string(results[i].status);
        ai.freeMemory(std::exchange(results, nullptr));
        return text;
    }

    // Sectors 5, 7 and 8 are the application's; 1, 2, 4 and 9 belong to others, 3
    // is defect.
    const Bytes layout = directoryTag(
        {{1, 0x2211}, {2, 0x4433}, {3, 1}, {4, 0x2211}, {5, kOwnApp}, {7, kOwnApp}, {8, kOwnApp}, {9, 0x4433}});
    TagWorkplace place;
    ReaderImpl& ai = *place.adaptor;
    TagUID& tag = place.tag;
    DataAccControl codes[4] = {};
    std::uint8_t buffer[64] = {};
    int count = 0;
    OpResultCode* results = nullptr;
};

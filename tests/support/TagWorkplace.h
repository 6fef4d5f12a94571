#pragma once

#include "Workplace.h"

#include "SectorAccessBits.h"
#include "TagGeometry.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>

using Key = std::array<std::uint8_t, 6>;
inline constexpr Key kFactory{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
inline constexpr Key kMad{0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
inline constexpr Key kA{0x0A, 0x0A, 0x0A, 0x0A, 0x0A, 0x0A};
inline constexpr Key kB{0x0B, 0x0B, 0x0B, 0x0B, 0x0B, 0x0B};
inline constexpr Key kC{0x0C, 0x0C, 0x0C, 0x0C, 0x0C, 0x0C};

inline constexpr TagAppType kPlain = TagAppNone, kApp = TagAppMad1;
inline constexpr std::uint16_t kOwnApp = 0x1234;
inline constexpr short kId = static_cast<short>(kOwnApp);
inline constexpr short kData = 2051, kValue = 2052;  ///< Types of a block.

/// A reader that is ready, and one Classic tag on it that the host knows.
class TagWorkplace : public Workplace {
  public:
    using Pointer = const std::uint8_t*;

    explicit TagWorkplace(std::size_t size = 1024, Line line = Line::inProcess) : Workplace(line) {
        const Bytes uid{0xDE, 0xAD, 0xBE, 0xEF};
        virtualTag = std::make_shared<MifareClassicTag>(MifareClassicTag::blankImage(size, uid), uid);
        name = reader->field().place(virtualTag);
        start().initReader();
        tag = TagUID(uid.data(), 4, size == 4096 ? kTag4K : kTagStandard);
    }

    // The tag's memory from outside.
    Bytes image() const {
        const auto lock = reader->field().lock();
        const auto bytes = virtualTag->memory()->bytes();
        return {bytes.begin(), bytes.end()};
    }
    void setImage(const Bytes& bytes) const {
        const auto lock = reader->field().lock();
        virtualTag->memory()->assign(bytes);
    }
    Bytes block(int which) const {
        const Bytes all = image();
        return {all.begin() + which * 16, all.begin() + which * 16 + 16};
    }
    void poke(int block, const Bytes& bytes) const {
        Bytes all = image();
        std::copy(bytes.begin(), bytes.end(), all.begin() + block * 16);
        setImage(all);
    }

    // Operations with the arguments that a test rarely varies; what they tell stays behind.
    int format(TagAppType kind, const Key* newKeyA = nullptr) {
        TagUID* found = nullptr;
        Key b = kB, a = newKeyA != nullptr ? *newKeyA : Key{};
        const int status =
            adaptor->formatTag(0, kind, b.data(), found, newKeyA != nullptr ? a.data() : nullptr, count, mResults);
        adaptor->freeMemory(found);
        return keep(status);
    }
    int unformat(TagAppType kind, Key key = kB, int* told = nullptr) {
        TagUID* found = nullptr;
        const int status = adaptor->unformatTag(0, kind, key.data(), found, told);
        adaptor->freeMemory(found);
        return status;
    }
    int init(short id, short sectors, Pointer madKey = kB.data()) {
        return keep(adaptor->initApp(0, kApp, id, madKey, kB.data(), 0, sectors, tag, kA.data(), kC.data(), AccData100,
                                     mDone, count, mResults));
    }
    int add(TagAppType kind, short id, short sectors, Pointer a = kA.data(), Pointer b = kC.data(),
            DataAccControl access = AccData100, Pointer key = kB.data()) {
        return keep(adaptor->addAppSector(0, kind, id, madKeyOf(kind), key, 0, sectors, tag, a, b, access, mDone, count,
                                          mResults));
    }
    int remove(TagAppType kind, short id, short start, short sectors, Pointer key = kC.data(),
               Pointer newB = kC.data()) {
        return adaptor->removeAppSector(0, kind, id, madKeyOf(kind), 0, start, sectors, tag, AuthKeyB, key, nullptr,
                                        newB, statuses);
    }
    int read(TagAppType kind, short first, short blocks, Pointer key = kA.data(), short id = kId) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        return keepData(adaptor->getBlockData(0, kind, tag, id, AuthKeyA, key, first, blocks, bytes, length, AuthKeyA,
                                              nullptr, count, mResults),
                        bytes, length);
    }
    int write(TagAppType kind, short first, short blocks, int length, std::uint8_t* bytes, Pointer key = kC.data(),
              AuthKeyMode mode = AuthKeyB, Pointer fill = nullptr) {
        return keep(adaptor->setBlockData(0, kind, tag, kId, mode, key, first, blocks, bytes, length, AuthKeyA, nullptr,
                                          fill, count, mResults));
    }
    int write(TagAppType kind, short first, short blocks, Bytes bytes, Pointer key = kC.data(),
              AuthKeyMode mode = AuthKeyB, Pointer fill = nullptr) {
        return write(kind, first, blocks, static_cast<int>(bytes.size()), bytes.data(), key, mode, fill);
    }
    int keys(TagAppType kind, short first, short sectors, Pointer key = kC.data(), Pointer a = kA.data(),
             Pointer b = kC.data()) {
        return keep(
            adaptor->setKey(0, kind, first, tag, AuthKeyB, key, a, b, sectors, AuthKeyA, nullptr, count, mResults));
    }
    int trailers(TagAppType kind, short first, short sectors, int access, Pointer a = kA.data()) {
        return keep(adaptor->setTrailerBlockType(0, kind, first, tag, AuthKeyB, a, kC.data(),
                                                 static_cast<DataAccControl>(access), AuthKeyA, nullptr, sectors, count,
                                                 mResults));
    }
    int type(TagAppType kind, short block, int access, Pointer a = kA.data(), short as = kData, unsigned value = 5) {
        return keep(adaptor->setDataBlockType(0, kind, kId, tag, a, kC.data(), block, as,
                                              static_cast<DataAccControl>(access), value, AuthKeyA, nullptr));
    }
    int value(TagAppType kind, int block, Pointer key = kA.data()) {
        number = -77;
        return adaptor->getValue(0, kind, tag, kId, AuthKeyA, key, block, number, AuthKeyA, nullptr);
    }
    int setValue(TagAppType kind, int block, Pointer key = kC.data(), int to = 1) {
        return keep(adaptor->setValue(0, kind, tag, kId, AuthKeyB, key, block, to, AuthKeyA, nullptr));
    }
    int adjust(TagAppType kind, int block, int transfer, int operation = 0, Pointer key = kC.data(),
               AuthKeyMode mode = AuthKeyB, unsigned amount = 1) {
        return keep(adaptor->adjustValue(0, kind, tag, kId, mode, key, block, static_cast<ValueBlockOper>(operation),
                                         amount, transfer, AuthKeyA, nullptr));
    }
    int blockAccess(TagAppType kind, int block, Pointer key = kMad.data()) {
        codes.fill(AccInvalid);
        return adaptor->getBlockAccessMode(0, kind, tag, kId, AuthKeyA, key, block, codes[0], AuthKeyA, nullptr);
    }
    int sectorAccess(TagAppType kind, short id, short index, DataAccControl* out, Pointer key = kA.data()) {
        codes.fill(AccInvalid);
        return adaptor->getSectorAccessMode(0, kind, tag, id, AuthKeyA, key, index, out, AuthKeyA, nullptr);
    }
    int apps(AuthKeyMode mode = AuthKeyA, Pointer key = nullptr) {
        short found = 0;
        short* list = nullptr;
        const int status = adaptor->getAllAppId(0, kApp, tag, found, list, mode, key);
        ids.assign(list, list + found);
        adaptor->freeMemory(list);
        return status;
    }
    int readApp() {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        return keepData(adaptor->getAppData(0, kApp, tag, kId, AuthKeyA, kA.data(), bytes, length, AuthKeyA, nullptr,
                                            count, mResults),
                        bytes, length);
    }
    /// "status", then the number of each record, with its own status where that is not 3100.
    std::string told(int status) const {
        std::string text = std::to_string(status);
        for (const auto& [where, each] : records)
            text += " " + std::to_string(where) + (each == kOk ? "" : ":" + std::to_string(each));
        return text;
    }

    std::vector<OpResultCode> records;  ///< Of the last operation.
    Bytes data;
    std::vector<short> ids;
    std::array<DataAccControl, 4> codes{};
    int count = 0, number = 0, statuses[40] = {};
    std::shared_ptr<MifareClassicTag> virtualTag;
    std::string name;
    TagUID tag;

  private:
    static Pointer madKeyOf(TagAppType kind) { return kind == kPlain ? nullptr : kB.data(); }
    int keep(int status) {
        records.assign(mResults, mResults + (mResults != nullptr ? count : 0));
        adaptor->freeMemory(std::exchange(mResults, nullptr));
        return status;
    }
    int keepData(int status, std::uint8_t*& bytes, const int& length) {
        data.assign(bytes, bytes + (bytes != nullptr ? length : 0));
        adaptor->freeMemory(bytes);
        return keep(status);
    }

    int mDone = 0;
    OpResultCode* mResults = nullptr;
};

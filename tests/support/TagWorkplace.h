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

/// A reader that is ready, and one Classic tag on it that the host knows.
class TagWorkplace : public Workplace {
  public:
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
    Bytes block(int number) const {
        const Bytes all = image();
        return {all.begin() + number * 16, all.begin() + number * 16 + 16};
    }
    void poke(int block, const Bytes& bytes) const {
        Bytes all = image();
        std::copy(bytes.begin(), bytes.end(), all.begin() + block * 16);
        setImage(all);
    }

    // Operations with the arguments that a test rarely varies.
    int format(TagAppType kind, const Key* newKeyA = nullptr) {
        TagUID* found = nullptr;
        Key b = kB, a = newKeyA != nullptr ? *newKeyA : Key{};
        const int status =
            adaptor->formatTag(0, kind, b.data(), found, newKeyA != nullptr ? a.data() : nullptr, count, results);
        adaptor->freeMemory(found);
        return keep(status);
    }
    int unformat(TagAppType kind) {
        TagUID* found = nullptr;
        Key b = kB;
        const int status = adaptor->unformatTag(0, kind, b.data(), found, nullptr);
        adaptor->freeMemory(found);
        return status;
    }
    int initApp(short id, short sectors) {
        return keep(adaptor->initApp(0, TagAppMad1, id, kB.data(), kB.data(), 0, sectors, tag, kA.data(), kC.data(),
                                     AccData100, done, count, results));
    }
    int addApp(short id, short sectors) {
        return keep(adaptor->addAppSector(0, TagAppMad1, id, kB.data(), kB.data(), 0, sectors, tag, kA.data(),
                                          kC.data(), AccData100, done, count, results));
    }
    int read(TagAppType kind, short id, short first, short blocks, const Key& key, AuthKeyMode mode = AuthKeyA) {
        std::uint8_t* bytes = nullptr;
        int length = 0;
        const int status = adaptor->getBlockData(0, kind, tag, id, mode, key.data(), first, blocks, bytes, length,
                                                 AuthKeyA, nullptr, count, results);
        data.assign(bytes, bytes + (bytes != nullptr ? length : 0));
        adaptor->freeMemory(bytes);
        return keep(status);
    }
    int write(TagAppType kind, short id, short first, short blocks, Bytes bytes, const Key& key,
              AuthKeyMode mode = AuthKeyB, const std::uint8_t* fill = nullptr) {
        return keep(adaptor->setBlockData(0, kind, tag, id, mode, key.data(), first, blocks, bytes.data(),
                                          static_cast<int>(bytes.size()), AuthKeyA, nullptr, fill, count, results));
    }

    /// "sector:status ..." or "block:status ..." of the last operation; the status only where it is not 3100.
    std::string told;
    Bytes data;
    int done = 0, count = 0;
    std::shared_ptr<MifareClassicTag> virtualTag;
    std::string name;
    TagUID tag;

  private:
    int keep(int status) {
        told.clear();
        for (int i = 0; i < count && results != nullptr; ++i) {
            told += (i > 0 ? " " : "") + std::to_string(results[i].number);
            if (results[i].status != kOk) told += ":" + std::to_string(results[i].status);
        }
        adaptor->freeMemory(results);
        results = nullptr;
        return status;
    }
    OpResultCode* results = nullptr;
};

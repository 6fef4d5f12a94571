#pragma once

#include "Blocks.h"
#include "KeyRing.h"
#include "Tag.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>
#include <utility>
#include <vector>

namespace qvl {

/// Asked before each sector of long work: how long its operations may wait. May throw to end the work.
using SectorStep = std::function<Limit(int sector, int sectors)>;
inline Limit usualStep(int, int) { return Limit(kUsualWait); }

/// All of a tag's memory as far as the keys reach, block 0 first. The library reads no trailers: they are composed of
/// the keys that have opened the sector and of its conditions. It holds keys, and wipes itself.
struct TagImage {
    Geometry geometry{};
    Bytes bytes;
    std::vector<int> read;       ///< Blocks straight from the tag.
    std::vector<int> composed;   ///< Trailers; on an Ultralight the pages of the UID.
    std::vector<int> unprovenB;  ///< Trailers whose key B can be read on the tag and so could not be tried.
    std::vector<int> missing;    ///< Blocks that are zero here and something else on the tag.

    TagImage() = default;
    TagImage(const TagImage&) = delete;
    TagImage& operator=(const TagImage&) = delete;
    TagImage(TagImage&&) = default;
    TagImage& operator=(TagImage&& other) noexcept {
        std::swap(geometry, other.geometry);
        bytes.swap(other.bytes);
        read.swap(other.read);
        composed.swap(other.composed);
        unprovenB.swap(other.unprovenB);
        missing.swap(other.missing);
        return *this;
    }
    ~TagImage() {
        if (!bytes.empty()) ::explicit_bzero(bytes.data(), bytes.size());
    }

    /// @throws Error if the tag has no memory of this kind, cannot be asked, or `step` throws.
    static TagImage of(const Tag& tag, const KeyRing& keys, const SectorStep& step = usualStep);
};

namespace detail {

/// Layout of a sector trailer.
struct TrailerBytes {
    static constexpr std::size_t kAccess = 6, kGeneralPurpose = 9, kKeyB = 10;
    static constexpr std::uint8_t kPlain = 0x69, kWithDirectory = 0xC1;
};

inline bool hasDirectory(const Tag& tag, const OpenSector& sector, const Limit& limit) {
    const auto login = sector.loginFor(Who::either);
    try {
        if (!login) return false;
        static_cast<void>(tag.directory(*login, limit));
        return true;
    } catch (const Error& error) {
        if (error.reason() != Reason::content) throw;
        return false;
    }
}

class ImageReader {
  public:
    ImageReader(const Tag& tag, const KeyRing& keys, TagImage& image) : mTag(tag), mKeys(keys), mImage(image) {}

    void readSector(int number, const Limit& limit) {
        const OpenSector sector = OpenSector::of(mTag, number, mKeys, limit);
        const Geometry& geometry = mImage.geometry;
        std::vector<int> left;
        for (int block = geometry.firstBlock(number); block < geometry.trailerOf(number); ++block)
            left.push_back(block);
        for (const KeyType type : {KeyType::a, KeyType::b})
            if (sector.key(type)) readBlocks(left, {*sector.key(type), type}, limit);
        mImage.missing.insert(mImage.missing.end(), left.begin(), left.end());
        if (sector.isOpen())
            composeTrailer(number, sector, limit);
        else
            mImage.missing.push_back(geometry.trailerOf(number));
    }
    /// Pages 0 and 1 of an Ultralight are no data to the library, but they are the UID.
    void readPages(const Limit& limit) {
        constexpr int kFirstFreePage = 2;
        constexpr std::uint8_t kCascadeTag = 0x88;
        constexpr std::size_t kUidSize = 7;
        std::vector<int> left;
        for (int page = kFirstFreePage; page < mImage.geometry.blocks; ++page)
            left.push_back(page);
        readBlocks(left, {}, limit);
        mImage.missing = left;
        const Uid uid = mTag.uid();
        const ByteView bytes = uid.bytes();
        if (bytes.size() != kUidSize) {
            mImage.missing.insert(mImage.missing.begin(), {0, 1});
            return;
        }
        std::copy_n(bytes.begin(), 3, at(0));
        at(0)[3] = static_cast<std::uint8_t>(kCascadeTag ^ bytes[0] ^ bytes[1] ^ bytes[2]);
        std::copy_n(bytes.begin() + 3, 4, at(1));
        mImage.composed = {0, 1};
    }

  private:
    std::uint8_t* at(int block) { return mImage.bytes.data() + block * mImage.geometry.blockSize; }

    /// Reads what is `left`, run by run, and leaves there what could not be read.
    void readBlocks(std::vector<int>& left, const Login& login, const Limit& limit) {
        std::vector<int> failed;
        for (std::size_t begin = 0, end = 0; begin < left.size(); begin = end) {
            for (end = begin + 1; end < left.size() && left[end] == left[end - 1] + 1;)
                ++end;
            const std::span run(left.begin() + static_cast<std::ptrdiff_t>(begin), end - begin);
            readRun(run, login, limit, failed);
        }
        left = std::move(failed);
    }
    void readRun(std::span<const int> run, const Login& login, const Limit& limit, std::vector<int>& failed) {
        try {
            const Blocks blocks = mTag.read(run.front(), static_cast<int>(run.size()), login, limit);
            for (std::size_t i = 0; i < run.size(); ++i) {
                const bool isRead = i < blocks.list().size() && blocks.list()[i].ok();
                if (isRead) std::ranges::copy(blocks.at(i), at(run[i]));
                (isRead ? mImage.read : failed).push_back(run[i]);
            }
        } catch (const Error& error) {
            if (error.reason() != Reason::notPermitted && error.reason() != Reason::wrongKey) throw;
            failed.insert(failed.end(), run.begin(), run.end());
        }
    }
    void composeTrailer(int number, const OpenSector& sector, const Limit& limit) {
        const int block = mImage.geometry.trailerOf(number);
        std::uint8_t* trailer = at(block);
        if (sector.keyA) std::ranges::copy(sector.keyA->bytes(), trailer);
        std::ranges::copy(sector.access.encode(), trailer + TrailerBytes::kAccess);
        trailer[TrailerBytes::kGeneralPurpose] =
            number == 0 && hasDirectory(mTag, sector, limit) ? TrailerBytes::kWithDirectory : TrailerBytes::kPlain;
        const auto guesses = mKeys.candidates(number, KeyType::b);
        const bool isData = sector.trailer().keyBIsData() && !guesses.empty();
        if (sector.keyB)
            std::ranges::copy(sector.keyB->bytes(), trailer + TrailerBytes::kKeyB);
        else if (isData)
            std::ranges::copy(guesses.front().bytes(), trailer + TrailerBytes::kKeyB);
        if (!sector.keyB && isData) mImage.unprovenB.push_back(block);
        (sector.keyA && (sector.keyB || isData) ? mImage.composed : mImage.missing).push_back(block);
    }

    const Tag& mTag;
    const KeyRing& mKeys;
    TagImage& mImage;
};

class ImageWriter {
  public:
    ImageWriter(const Tag& tag, const KeyRing& keys, const Geometry& geometry, ByteView image)
        : mTag(tag), mKeys(keys), mGeometry(geometry), mImage(image) {}

    void writeSector(int number, bool trailers, std::span<const int> without, const Limit& limit) {
        const OpenSector sector = OpenSector::of(mTag, number, mKeys, limit);
        const int first = std::max(mGeometry.firstBlock(number), 1);  // block 0 is the maker's
        writeData(first, mGeometry.trailerOf(number), without, limit, [&](int block) {
            const DataRule& data = rule(sector.access.data[static_cast<std::size_t>(mGeometry.groupOf(block))]);
            return sector.loginFor(sector.trailer().inEffect(data.write));
        });
        const int trailer = mGeometry.trailerOf(number);
        if (trailers && !isIn(without, trailer)) enter(trailer, writeTrailer(number, sector, limit));
    }
    /// Below page 4 of an Ultralight are UID, lock and one-time bits.
    void writePages(std::span<const int> without, const Limit& limit) {
        constexpr int kFirstUserPage = 4;
        writeData(kFirstUserPage, mGeometry.blocks, without, limit, [](int) { return std::optional<Login>(Login{}); });
    }
    std::vector<Result> take() { return std::move(mResults); }

  private:
    static bool isIn(std::span<const int> list, int block) { return std::ranges::find(list, block) != list.end(); }
    void enter(int block, int status) { mResults.push_back({block, status}); }
    ByteView at(int block, int count = 1) const {
        const auto size = static_cast<std::size_t>(mGeometry.blockSize);
        return mImage.subspan(static_cast<std::size_t>(block) * size, static_cast<std::size_t>(count) * size);
    }

    template <typename LoginFor>
    void writeData(int first, int end, std::span<const int> without, const Limit& limit, LoginFor loginFor) {
        for (int block = first, next = first; block < end; block = next) {
            next = block + 1;
            if (isIn(without, block)) continue;
            const std::optional<Login> login = loginFor(block);
            while (next < end && !isIn(without, next) && sameLogin(login, loginFor(next)))
                ++next;
            if (login)
                writeRun(block, next - block, *login, limit);
            else
                for (int each = block; each < next; ++each)
                    enter(each, kBlockNotWritten);
        }
    }
    static bool sameLogin(const std::optional<Login>& left, const std::optional<Login>& right) {
        if (!left || !right) return !left && !right;
        return left->type == right->type && left->key == right->key;
    }
    void writeRun(int first, int count, const Login& login, const Limit& limit) {
        try {
            const Results results = mTag.write(first, count, at(first, count), login, limit);
            mResults.insert(mResults.end(), results.list().begin(), results.list().end());
        } catch (const Error& error) {
            if (error.reason() != Reason::notPermitted && error.reason() != Reason::wrongKey) throw;
            for (int block = first; block < first + count; ++block)
                enter(block, error.status());
        }
    }
    /// Keys first: the conditions are written with the keys that the sector then has.
    int writeTrailer(int number, const OpenSector& sector, const Limit& limit) {
        const ByteView wanted = at(mGeometry.trailerOf(number));
        const KeyPair keys{Key(wanted.first<Key::kSize>()),
                           Key(wanted.subspan(TrailerBytes::kKeyB).first<Key::kSize>())};
        const auto access = SectorAccess::decode(wanted.subspan(TrailerBytes::kAccess).first<SectorAccess::kBytes>());
        if (keys.a.isBlank() || keys.b.isBlank() || !access) return kAccessRefused;
        if (isThere(number, sector, keys, *access, limit)) return kOk;
        const auto login = sector.loginFor(sector.trailer().inEffect(sector.trailer().writeAll()));
        if (!login) return kBlockNotWritten;
        if (!canBeWritten(*access) || wanted[TrailerBytes::kGeneralPurpose] != TrailerBytes::kPlain)
            return kAccessRefused;
        try {
            mTag.setKeys(number, 1, keys, *login, limit).orThrow("sector");
            mTag.setTrailers(number, 1, access->trailer, keys, login->type, limit).orThrow("sector");
            return kOk;
        } catch (const Error& error) {
            if (error.reason() != Reason::notPermitted && error.reason() != Reason::wrongKey) throw;
            return kBlockNotWritten;
        }
    }
    /// A key B that can be read cannot be compared: then the trailer is written.
    bool isThere(int number, const OpenSector& sector, const KeyPair& keys, const SectorAccess& access,
                 const Limit& limit) const {
        const ByteView wanted = at(mGeometry.trailerOf(number));
        const bool wantsDirectory = wanted[TrailerBytes::kGeneralPurpose] != TrailerBytes::kPlain;
        return sector.keyA == keys.a && sector.keyB == keys.b && sector.access == access &&
               wantsDirectory == (number == 0 && hasDirectory(mTag, sector, limit));
    }
    /// The two sets of conditions that the library writes.
    static bool canBeWritten(const SectorAccess& access) {
        constexpr SectorAccess kFactory{};
        constexpr SectorAccess kFormatted{{DataAccess::writeB, DataAccess::writeB, DataAccess::writeB},
                                          TrailerAccess::bits011};
        return access == kFactory || access == kFormatted;
    }

    const Tag& mTag;
    const KeyRing& mKeys;
    const Geometry mGeometry;
    const ByteView mImage;
    std::vector<Result> mResults;
};

}  // namespace detail

inline TagImage TagImage::of(const Tag& tag, const KeyRing& keys, const SectorStep& step) {
    const auto geometry = tag.geometry();
    if (!geometry)
        throw Error(Reason::notPermitted, kNotAllowedHere,
                    std::string("a tag of type ") + tag.typeName() + " has no memory of this kind");
    TagImage image;
    image.geometry = *geometry;
    image.bytes.resize(geometry->bytes());
    detail::ImageReader reader(tag, keys, image);
    for (int sector = 0; sector < geometry->sectors; ++sector) {
        const Limit limit = step(sector, geometry->sectors);
        geometry->hasTrailers ? reader.readSector(sector, limit) : reader.readPages(limit);
    }
    for (auto* list : {&image.read, &image.missing})
        std::ranges::sort(*list);
    return image;
}

/// Writes an image to a tag: its data, and with `trailers` keys and conditions. `keys` are those that the tag has now.
/// Block 0, pages 0 to 3 of an Ultralight and the blocks `without` are left alone. Of trailers only those of factory
/// and formatted sectors can be written, besides those that are on the tag already. @throws Error (badArgument) for an
/// image of another size.
inline Results writeImage(const Tag& tag, ByteView image, const KeyRing& keys, bool trailers = false,
                          std::span<const int> without = {}, const SectorStep& step = usualStep) {
    const auto geometry = tag.geometry();
    if (!geometry || geometry->bytes() != image.size())
        throw Error(Reason::badArgument, "the image has " + std::to_string(image.size()) + " bytes, and this tag, " +
                                             tag.typeName() + ", has " +
                                             std::to_string(geometry ? geometry->bytes() : 0));
    detail::ImageWriter writer(tag, keys, *geometry, image);
    for (int sector = 0; sector < geometry->sectors; ++sector) {
        const Limit limit = step(sector, geometry->sectors);
        geometry->hasTrailers ? writer.writeSector(sector, trailers, without, limit)
                              : writer.writePages(without, limit);
    }
    return Results(writer.take());
}

}  // namespace qvl

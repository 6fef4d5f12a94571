#pragma once

#include "Access.h"
#include "Geometry.h"
#include "Key.h"
#include "Tag.h"

#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace qvl {

/// Keys that may open the sectors of a tag, for work on all of its memory.
class KeyRing {
  public:
    /// Worth a try for every sector: as key A, as key B, as both.
    void addA(const Key& key) { mA.push_back(key); }
    void addB(const Key& key) { mB.push_back(key); }
    void add(const Key& key) {
        mA.push_back(key);
        mB.push_back(key);
    }
    /// The keys in the trailers of a tag's image, each for its sector. @throws Error (badArgument) for another size.
    void addImage(ByteView image) {
        constexpr std::size_t kTrailer = 16, kKeyB = 10;
        for (const std::uint32_t type : {kTagStandard, kTag4K}) {
            const Geometry geometry = *Geometry::of(type);
            if (image.size() != geometry.bytes()) continue;
            for (int sector = 0; sector < geometry.sectors; ++sector) {
                const auto at = static_cast<std::size_t>(geometry.trailerOf(sector)) * kTrailer;
                mOfSectors.push_back(
                    {Key(image.subspan(at).first<Key::kSize>()), Key(image.subspan(at + kKeyB).first<Key::kSize>())});
            }
            return;
        }
        throw Error(Reason::badArgument, "the image is not one of a Mifare Classic 1K or 4K");
    }
    bool empty() const { return mA.empty() && mB.empty() && mOfSectors.empty(); }

    /// Those worth a try in a sector, the likeliest first. An empty ring holds the published keys.
    std::vector<Key> candidates(int sector, KeyType type) const {
        const bool asA = type == KeyType::a;
        if (empty()) return asA ? std::vector{Key::factory(), Key::directory()} : std::vector{Key::factory()};
        std::vector<Key> all;
        const auto at = static_cast<std::size_t>(sector);
        if (sector >= 0 && at < mOfSectors.size()) {
            const Key& own = asA ? mOfSectors[at].a : mOfSectors[at].b;
            if (!own.isBlank()) all.push_back(own);
        }
        const std::vector<Key>& others = asA ? mA : mB;
        all.insert(all.end(), others.begin(), others.end());
        return all;
    }

  private:
    std::vector<Key> mA, mB;
    std::vector<KeyPair> mOfSectors;
};

/// What keys of a ring have told of a sector: those that open it, and its conditions.
struct OpenSector {
    std::optional<Key> keyA, keyB;
    SectorAccess access;

    bool isOpen() const { return keyA || keyB; }
    const std::optional<Key>& key(KeyType type) const { return type == KeyType::a ? keyA : keyB; }
    const TrailerRule& trailer() const { return rule(access.trailer); }
    /// A key that `who` names and that is there.
    std::optional<Login> loginFor(Who who) const {
        for (const KeyType type : {KeyType::a, KeyType::b})
            if (allows(who, type) && key(type)) return Login{*key(type), type};
        return std::nullopt;
    }

    /// Tries the keys on a sector. One that none opens, or whose access bits are not valid, is not open then.
    /// @throws Error if the tag cannot be asked.
    static OpenSector of(const Tag& tag, int number, const KeyRing& keys, const Limit& limit = Limit(kUsualWait)) {
        OpenSector sector;
        for (const KeyType type : {KeyType::a, KeyType::b}) {
            // A key B that can be read opens nothing: there is no way to try it.
            if (type == KeyType::b && sector.keyA && sector.trailer().keyBIsData()) break;
            for (const Key& key : keys.candidates(number, type)) {
                const auto access = sector.tryKey(tag, number, {key, type}, limit);
                if (!access) continue;
                sector.access = *access;
                (type == KeyType::a ? sector.keyA : sector.keyB) = key;
                break;
            }
        }
        return sector;
    }

  private:
    static std::optional<SectorAccess> tryKey(const Tag& tag, int number, const Login& login, const Limit& limit) {
        try {
            return tag.access(number, login, limit);
        } catch (const Error& error) {
            const bool isRefused = error.reason() == Reason::wrongKey || error.status() == kAccessRefused;
            if (!isRefused) throw;
            return std::nullopt;
        }
    }
};

}  // namespace qvl

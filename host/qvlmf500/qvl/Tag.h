#pragma once

#include "Memory.h"
#include "Uid.h"

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qvl {

class Tag;

/// An application in the directory of a tag: its blocks, numbered from 0 within it.
class Application : public Memory {
  public:
    std::uint16_t id() const { return static_cast<std::uint16_t>(mAppId); }

    /// The sectors of the tag that belong to it, in the order of its blocks.
    std::vector<int> sectors(const Limit& limit = Limit(kUsualWait)) const {
        std::vector<int> sectors;
        const auto entries = directoryEntries(mDirectory.value_or(Login{Key::directory()}), limit);
        for (std::size_t sector = 0; sector < entries.size(); ++sector)
            if (entries[sector] == id()) sectors.push_back(static_cast<int>(sector));
        return sectors;
    }
    /// All of its blocks.
    Blocks readAll(const Login& login = {}, const Limit& limit = Limit(kUsualWait)) const {
        return read(0, kAllBlocks, login, limit);
    }
    /// Writes all of its blocks, value blocks too: the data, then `fill` again and again, or zeros.
    Results writeAll(ByteView data, const Login& login = {},
                     const std::optional<std::array<std::uint8_t, 16>>& fill = {},
                     const Limit& limit = Limit(kUsualWait)) const {
        Bytes copy(data.begin(), data.end());
        detail::Call call(mSession, limit);
        detail::FromLibrary<OpResultCode> records(call.library());
        int count = 0;
        const int status = call.library().setAppData(0, mAppType, ownTag(), mAppId, mode(login), bytes(login),
                                                     copy.data(), length(copy), directoryMode(), directoryKey(),
                                                     fill ? fill->data() : nullptr, count, records.out());
        return checked(call, status, results(records, count), "block");
    }

    /// Gives it more sectors, above those that it has. @return the sectors of the tag. See Tag::createApplication.
    std::vector<int> addSectors(int count, const Key& directoryB, const KeyPair& newKeys,
                                const std::optional<Key>& freeSectorB = {}, DataAccess access = DataAccess::writeB,
                                const Limit& limit = Limit(kUsualWait)) const {
        return give(&ReaderImpl::addAppSector, count, directoryB, newKeys, freeSectorB, access, limit);
    }
    /// Takes sectors from it, from a place in the list of its sectors, and clears them; all of them remove it. `login`
    /// may write their trailers. Freed sectors get the new keys, or the public key A and the directory's key B.
    Results removeSectors(int from, int count, const Key& directoryB, const Login& login,
                          const std::optional<Key>& newKeyA = {}, const std::optional<Key>& newKeyB = {},
                          const Limit& limit = Limit(kUsualWait)) const {
        std::vector<int> statuses(static_cast<std::size_t>(small(count)));
        detail::Call call(mSession, limit);
        const int status = call.library().removeAppSector(
            0, mAppType, mAppId, directoryB.bytes().data(), 0, small(from), small(count), ownTag(), mode(login),
            bytes(login), bytes(newKeyA), bytes(newKeyB), statuses.data());
        std::vector<Result> list;
        for (std::size_t i = 0; i < statuses.size() && statuses[i] != 0; ++i)
            list.push_back({from + static_cast<int>(i), statuses[i]});
        return checked(call, status, std::move(list), "position");
    }
    /// Replaces both keys of all its sectors; `login` may write the trailers.
    Results setKeys(const KeyPair& newKeys, const Login& login, const Limit& limit = Limit(kUsualWait)) const {
        return changeKeys(0, 1, newKeys, login, limit);
    }
    /// See Tag::setTrailers.
    Results setTrailers(TrailerAccess access, const KeyPair& keys, KeyType opensWith,
                        const Limit& limit = Limit(kUsualWait)) const {
        return changeTrailers(0, 1, access, keys, opensWith, limit);
    }

  private:
    friend class Tag;
    Application(const Memory& tag, std::uint16_t id, const Login& directory) : Memory(tag, id, directory) {}

    std::vector<int> give(decltype(&ReaderImpl::initApp) operation, int count, const Key& directoryB,
                          const KeyPair& newKeys, const std::optional<Key>& freeSectorB, DataAccess access,
                          const Limit& limit) const {
        detail::Call call(mSession, limit);
        detail::FromLibrary<OpResultCode> records(call.library());
        int done = 0, recordCount = 0;
        const int status =
            (call.library().*operation)(0, mAppType, mAppId, directoryB.bytes().data(), bytes(freeSectorB), 0,
                                        small(count), ownTag(), newKeys.a.bytes().data(), newKeys.b.bytes().data(),
                                        static_cast<DataAccControl>(access), done, recordCount, records.out());
        check(call, status);
        std::vector<int> sectors;
        for (const Result& each : results(records, recordCount))
            if (each.ok()) sectors.push_back(each.number);
        return sectors;
    }
};

/// A storage tag or card that was found by a Reader. A handle: copies are the same tag. Use it from any thread, as long
/// as the Reader is open; after that its operations throw Error (noReader).
class Tag : public Memory {
  public:
    Uid uid() const { return Uid(ByteView(mTag.getUid(), mTag.getUidLen())); }
    /// Type code (TagTypes.h).
    std::uint32_t type() const { return mTag.getTagType(); }
    /// Such as "Mifare Standard".
    const char* typeName() const { return tagInfoByType(type()).name; }
    /// None for a type without memory of this kind.
    std::optional<Geometry> geometry() const { return Geometry::of(type()); }

    /// The applications in the directory, each once. `directory` opens sector 0.
    std::vector<std::uint16_t> applications(const Login& directory = {Key::directory()},
                                            const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        detail::FromLibrary<short> ids(call.library());
        short count = 0;
        check(call,
              call.library().getAllAppId(0, TagAppMad1, ownTag(), count, ids.out(), mode(directory), bytes(directory)));
        return {ids.get(), ids.get() + (ids.get() ? count : 0)};
    }
    /// The entry of each sector at its number: an application, 0 for a free sector, 1 for a defect one.
    std::array<std::uint16_t, 16> directory(const Login& login = {Key::directory()},
                                            const Limit& limit = Limit(kUsualWait)) const {
        return directoryEntries(login, limit);
    }
    /// An application that is on the tag; nothing is asked of the tag yet. `directory` opens sector 0.
    Application application(std::uint16_t id, const Login& directory = {Key::directory()}) const {
        return Application(*this, id, directory);
    }
    /// Creates one from free sectors. `directoryB` is key B of sector 0, `freeSectorB` that of the free sectors (none:
    /// the same), `access` the condition of all its blocks.
    Application createApplication(std::uint16_t id, int sectorCount, const Key& directoryB, const KeyPair& newKeys,
                                  const std::optional<Key>& freeSectorB = {}, DataAccess access = DataAccess::writeB,
                                  const Limit& limit = Limit(kUsualWait)) const {
        Application application(*this, id, {directoryB, KeyType::b});
        application.give(&ReaderImpl::initApp, sectorCount, directoryB, newKeys, freeSectorB, access, limit);
        return application;
    }

    /// Version of the application directory that formatting writes.
    enum class Directory : std::int32_t { none = TagAppNone, version1 = TagAppMad1, version2 = TagAppMad2 };
    /// Gives a factory tag the keys of this system and a directory. It has to be the only tag in the field. Without
    /// `keyA`, key A becomes the directory's public one, without a directory the factory key.
    Results format(const Key& keyB, Directory directory = Directory::version1, const std::optional<Key>& keyA = {},
                   const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        requireAlone(call);
        detail::FromLibrary<TagUID> found(call.library());
        detail::FromLibrary<OpResultCode> records(call.library());
        const std::optional<Key> newKeyB = keyB;
        int count = 0;
        const int status = call.library().formatTag(0, static_cast<TagAppType>(directory), writable(newKeyB),
                                                    found.out(), writable(keyA), count, records.out());
        return checked(call, status, results(records, count), "sector");
    }
    /// Back to the factory state; the tag has to be the only one in the field. `keyB` is that of all sectors. Without a
    /// directory it goes on with the other sectors if sector 0 fails.
    Results unformat(const Key& keyB, Directory directory = Directory::version1,
                     const Limit& limit = Limit(kUsualWait)) const {
        constexpr std::size_t kMostSectors = 40;
        detail::Call call(mSession, limit);
        requireAlone(call);
        detail::FromLibrary<TagUID> found(call.library());
        const std::optional<Key> key = keyB;
        std::array<int, kMostSectors> statuses{};
        const int status = call.library().unformatTag(0, static_cast<TagAppType>(directory), writable(key), found.out(),
                                                      statuses.data());
        std::vector<Result> list;
        for (std::size_t i = 0; i < statuses.size() && statuses[i] != 0; ++i)
            list.push_back({static_cast<int>(i), statuses[i]});
        return checked(call, status, std::move(list), "sector");
    }

    /// Replaces both keys of `count` sectors; `login` may write their trailers.
    Results setKeys(int firstSector, int count, const KeyPair& newKeys, const Login& login,
                    const Limit& limit = Limit(kUsualWait)) const {
        return changeKeys(firstSector, count, newKeys, login, limit);
    }
    /// Gives whole sectors their keys and the conditions of a delivered (bits001) or formatted sector (bits011), the
    /// two that there are. `opensWith` names which of the keys, that the sectors have already, opens them.
    Results setTrailers(int firstSector, int count, TrailerAccess access, const KeyPair& keys, KeyType opensWith,
                        const Limit& limit = Limit(kUsualWait)) const {
        return changeTrailers(firstSector, count, access, keys, opensWith, limit);
    }

  private:
    friend class Reader;
    Tag(detail::SessionPtr session, const detail::Seen& seen)
        : Memory(std::move(session),
                 TagUID(seen.uid.bytes().data(), static_cast<std::uint32_t>(seen.uid.bytes().size()), seen.type)) {}

    /// The library formats whichever tag it finds.
    void requireAlone(detail::Call& call) const {
        for (;;) {
            const auto seen = detail::listField(call);
            if (seen && detail::contains(*seen, uid())) {
                if (seen->size() == 1) return;
                throw Error(Reason::badArgument, "the tag " + uid().text() + " is not the only one in the field");
            }
            if (!call.pause(100)) check(call, kNoTag);
        }
    }
};

}  // namespace qvl

#pragma once

#include "Access.h"
#include "Blocks.h"
#include "Geometry.h"
#include "Key.h"
#include "Limit.h"
#include "Session.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace qvl {

/// How long an operation on a tag waits for it if nothing else is said.
inline constexpr std::chrono::seconds kUsualWait{5};

/// The number of blocks that stands for all up to the end.
inline constexpr int kAllBlocks = 999;

/// The memory of a tag, or the part of it that belongs to an application: blocks and sectors are numbered within it
/// from 0.
///
/// Every operation finds the tag anew, works on it, and leaves it asleep; if the tag goes away in the middle, it is
/// waited for within the limit and the work goes on. Operations throw Error. Those that work block by block give what
/// became of each block and throw only if none succeeded.
class Memory {
  public:
    /// Reads `count` data blocks from `first` on, or with kAllBlocks all to the end. Trailers are skipped and do not
    /// count.
    Blocks read(int first, int count = 1, const Login& login = {}, const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        detail::FromLibrary<std::uint8_t> data(call.library());
        detail::FromLibrary<OpResultCode> records(call.library());
        int length = 0, recordCount = 0;
        const int status = call.library().getBlockData(0, mAppType, ownTag(), mAppId, mode(login), bytes(login),
                                                       small(first), blockCount(first, count), data.out(), length,
                                                       directoryMode(), directoryKey(), recordCount, records.out());
        return blocks(call, status, data, length, results(records, recordCount));
    }

    /// Writes data blocks from `first` on; what the data leaves of the last one becomes zero. Trailers are skipped.
    Results write(int first, ByteView data, const Login& login = {}, const Limit& limit = Limit(kUsualWait)) const {
        const auto size = static_cast<std::size_t>(tagInfoByType(mTag.getTagType()).blockSize);
        if (data.empty()) throw Error(Reason::badArgument, "there is nothing to write");
        const std::size_t count = size == 0 ? 0 : (data.size() + size - 1) / size;
        return write(first, static_cast<int>(std::min<std::size_t>(count, kAllBlocks)), data, login, limit);
    }
    /// The same over `count` blocks, all of which are written.
    Results write(int first, int count, ByteView data, const Login& login,
                  const Limit& limit = Limit(kUsualWait)) const {
        Bytes copy(data.begin(), data.end());
        detail::Call call(mSession, limit);
        detail::FromLibrary<OpResultCode> records(call.library());
        int recordCount = 0;
        const int status = call.library().setBlockData(
            0, mAppType, ownTag(), mAppId, mode(login), bytes(login), small(first), blockCount(first, count),
            copy.data(), length(copy), directoryMode(), directoryKey(), nullptr, recordCount, records.out());
        return checked(call, status, results(records, recordCount), "block");
    }

    /// The amount in a value block.
    std::int32_t value(int block, const Login& login = {}, const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        int value = 0;
        check(call,
              call.library().getValue(0, mAppType, ownTag(), mAppId, mode(login), bytes(login), block, value,
                                      directoryMode(), directoryKey()),
              "block", block);
        return value;
    }
    /// Makes the block hold this amount. Its condition has to allow writing.
    void setValue(int block, std::int32_t value, const Login& login = {},
                  const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        check(call,
              call.library().setValue(0, mAppType, ownTag(), mAppId, mode(login), bytes(login), block, value,
                                      directoryMode(), directoryKey()),
              "block", block);
    }
    /// Adds to the value, or with `to` puts the sum into another block of the sector. Never repeated by itself: after
    /// Error with status 3120 it is not known whether it took place.
    void increment(int block, std::uint32_t amount, const Login& login = {}, std::optional<int> to = {},
                   const Limit& limit = Limit(kUsualWait)) const {
        adjust(ValueIncrement, block, amount, login, to, limit);
    }
    void decrement(int block, std::uint32_t amount, const Login& login = {}, std::optional<int> to = {},
                   const Limit& limit = Limit(kUsualWait)) const {
        adjust(ValueDecrement, block, amount, login, to, limit);
    }
    /// Makes a value block of a data block. The trailer is written again, with both keys; key B opens it.
    void makeValueBlock(int block, std::int32_t value, const KeyPair& keys,
                        const Limit& limit = Limit(kUsualWait)) const {
        setBlockType(block, kValueBlockKind, AccData110, static_cast<unsigned>(value), keys, limit);
    }
    /// One that can only be decremented, and never filled up again. Not with value 0.
    void makeDecrementOnlyBlock(int block, std::int32_t value, const KeyPair& keys,
                                const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        check(call,
              call.library().initDecrementOnlyBlock(0, mAppType, ownTag(), mAppId, keys.a.bytes().data(),
                                                    keys.b.bytes().data(), block, value, directoryMode(),
                                                    directoryKey()),
              "block", block);
    }

    /// Which key allows what in a sector.
    SectorAccess access(int sector, const Login& login = {}, const Limit& limit = Limit(kUsualWait)) const {
        detail::Call call(mSession, limit);
        std::array<DataAccControl, 4> conditions{};
        check(call,
              call.library().getSectorAccessMode(0, mAppType, ownTag(), sectorPlace(sector), mode(login), bytes(login),
                                                 small(sector), conditions.data(), directoryMode(), directoryKey()),
              "sector", sector);
        SectorAccess access;
        for (std::size_t group = 0; group < access.data.size(); ++group)
            access.data[group] = static_cast<DataAccess>(conditions[group]);
        access.trailer = static_cast<TrailerAccess>(conditions[access.data.size()]);
        return access;
    }
    /// Gives one data block a condition and clears it. The trailer is written again, with both keys; key B opens it.
    void setAccess(int block, DataAccess access, const KeyPair& keys, const Limit& limit = Limit(kUsualWait)) const {
        setBlockType(block, kDataBlockKind, static_cast<DataAccControl>(access), 0, keys, limit);
    }

  protected:
    Memory(detail::SessionPtr session, const TagUID& tag) : mSession(std::move(session)), mTag(tag) {}
    Memory(const Memory& of, std::uint16_t appId, const Login& directory)
        : mSession(of.mSession), mTag(of.mTag), mAppType(TagAppMad1), mAppId(static_cast<short>(appId)),
          mDirectory(directory) {}

    /// For one operation: the library notes in it what it learns of the tag.
    TagUID ownTag() const { return mTag; }
    static AuthKeyMode mode(const Login& login) { return static_cast<AuthKeyMode>(login.type); }
    static const std::uint8_t* bytes(const Login& login) { return login.key.bytes().data(); }
    static const std::uint8_t* bytes(const std::optional<Key>& key) { return key ? key->bytes().data() : nullptr; }
    AuthKeyMode directoryMode() const { return mDirectory ? mode(*mDirectory) : AuthKeyA; }
    const std::uint8_t* directoryKey() const { return mDirectory ? bytes(*mDirectory) : nullptr; }
    /// What operations on sectors take in the place of the application: it, or the first sector.
    short sectorPlace(int sector) const { return mAppType == TagAppNone ? small(sector) : mAppId; }
    static short small(int number) {
        if (number < 0 || number > std::numeric_limits<short>::max())
            throw Error(Reason::badArgument, kOutOfRange, std::to_string(number) + " is out of range");
        return static_cast<short>(number);
    }
    short blockCount(int first, int count) const {
        if (count < 1)
            throw Error(Reason::badArgument, kOutOfRange, "a count of " + std::to_string(count) + " is out of range");
        const auto geometry = Geometry::of(mTag.getTagType());
        const bool isWhole = count == kAllBlocks && mAppType == TagAppNone && geometry;
        return small(isWhole ? geometry->dataBlocksFrom(first) : count);
    }
    static std::uint8_t* writable(const std::optional<Key>& key) { return const_cast<std::uint8_t*>(bytes(key)); }
    static int length(const Bytes& bytes) {
        if (bytes.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()))
            throw Error(Reason::badArgument, kDataTooLong, "there is more data than the blocks hold");
        return static_cast<int>(bytes.size());
    }

    static std::vector<Result> results(const detail::FromLibrary<OpResultCode>& records, int count) {
        std::vector<Result> list;
        if (records.get())
            for (const OpResultCode& each : std::span(records.get(), static_cast<std::size_t>(count)))
                list.push_back({each.number, each.status});
        return list;
    }
    /// Throws unless all, or something of it, was done.
    Results checked(detail::Call& call, int status, std::vector<Result> list, const char* unit) const {
        const bool some = std::ranges::any_of(list, &Result::ok);
        if (status == kOk || (status == kPartial && some)) return Results(std::move(list));
        if (status == kPartial && !list.empty()) check(call, list.front().status, unit, list.front().number);
        check(call, status, unit, -1);
        return {};
    }
    void check(detail::Call& call, int status, const char* unit, int number) const {
        if (status == kOk) return;
        call.throwEnd(status);
        std::string what = number < 0 ? "" : std::string(unit) + " " + std::to_string(number);
        if (mAppType != TagAppNone) what = application() + (what.empty() ? "" : ", " + what);
        throwIfGone(call, status);
        call.fail(status, what);
    }
    void check(detail::Call& call, int status) const { check(call, status, "", -1); }

    std::array<std::uint16_t, 16> directoryEntries(const Login& login, const Limit& limit) const {
        detail::Call call(mSession, limit);
        std::array<short, 16> entries{};
        check(call, call.library().getAppIdDir(0, TagAppMad1, ownTag(), entries.data(), mode(login), bytes(login)));
        std::array<std::uint16_t, 16> directory{};
        std::ranges::copy(entries, directory.begin());
        return directory;
    }
    std::string application() const {
        const auto id = static_cast<std::uint16_t>(mAppId);
        const std::uint8_t idBytes[] = {static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id & 0xFF)};
        return "application " + toHex(idBytes);
    }
    Results changeKeys(int firstSector, int count, const KeyPair& newKeys, const Login& login,
                       const Limit& limit) const {
        detail::Call call(mSession, limit);
        detail::FromLibrary<OpResultCode> records(call.library());
        int recordCount = 0;
        const int status = call.library().setKey(
            0, mAppType, sectorPlace(firstSector), ownTag(), mode(login), bytes(login), newKeys.a.bytes().data(),
            newKeys.b.bytes().data(), small(count), directoryMode(), directoryKey(), recordCount, records.out());
        return checked(call, status, results(records, recordCount), "sector");
    }
    Results changeTrailers(int firstSector, int count, TrailerAccess access, const KeyPair& keys, KeyType opensWith,
                           const Limit& limit) const {
        detail::Call call(mSession, limit);
        detail::FromLibrary<OpResultCode> records(call.library());
        int recordCount = 0;
        const int status = call.library().setTrailerBlockType(
            0, mAppType, sectorPlace(firstSector), ownTag(), static_cast<AuthKeyMode>(opensWith), keys.a.bytes().data(),
            keys.b.bytes().data(), static_cast<DataAccControl>(access), directoryMode(), directoryKey(), small(count),
            recordCount, records.out());
        return checked(call, status, results(records, recordCount), "sector");
    }

    detail::SessionPtr mSession;
    TagUID mTag;
    TagAppType mAppType = TagAppNone;
    short mAppId = 0;
    std::optional<Login> mDirectory;

  private:
    static constexpr short kDataBlockKind = 2051, kValueBlockKind = 2052;

    Blocks blocks(detail::Call& call, int status, const detail::FromLibrary<std::uint8_t>& data, int length,
                  std::vector<Result> list) const {
        const Results all = checked(call, status, list, "block");
        return {std::move(list), Bytes(data.get(), data.get() + (data.get() ? length : 0))};
    }
    void adjust(ValueBlockOper operation, int block, std::uint32_t amount, const Login& login, std::optional<int> to,
                const Limit& limit) const {
        constexpr int kSameBlock = -1;
        if (to && *to < 0) throw Error(Reason::badArgument, kOutOfRange, std::to_string(*to) + " is out of range");
        detail::Call call(mSession, limit);
        check(call,
              call.library().adjustValue(0, mAppType, ownTag(), mAppId, mode(login), bytes(login), block, operation,
                                         amount, to.value_or(kSameBlock), directoryMode(), directoryKey()),
              "block", block);
    }
    void setBlockType(int block, short kind, DataAccControl access, unsigned value, const KeyPair& keys,
                      const Limit& limit) const {
        detail::Call call(mSession, limit);
        check(call,
              call.library().setDataBlockType(0, mAppType, mAppId, ownTag(), keys.a.bytes().data(),
                                              keys.b.bytes().data(), small(block), kind, access, value, directoryMode(),
                                              directoryKey()),
              "block", block);
    }

    /// A key that is refused and a block that cannot be read look the same as a tag that has left: one look tells.
    void throwIfGone(detail::Call& call, int status) const {
        const Reason reason = statusInfo(status).reason;
        if (reason == Reason::badArgument || reason == Reason::notSupported || reason == Reason::failed) return;
        if (call.readerWasLost()) throw Error(Reason::readerLost, status, "the reader was lost");
        if (!mSession->openCards().empty()) return;
        call.beginEpilogue();
        const auto seen = detail::listField(call);
        if (!seen || call.readerWasLost()) throw Error(Reason::readerLost, status, "the reader was lost");
        const Uid uid(ByteView(mTag.getUid(), mTag.getUidLen()));
        if (!detail::contains(*seen, uid))
            throw Error(Reason::lost, status, "the tag " + uid.text() + " left the field");
    }
};

}  // namespace qvl

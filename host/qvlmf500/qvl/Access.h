#pragma once

#include "Error.h"
#include "Key.h"
#include "ServiceEnums.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace qvl {

/// What the access conditions of Mifare Classic mean, as in the data sheets MF1S50yyX and MF1S70yyX.

/// Which keys of the sector allow something.
enum class Who : std::uint8_t { nobody = 0, keyA = 1, keyB = 2, either = 3 };

constexpr Who operator&(Who left, Who right) {
    return static_cast<Who>(static_cast<std::uint8_t>(left) & static_cast<std::uint8_t>(right));
}
constexpr bool allows(Who who, KeyType key) {
    return (who & (key == KeyType::a ? Who::keyA : Who::keyB)) != Who::nobody;
}
/// "A or B", "A", "B", "nobody".
constexpr const char* name(Who who) {
    constexpr const char* kNames[] = {"nobody", "A", "B", "A or B"};
    return kNames[static_cast<std::uint8_t>(who)];
}

/// Condition of a data block.
enum class DataAccess : std::int32_t {
    readOnly = AccData010,
    writeB = AccData100,
    onlyB = AccData011,
    readOnlyB = AccData101,
    locked = AccData111,
    open = AccData000,
    value = AccData110,
    decrementOnly = AccData001,
};

/// What a condition of a data block allows. `word` and `bits` (C1 C2 C3) are how users name it.
struct DataRule {
    DataAccess access;
    const char *word, *bits;
    Who read, write, increment, decrement;
};

/// Condition of a sector trailer, by its bits C1 C2 C3.
enum class TrailerAccess : std::int32_t {
    bits000 = AccTrailer000,
    bits010 = AccTrailer010,
    bits100 = AccTrailer100,
    bits110 = AccTrailer110,
    bits001 = AccTrailer001,  ///< As delivered.
    bits011 = AccTrailer011,  ///< As formatted by this library: A reads, B writes.
    bits101 = AccTrailer101,
    bits111 = AccTrailer111,
};

/// What a condition of a trailer allows. Key A is never read.
struct TrailerRule {
    TrailerAccess access;
    const char* bits;
    Who writeKeyA, readAccess, writeAccess, readKeyB, writeKeyB;

    /// A key B that can be read is data and opens nothing.
    constexpr bool keyBIsData() const { return readKeyB != Who::nobody; }
    /// Who of those that a rule names can do it in a sector with this trailer.
    constexpr Who inEffect(Who named) const { return keyBIsData() ? named & Who::keyA : named; }
    /// Who may write all of the trailer.
    constexpr Who writeAll() const { return writeKeyA & writeAccess & writeKeyB; }
};

namespace detail {

inline constexpr DataRule kDataRules[] = {
    {DataAccess::readOnly, "read-only", "010", Who::either, Who::nobody, Who::nobody, Who::nobody},
    {DataAccess::writeB, "write-b", "100", Who::either, Who::keyB, Who::nobody, Who::nobody},
    {DataAccess::onlyB, "only-b", "011", Who::keyB, Who::keyB, Who::nobody, Who::nobody},
    {DataAccess::readOnlyB, "read-only-b", "101", Who::keyB, Who::nobody, Who::nobody, Who::nobody},
    {DataAccess::locked, "locked", "111", Who::nobody, Who::nobody, Who::nobody, Who::nobody},
    {DataAccess::open, "open", "000", Who::either, Who::either, Who::either, Who::either},
    {DataAccess::value, "value", "110", Who::either, Who::keyB, Who::keyB, Who::either},
    {DataAccess::decrementOnly, "decrement-only", "001", Who::either, Who::nobody, Who::nobody, Who::either},
};

inline constexpr TrailerRule kTrailerRules[] = {
    {TrailerAccess::bits000, "000", Who::keyA, Who::keyA, Who::nobody, Who::keyA, Who::keyA},
    {TrailerAccess::bits010, "010", Who::nobody, Who::keyA, Who::nobody, Who::keyA, Who::nobody},
    {TrailerAccess::bits100, "100", Who::keyB, Who::either, Who::nobody, Who::nobody, Who::keyB},
    {TrailerAccess::bits110, "110", Who::nobody, Who::either, Who::nobody, Who::nobody, Who::nobody},
    {TrailerAccess::bits001, "001", Who::keyA, Who::keyA, Who::keyA, Who::keyA, Who::keyA},
    {TrailerAccess::bits011, "011", Who::keyB, Who::either, Who::keyB, Who::nobody, Who::keyB},
    {TrailerAccess::bits101, "101", Who::nobody, Who::either, Who::keyB, Who::nobody, Who::nobody},
    {TrailerAccess::bits111, "111", Who::nobody, Who::either, Who::nobody, Who::nobody, Who::nobody},
};

}  // namespace detail

/// The rule of a condition. @throws Error (badArgument) for a number that is none.
constexpr const DataRule& rule(DataAccess access) {
    for (const DataRule& each : detail::kDataRules)
        if (each.access == access) return each;
    throw Error(Reason::badArgument, "there is no such condition of a data block");
}
constexpr const TrailerRule& rule(TrailerAccess access) {
    for (const TrailerRule& each : detail::kTrailerRules)
        if (each.access == access) return each;
    throw Error(Reason::badArgument, "there is no such condition of a trailer");
}

/// A condition by its word or its bits. @throws Error (badArgument) with all that there are.
inline DataAccess parseDataAccess(std::string_view text) {
    std::string all;
    for (const DataRule& each : detail::kDataRules) {
        if (text == each.word || text == each.bits) return each.access;
        all += (all.empty() ? "" : ", ") + std::string(each.word) + " (" + each.bits + ")";
    }
    throw Error(Reason::badArgument, "\"" + std::string(text) + "\" is not a condition; there are " + all);
}

/// The conditions of a sector: of its groups of data blocks and of its trailer.
struct SectorAccess {
    std::array<DataAccess, 3> data{DataAccess::open, DataAccess::open, DataAccess::open};
    TrailerAccess trailer = TrailerAccess::bits001;

    static constexpr std::size_t kBytes = 3;

    /// Bytes 6 to 8 of the trailer.
    constexpr std::array<std::uint8_t, kBytes> encode() const {
        std::array<unsigned, 3> c{};  // C1, C2, C3, with bit g for group g
        for (unsigned group = 0; group < 4; ++group) {
            const char* bits = group < data.size() ? rule(data[group]).bits : rule(trailer).bits;
            for (unsigned i = 0; i < c.size(); ++i)
                c[i] |= static_cast<unsigned>(bits[i] - '0') << group;
        }
        const auto joined = [](unsigned high, unsigned low) {
            return static_cast<std::uint8_t>((high & 0x0F) << 4 | (low & 0x0F));
        };
        return {joined(~c[1], ~c[0]), joined(c[0], ~c[2]), joined(c[2], c[1])};
    }
    /// From bytes 6 to 8 of a trailer; none if the bits and their complements do not agree: no key opens such a sector.
    static constexpr std::optional<SectorAccess> decode(std::span<const std::uint8_t, kBytes> bytes) {
        const unsigned first = bytes[0], second = bytes[1], third = bytes[2];
        const std::array<unsigned, 3> c{second >> 4, third & 0x0F, third >> 4};
        const std::array<unsigned, 3> inverted{first & 0x0F, first >> 4, second & 0x0F};
        SectorAccess access;
        for (std::size_t i = 0; i < c.size(); ++i)
            if ((c[i] ^ inverted[i]) != 0x0F) return std::nullopt;
        for (unsigned group = 0; group < 4; ++group) {
            const auto isOfGroup = [&](const char* bits) {
                for (unsigned i = 0; i < c.size(); ++i)
                    if ((c[i] >> group & 1u) != static_cast<unsigned>(bits[i] - '0')) return false;
                return true;
            };
            for (const DataRule& each : detail::kDataRules)
                if (group < access.data.size() && isOfGroup(each.bits)) access.data[group] = each.access;
            for (const TrailerRule& each : detail::kTrailerRules)
                if (group == access.data.size() && isOfGroup(each.bits)) access.trailer = each.access;
        }
        return access;
    }

    friend constexpr bool operator==(const SectorAccess&, const SectorAccess&) = default;
};

}  // namespace qvl

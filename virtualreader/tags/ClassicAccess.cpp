#include "ClassicAccess.h"

namespace {

// By C1 C2 C3, 000 first.
constexpr DataRights kDataRights[8] = {
    // read     write     increment decrement
    {kKeyAOrB, kKeyAOrB, kKeyAOrB, kKeyAOrB}, {kKeyAOrB, kNobody, kNobody, kKeyAOrB},
    {kKeyAOrB, kNobody, kNobody, kNobody},    {kKeyB, kKeyB, kNobody, kNobody},
    {kKeyAOrB, kKeyB, kNobody, kNobody},      {kKeyB, kNobody, kNobody, kNobody},
    {kKeyAOrB, kKeyB, kKeyB, kKeyAOrB},       {kNobody, kNobody, kNobody, kNobody},
};
constexpr TrailerRights kTrailerRights[8] = {
    // write A  read bits  write bits read B write B
    {kKeyA, kKeyA, kNobody, kKeyA, kKeyA},          {kKeyA, kKeyA, kKeyA, kKeyA, kKeyA},
    {kNobody, kKeyA, kNobody, kKeyA, kNobody},      {kKeyB, kKeyAOrB, kKeyB, kNobody, kKeyB},
    {kKeyB, kKeyAOrB, kNobody, kNobody, kKeyB},     {kNobody, kKeyAOrB, kKeyB, kNobody, kNobody},
    {kNobody, kKeyAOrB, kNobody, kNobody, kNobody}, {kNobody, kKeyAOrB, kNobody, kNobody, kNobody},
};

constexpr int kFirstLargeBlock = 128;

}  // namespace

const DataRights& dataRights(std::uint8_t condition) { return kDataRights[condition & 7]; }

const TrailerRights& trailerRights(std::uint8_t condition) { return kTrailerRights[condition & 7]; }

int sectorTrailer(int block) { return block < kFirstLargeBlock ? (block | 3) : (block | 15); }

std::size_t accessGroup(int block) {
    if (block < kFirstLargeBlock) return static_cast<std::size_t>(block % 4);
    return static_cast<std::size_t>(block % 16 / 5);
}

std::optional<std::array<std::uint8_t, 4>> accessConditions(std::span<const std::uint8_t> trailer) {
    const unsigned notC1 = trailer[6] & 15u, notC2 = trailer[6] >> 4, notC3 = trailer[7] & 15u;
    const unsigned c1 = trailer[7] >> 4, c2 = trailer[8] & 15u, c3 = trailer[8] >> 4;
    if ((c1 ^ notC1) != 15 || (c2 ^ notC2) != 15 || (c3 ^ notC3) != 15) return std::nullopt;

    std::array<std::uint8_t, 4> conditions{};
    for (unsigned group = 0; group < 4; ++group) {
        const auto bit = [group](unsigned bits) { return (bits >> group) & 1u; };
        conditions[group] = static_cast<std::uint8_t>(bit(c1) << 2 | bit(c2) << 1 | bit(c3));
    }
    return conditions;
}

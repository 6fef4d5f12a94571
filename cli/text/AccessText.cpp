#include "AccessText.h"

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace {

constexpr DataRule kDataRules[] = {
    {AccData010, "read-only", "010", withEither, nobody, nobody, nobody},
    {AccData100, "write-b", "100", withEither, withKeyB, nobody, nobody},
    {AccData011, "only-b", "011", withKeyB, withKeyB, nobody, nobody},
    {AccData101, "read-only-b", "101", withKeyB, nobody, nobody, nobody},
    {AccData111, "locked", "111", nobody, nobody, nobody, nobody},
    {AccData000, "open", "000", withEither, withEither, withEither, withEither},
    {AccData110, "value", "110", withEither, withKeyB, withKeyB, withEither},
    {AccData001, "decrement-only", "001", withEither, nobody, nobody, withEither},
};

constexpr TrailerRule kTrailerRules[] = {
    {AccTrailer000, "000", withKeyA, withKeyA, nobody, withKeyA, withKeyA},
    {AccTrailer010, "010", nobody, withKeyA, nobody, withKeyA, nobody},
    {AccTrailer100, "100", withKeyB, withEither, nobody, nobody, withKeyB},
    {AccTrailer110, "110", nobody, withEither, nobody, nobody, nobody},
    {AccTrailer001, "001", withKeyA, withKeyA, withKeyA, withKeyA, withKeyA},
    {AccTrailer011, "011", withKeyB, withEither, withKeyB, nobody, withKeyB},
    {AccTrailer101, "101", nobody, withEither, withKeyB, nobody, nobody},
    {AccTrailer111, "111", nobody, withEither, nobody, nobody, nobody},
};

}  // namespace

const DataRule& dataRule(DataAccControl code) { return kDataRules[code]; }

const TrailerRule& trailerRule(DataAccControl code) { return kTrailerRules[code - AccTrailer000]; }

const char* whoText(Who who) {
    constexpr const char* kTexts[] = {"nobody", "A", "B", "A or B"};
    return kTexts[who];
}

DataAccControl dataConditionFromText(const std::string& text) {
    const DataRule* rule =
        std::ranges::find_if(kDataRules, [&](const DataRule& each) { return text == each.word || text == each.bits; });
    if (rule != std::end(kDataRules)) return rule->code;
    std::string all;
    for (const DataRule& each : kDataRules)
        all += (all.empty() ? "" : ", ") + std::string(each.word) + " (" + each.bits + ")";
    throw std::invalid_argument("\"" + text + "\" is no condition; there are " + all);
}

std::array<std::uint8_t, 3> accessBytes(const std::array<DataAccControl, 4>& conditions) {
    std::array<std::uint8_t, 3> c{};  // C1, C2, C3, with bit g for group g
    for (unsigned group = 0; group < conditions.size(); ++group) {
        const DataAccControl code = conditions[group];
        const char* bits = code < AccTrailer000 ? dataRule(code).bits : trailerRule(code).bits;
        for (unsigned i = 0; i < c.size(); ++i)
            c[i] = static_cast<std::uint8_t>(c[i] | (bits[i] - '0') << group);
    }
    const auto joined = [](unsigned high, unsigned low) {
        return static_cast<std::uint8_t>((high & 0x0F) << 4 | (low & 0x0F));
    };
    return {joined(~c[1] & 0x0Fu, ~c[0] & 0x0Fu), joined(c[0], ~c[2] & 0x0Fu), joined(c[2], c[1])};
}

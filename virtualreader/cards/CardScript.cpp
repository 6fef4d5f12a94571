#include "CardScript.h"

#include "Quoted.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>

namespace {

constexpr std::size_t kMaxCount = 131072;
constexpr std::size_t kMaxMultiplier = 59;
constexpr std::size_t kMaxWtxCount = 1000;

std::optional<std::size_t> number(std::string_view text, int base, std::size_t least, std::size_t most) {
    std::size_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) return std::nullopt;
    return value;
}

std::optional<std::uint8_t> byteOf(std::string_view pair) {
    const auto value = pair.size() == 2 ? number(pair, 16, 0, 0xFF) : std::nullopt;
    return value ? std::optional(static_cast<std::uint8_t>(*value)) : std::nullopt;
}

/// The next word of `text`, which loses it; empty at the end.
std::string_view takeWord(std::string_view& text) {
    constexpr std::string_view kBlank = " \t\r";
    text.remove_prefix(std::min(text.find_first_not_of(kBlank), text.size()));
    const std::string_view word = text.substr(0, text.find_first_of(kBlank));
    text.remove_prefix(word.size());
    return word;
}

std::string parsePattern(std::string_view word, CardRule& rule) {
    std::string wrong = quoted(word) + " is no pattern: pairs of hexadecimal digits, ?? for any byte, and a * at "
                                       "the end for any rest";
    rule.anyRest = word.ends_with('*');
    if (rule.anyRest) word.remove_suffix(1);
    if (word.empty() && !rule.anyRest) return "a pattern is missing, for instance \"00A40400* 9000\"";
    for (std::size_t at = 0; at < word.size(); at += 2) {
        const std::string_view pair = word.substr(at, 2);
        const bool any = pair == "??";
        const auto byte = any ? std::optional<std::uint8_t>(0) : byteOf(pair);
        if (!byte) return wrong;
        rule.pattern.push_back(*byte);
        rule.mask.push_back(any ? 0x00 : 0xFF);
    }
    return {};
}

std::string parsePiece(std::string_view word, std::string_view& rest, CardRule& rule) {
    CardRule::Piece piece;
    if (word == "echo") {
        piece.kind = CardRule::Piece::Kind::echo;
    } else if (word == "count") {
        const auto count = number(takeWord(rest), 10, 0, kMaxCount);
        if (!count) return "\"count\" takes a number of bytes, at most " + std::to_string(kMaxCount);
        piece.kind = CardRule::Piece::Kind::count;
        piece.count = *count;
    } else {
        for (std::size_t at = 0; at < word.size(); at += 2) {
            const auto byte = byteOf(word.substr(at, 2));
            if (!byte)
                return quoted(word) + " is no response: pairs of hexadecimal digits, \"echo\", \"count N\" or several "
                                      "of them, and then \"wtx M\" or \"wtx MxN\"";
            piece.bytes.push_back(*byte);
        }
    }
    rule.pieces.push_back(std::move(piece));
    return {};
}

std::string parseWtx(std::string_view word, CardRule& rule) {
    const std::size_t cross = std::min(word.find('x'), word.size());
    const auto multiplier = number(word.substr(0, cross), 10, 1, kMaxMultiplier);
    const auto count =
        cross == word.size() ? std::optional<std::size_t>(1) : number(word.substr(cross + 1), 10, 1, kMaxWtxCount);
    if (!multiplier || !count)
        return "\"wtx\" takes a multiplier, 1 to 59, and perhaps how often, \"10x3\"; found " + quoted(word);
    rule.wtxMultiplier = static_cast<std::uint8_t>(*multiplier);
    rule.wtxCount = static_cast<unsigned>(*count);
    return {};
}

void append(const CardRule::Piece& piece, std::span<const std::uint8_t> command, std::vector<std::uint8_t>& out) {
    switch (piece.kind) {
    case CardRule::Piece::Kind::bytes:
        out.insert(out.end(), piece.bytes.begin(), piece.bytes.end());
        return;
    case CardRule::Piece::Kind::echo:
        out.insert(out.end(), command.begin(), command.end());
        return;
    case CardRule::Piece::Kind::count:
        for (std::size_t i = 0; i < piece.count; ++i)
            out.push_back(static_cast<std::uint8_t>(i));
        return;
    }
}

}  // namespace

std::string parseCardRule(std::string_view text, CardRule& rule) {
    if (std::string wrong = parsePattern(takeWord(text), rule); !wrong.empty()) return wrong;
    for (std::string_view word; !(word = takeWord(text)).empty();) {
        const bool last = word == "wtx";
        std::string wrong = last ? parseWtx(takeWord(text), rule) : parsePiece(word, text, rule);
        if (!wrong.empty()) return wrong;
        if (!last) continue;
        if (word = takeWord(text); !word.empty()) return quoted(word) + " is one word too many";
    }
    return rule.pieces.empty() ? "a response is missing: hexadecimal digits, \"echo\" or \"count N\"" : std::string();
}

bool CardRule::matches(std::span<const std::uint8_t> command) const {
    if (command.size() < pattern.size() || (command.size() > pattern.size() && !anyRest)) return false;
    for (std::size_t i = 0; i < pattern.size(); ++i)
        if ((command[i] & mask[i]) != pattern[i]) return false;
    return true;
}

CardApplication::Answer CardScript::onCommand(std::span<const std::uint8_t> command) {
    const auto rule = std::ranges::find_if(mRules, [&](const CardRule& each) { return each.matches(command); });
    if (rule == mRules.end()) return mNext ? mNext->onCommand(command) : Answer{{0x6D, 0x00}};
    Answer answer;
    for (const CardRule::Piece& piece : rule->pieces)
        append(piece, command, answer.bytes);
    answer.wtxMultiplier = rule->wtxMultiplier;
    answer.wtxCount = rule->wtxCount;
    return answer;
}

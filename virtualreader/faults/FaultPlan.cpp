#include "FaultPlan.h"

#include "Quoted.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <utility>

namespace {

/// What stands after the words of an effect.
enum class Operands : std::uint8_t { none, number, smallNumber, byte, offsetAndByte, tagName };

/// Which events an effect goes with.
constexpr unsigned kCommands = 1, kWrites = 2, kBlocks = 4;

struct Phrase {
    const char* words;
    FaultEffect effect;
    Operands operands = Operands::none;
    unsigned events = kCommands;
};
constexpr Phrase kPhrases[] = {
    {"no answer", FaultEffect::noAnswer},
    {"no ack", FaultEffect::noAck},
    {"no reply", FaultEffect::noReply},
    {"nack", FaultEffect::nack},
    {"wrong ack", FaultEffect::wrongAck},
    {"error", FaultEffect::error},
    {"late ack", FaultEffect::lateAck},
    {"late reply", FaultEffect::lateReply},
    {"overdue", FaultEffect::overdue, Operands::number},
    {"reply twice", FaultEffect::replyTwice},
    {"endless", FaultEffect::endless},
    {"xor", FaultEffect::xorByte, Operands::offsetAndByte, kCommands | kBlocks},
    {"wrong checksum", FaultEffect::wrongChecksum},
    {"wrong code", FaultEffect::wrongCode},
    {"status", FaultEffect::status, Operands::byte},
    {"cut", FaultEffect::cut, Operands::number, kCommands | kBlocks},
    {"short", FaultEffect::shortReply, Operands::number},
    {"pad", FaultEffect::pad, Operands::number, kCommands | kBlocks},
    {"extended", FaultEffect::extended, Operands::number},
    {"already awake", FaultEffect::alreadyAwake},
    {"vanish before", FaultEffect::vanishBefore},
    {"vanish between", FaultEffect::vanishBetween},
    {"vanish after", FaultEffect::vanishAfter},
    {"out of step", FaultEffect::outOfStep},
    {"tag gone", FaultEffect::tagGone},
    {"tag back", FaultEffect::tagBack},
    {"tag blinks", FaultEffect::tagBlinks},
    {"tag swapped", FaultEffect::tagSwapped, Operands::tagName},
    {"power lost", FaultEffect::powerLost, Operands::none, kWrites},
    {"power dips", FaultEffect::powerDips, Operands::none, kWrites},
    {"torn", FaultEffect::powerLost, Operands::number, kWrites},
    {"dips after", FaultEffect::powerDips, Operands::number, kWrites},
    {"lost", FaultEffect::blockLost, Operands::none, kBlocks},
    {"late", FaultEffect::blockLate, Operands::none, kBlocks},
    {"previous", FaultEffect::blockBefore, Operands::none, kBlocks},
    {"wrong number", FaultEffect::blockNumber, Operands::none, kBlocks},
    {"ack", FaultEffect::blockAcknowledges, Operands::none, kBlocks},
    {"pcb", FaultEffect::blockControlByte, Operands::byte, kBlocks},
    {"wtx", FaultEffect::cardAsksForTime, Operands::smallNumber, kBlocks},
    {"empty chain", FaultEffect::emptyChain, Operands::none, kBlocks},
    {"deaf", FaultEffect::cardDeaf, Operands::none, kBlocks},
    {"stays awake", FaultEffect::cardStaysAwake, Operands::none, kBlocks},
};

const char* wordsOf(FaultEffect effect) { return std::ranges::find(kPhrases, effect, &Phrase::effect)->words; }

using Words = std::vector<std::string_view>;

Words split(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r";
    Words words;
    text = text.substr(0, text.find('#'));
    for (;;) {
        const std::size_t begin = text.find_first_not_of(kBlank);
        if (begin == std::string_view::npos) return words;
        text.remove_prefix(begin);
        const std::size_t length = std::min(text.find_first_of(kBlank), text.size());
        words.push_back(text.substr(0, length));
        text.remove_prefix(length);
    }
}

std::optional<std::uint32_t> number(std::string_view text, int base, std::uint32_t max) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc() || end != text.data() + text.size() || value > max) return std::nullopt;
    return value;
}

/// Drops the words of `phrase` from the front of `words`, if they stand there.
bool takePhrase(const Phrase& phrase, Words& words) {
    const Words wanted = split(phrase.words);
    if (words.size() < wanted.size() || !std::equal(wanted.begin(), wanted.end(), words.begin())) return false;
    words.erase(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(wanted.size()));
    return true;
}

std::string takeWhen(Words& words, FaultRule& rule) {
    using When = FaultRule::When;
    constexpr std::pair<std::string_view, When> kNames[] = {
        {"any", When::any}, {"write", When::write}, {"block", When::block}, {"deselect", When::deselect}};
    const std::string_view when = words[0];
    const auto named = std::ranges::find(kNames, when, &std::pair<std::string_view, When>::first);
    if (named != std::end(kNames)) {
        rule.when = named->second;
    } else {
        const auto code = when.size() == 2 ? number(when, 16, 0xFF) : std::nullopt;
        if (!code)
            return "unknown command " + quoted(when) +
                   ": two hexadecimal digits, \"any\", \"write\", \"block\" or \"deselect\"";
        rule.when = When::command;
        rule.command = static_cast<std::uint8_t>(*code);
    }
    words.erase(words.begin());
    return {};
}

std::string takeCount(Words& words, FaultRule& rule) {
    rule.andLater = !words.empty() && words[0] == "from";
    if (rule.andLater) words.erase(words.begin());
    const auto count = words.empty() ? std::nullopt : number(words[0], 10, 1'000'000'000);
    if (!count || *count == 0) {
        const std::string got = words.empty() ? "nothing" : quoted(words[0]);
        return "a count is missing, \"3\" or \"from 3\", the first being 1; found " + got;
    }
    rule.first = *count;
    words.erase(words.begin());
    return {};
}

std::string takeOperands(const Phrase& phrase, Words& words, FaultRule& rule) {
    const auto take = [&words](int base, std::uint32_t max) -> std::optional<std::uint32_t> {
        const auto value = words.empty() ? std::nullopt : number(words[0], base, max);
        if (value) words.erase(words.begin());
        return value;
    };
    std::optional<std::uint32_t> value = 0;
    switch (phrase.operands) {
    case Operands::none:
        break;
    case Operands::number:
        value = take(10, 1'000'000);
        if (!value) return quoted(phrase.words) + " takes a decimal number";
        break;
    case Operands::smallNumber:
        value = take(10, 0xFF);
        if (!value) return quoted(phrase.words) + " takes a decimal number, at most 255";
        break;
    case Operands::byte:
        value = take(16, 0xFF);
        if (!value) return quoted(phrase.words) + " takes a byte in hexadecimal";
        break;
    case Operands::offsetAndByte: {
        const auto offset = take(10, 0xFFFF);
        value = offset ? take(16, 0xFF) : std::nullopt;
        if (!value) return quoted(phrase.words) + " takes a decimal offset and a byte in hexadecimal";
        rule.offset = *offset;
        break;
    }
    case Operands::tagName:
        if (words.empty()) break;
        rule.tag = words[0];
        words.erase(words.begin());
        break;
    }
    rule.value = *value;
    return {};
}

unsigned eventsOf(FaultRule::When when) {
    switch (when) {
    case FaultRule::When::write:
        return kWrites;
    case FaultRule::When::block:
    case FaultRule::When::deselect:
        return kBlocks;
    default:
        return kCommands;
    }
}

const char* onlyWith(unsigned possible, unsigned given) {
    if (possible == kWrites) return " goes with \"write\" only";
    if (possible == kBlocks) return " goes with \"block\" and \"deselect\" only";
    return given == kWrites ? " does not go with \"write\"" : " does not go with \"block\" and \"deselect\"";
}

std::string takeEffect(Words& words, FaultRule& rule) {
    const unsigned events = eventsOf(rule.when);
    for (const Phrase& phrase : kPhrases) {
        if (!takePhrase(phrase, words)) continue;
        if (!(phrase.events & events)) return quoted(phrase.words) + onlyWith(phrase.events, events);
        rule.effect = phrase.effect;
        return takeOperands(phrase, words, rule);
    }
    std::string known;
    for (const Phrase& phrase : kPhrases)
        if (phrase.events & events) known += (known.empty() ? "" : ", ") + std::string(phrase.words);
    return (words.empty() ? "what happens is missing" : quoted(words[0]) + " is no effect") + "; known are: " + known;
}

std::string parse(Words words, FaultRule& rule) {
    if (words.empty()) return "a rule is missing, for instance \"4A 1 no reply\"";
    for (const auto step : {takeWhen, takeCount, takeEffect})
        if (std::string wrong = step(words, rule); !wrong.empty()) return wrong;
    return words.empty() ? std::string() : quoted(words[0]) + " is one word too many";
}

}  // namespace

template <typename Matches>
const FaultRule* FaultPlan::count(Matches matches) {
    const FaultRule* hit = nullptr;
    for (FaultRule& rule : mRules) {
        if (!matches(rule)) continue;
        ++rule.seen;
        const bool hits = rule.seen == rule.first || (rule.andLater && rule.seen > rule.first);
        if (hits && !hit) hit = &rule;
    }
    return hit;
}

const FaultRule* FaultPlan::onCommand(std::uint8_t code) {
    return count([code](const FaultRule& rule) {
        return rule.when == FaultRule::When::any || (rule.when == FaultRule::When::command && rule.command == code);
    });
}

const FaultRule* FaultPlan::onWrite() {
    return count([](const FaultRule& rule) { return rule.when == FaultRule::When::write; });
}

const FaultRule* FaultPlan::onBlock(bool answersDeselection) {
    return count([answersDeselection](const FaultRule& rule) {
        return rule.when == FaultRule::When::block || (answersDeselection && rule.when == FaultRule::When::deselect);
    });
}

std::string FaultPlan::addRule(std::string_view text) {
    FaultRule rule;
    std::string wrong = parse(split(text), rule);
    if (wrong.empty() && mSuits && !mSuits(rule.effect))
        wrong = quoted(wordsOf(rule.effect)) + " does not exist for this model of reader";
    if (wrong.empty()) add(std::move(rule));
    return wrong;
}

std::string FaultPlan::addText(std::string_view text) {
    FaultPlan added(mSuits);
    for (unsigned line = 1; !text.empty(); ++line) {
        const std::size_t length = std::min(text.find('\n'), text.size());
        const std::string_view rule = text.substr(0, length);
        text.remove_prefix(std::min(length + 1, text.size()));
        if (split(rule).empty()) continue;
        if (std::string wrong = added.addRule(rule); !wrong.empty())
            return "line " + std::to_string(line) + ": " + wrong;
    }
    for (FaultRule& rule : added.mRules)
        add(std::move(rule));
    return {};
}

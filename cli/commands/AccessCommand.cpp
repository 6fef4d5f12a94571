// "access": the conditions of blocks and trailers, and what they mean.

#include "AccessText.h"
#include "Command.h"
#include "DataOptions.h"
#include "Progress.h"
#include "Records.h"
#include "SectorPlace.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "TagLayout.h"
#include "Text.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr short kDataBlockKind = 2051;
constexpr int kSmallGroups = 3;

struct AccessArguments {
    TagAccess access;
    SectorPlace place;
    std::optional<Key> keyA, keyB;
    int block = 0;
    DataAccControl condition = AccInvalid;
    std::optional<AuthKeyMode> keyMode;
    std::vector<std::string> words;  // [SECTOR] STATE
};

using Conditions = std::array<DataAccControl, 4>;

/// "block 4" or "blocks 128-132": what a group is on the tag, or in an application its indices.
std::string groupText(const TagLayout& layout, bool inApp, int sector, int group) {
    const int size = inApp ? 1 : layout.groupSize(sector);
    const int first = (inApp ? sector * kSmallGroups : layout.firstBlock(sector)) + group * size;
    if (size == 1) return "block " + std::to_string(first);
    return "blocks " + std::to_string(first) + "-" + std::to_string(first + size - 1);
}

void tellSector(Session& session, const TagLayout& layout, bool inApp, int sector, const Conditions& conditions) {
    const TrailerRule& trailer = trailerRule(conditions[kSmallGroups]);
    Json object{{inApp ? "position" : "sector", sector}};
    Json blocks = Json::array();
    std::vector<std::vector<std::string>> rows{
        {(inApp ? "Position " : "Sector ") + std::to_string(sector), "", "read", "write", "increment", "decrement"}};
    for (int group = 0; group < kSmallGroups; ++group) {
        const DataRule& rule = dataRule(conditions[static_cast<std::size_t>(group)]);
        const auto who = [&](Who named) { return whoText(trailer.inEffect(named)); };
        const std::string name = groupText(layout, inApp, sector, group);
        rows.push_back(
            {name, rule.bits, who(rule.read), who(rule.write), who(rule.increment), who(rule.decrement), rule.word});
        blocks.push_back(Json{{"name", name},
                              {"condition", rule.bits},
                              {"word", rule.word},
                              {"read", who(rule.read)},
                              {"write", who(rule.write)},
                              {"increment", who(rule.increment)},
                              {"decrement", who(rule.decrement)}});
    }
    const auto who = [&](Who named) { return whoText(trailer.inEffect(named)); };
    rows.push_back({"key A", trailer.bits, whoText(nobody), who(trailer.writeKeyA)});
    rows.push_back({"access bits", "", who(trailer.readAccess), who(trailer.writeAccess)});
    rows.push_back({"key B", "", who(trailer.readKeyB), who(trailer.writeKeyB)});
    object.add("blocks", blocks);
    object.add("trailer", Json{{"condition", trailer.bits},
                               {"writeKeyA", who(trailer.writeKeyA)},
                               {"readAccess", who(trailer.readAccess)},
                               {"writeAccess", who(trailer.writeAccess)},
                               {"readKeyB", who(trailer.readKeyB)},
                               {"writeKeyB", who(trailer.writeKeyB)},
                               {"keyBIsData", trailer.keyBIsData()}});
    std::string text = alignedTable(rows);
    if (trailer.keyBIsData()) text += "\nKey B can be read here, and so it opens nothing.";
    session.output().put(object, text);
}

int conditionsOf(Session& session, const TagAccess& access, const TagUID& tag, int sector, Conditions& conditions) {
    return session.adaptor().getSectorAccessMode(0, access.appType(), tag, access.appIdOr(sector), access.keyMode,
                                                 access.key.data(), static_cast<short>(sector), conditions.data(),
                                                 access.madKeyMode, access.madKeyBytes());
}

/// One sector, or all of them: then one that cannot be read does not hide the others.
Outcome showAccess(Session& session, const AccessArguments& arguments, const TagUID& tag) {
    const auto layout = TagLayout::of(tag.getTagType());
    if (!layout || !layout->hasTrailers) return session.fail(kNoTrailers, typeText(tag));
    const bool all = arguments.place.sector < 0, inApp = arguments.access.app.has_value();
    const int first = all ? 0 : arguments.place.sector, end = all ? layout->sectors : first + 1;
    Progress progress(session, "Sector", end - first);
    Outcome outcome = Outcome::done;
    for (int sector = first; sector < end; ++sector) {
        if (!progress.begins(sector - first)) return session.fail(kCancelled);
        Conditions conditions{};
        const int status = conditionsOf(session, arguments.access, tag, sector, conditions);
        if (status == kOutOfRange && all && sector > 0) break;  // The application ends here.
        const std::string name = (inApp ? "position " : "sector ") + std::to_string(sector);
        if (status == kOk)
            tellSector(session, *layout, inApp, sector, conditions);
        else
            outcome = session.fail(status, name);
        if (status != kOk && status != kTrailerNotRead && status != kAccessRefused) break;
    }
    return outcome;
}

Work setUpShow(Options& options) {
    const auto arguments = std::make_shared<AccessArguments>();
    options.value("SECTOR", arguments->place.sector, "The sector, or its position in the application; all by default")
        .type("")
        .range(0, kLastSector);
    addKeyOptions(options, arguments->access);
    addAppOption(options, arguments->access);
    addUidOption(options, arguments->access);
    options.footer("The table says which key allows what. Key A can never be read.\n\n"
                   "Example: qvltag access show 0 --key mad");
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return showAccess(session, *arguments, tag); });
    };
}

Outcome setBlock(Session& session, const AccessArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    const int status =
        session.adaptor().setDataBlockType(0, access.appType(), access.appId(), tag, arguments.keyA->data(),
                                           arguments.keyB->data(), static_cast<short>(arguments.block), kDataBlockKind,
                                           arguments.condition, 0, access.madKeyMode, access.madKeyBytes());
    const std::string name = "block " + std::to_string(arguments.block);
    if (status != kOk) return session.fail(status, name);
    const DataRule& rule = dataRule(arguments.condition);
    session.output().put({{"block", arguments.block}, {"condition", rule.bits}, {"word", rule.word}},
                         name + " is cleared and " + rule.word + " (" + rule.bits + ")");
    return Outcome::done;
}

void addBothKeys(Options& options, AccessArguments& arguments) {
    addKeyOption(options, "--key-a", arguments.keyA, "Key A of the sector, which is written again").required();
    addKeyOption(options, "--key-b", arguments.keyB, "Key B of the sector, which is written again").required();
}

Work setUpBlock(Options& options) {
    const auto arguments = std::make_shared<AccessArguments>();
    options.value("BLOCK", arguments->block, "The block, counted from 0").required().type("").range(0, kLastBlock);
    options
        .text(
            "CODE",
            [arguments](const std::string& text) {
                arguments->condition = dataConditionFromText(text);
                if (arguments->condition == AccData110 || arguments->condition == AccData001)
                    throw std::invalid_argument("a value block needs an amount: use \"value init\"");
            },
            "read-only (010), write-b (100), only-b (011), read-only-b (101),\nlocked (111) or open (000)")
        .required();
    addBothKeys(options, *arguments);
    addAppOption(options, arguments->access);
    addUidOption(options, arguments->access);
    options.footer("The block is zeroed. In a sector of sixteen blocks the condition reaches a group of five.\n"
                   "Key B has to be one that may write the trailer.");
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) { return setBlock(session, *arguments, tag); });
    };
}

Outcome setSectors(Session& session, const AccessArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    const bool factory = arguments.words.back() == "factory";
    const AuthKeyMode mode = arguments.keyMode.value_or(factory ? AuthKeyB : AuthKeyA);
    Records records(session.adaptor());
    const int status = session.adaptor().setTrailerBlockType(
        0, access.appType(), access.appIdOr(arguments.place.sector), tag, mode, arguments.keyA->data(),
        arguments.keyB->data(), factory ? AccTrailer001 : AccTrailer011, access.madKeyMode, access.madKeyBytes(),
        arguments.place.count, records.count(), records.list());
    return tellSectors(session, status, records, arguments.words.back().c_str());
}

void readWords(AccessArguments& arguments) {
    const std::string& state = arguments.words.back();
    if (state != "factory" && state != "formatted")
        throw std::invalid_argument("STATE: "
                                    "\"" +
                                    state + "\" is neither factory nor formatted");
    const std::string& sector = arguments.words.front();
    if (arguments.words.size() == 2 && (!readNumber(sector, arguments.place.sector) || arguments.place.sector < 0 ||
                                        arguments.place.sector > kLastSector))
        throw std::invalid_argument("SECTOR: "
                                    "\"" +
                                    sector + "\" is no sector from 0 to 39");
    arguments.place.check(arguments.access);
}

Work setUpSet(Options& options) {
    const auto arguments = std::make_shared<AccessArguments>();
    options
        .value("SECTOR STATE", arguments->words,
               "The first sector, none with --app; and factory: key A does all,\nor formatted: A reads, B writes")
        .required()
        .type("")
        .words(1, 2);
    addSectorCount(options, arguments->place, arguments->access);
    addBothKeys(options, *arguments);
    options
        .choice<AuthKeyMode>("--key-type", arguments->keyMode, {{"a", AuthKeyA}, {"b", AuthKeyB}}, true,
                             "Which of the two opens the sector, a or b; a for formatted,\nb for factory by default")
        .type("TYPE");
    addUidOption(options, arguments->access);
    options.footer("All blocks of the sectors get the same condition; their data stays.\n\n"
                   "Example: qvltag access set 5 formatted --key-a factory --key-b factory");
    options.whenRead([arguments] { readWords(*arguments); });
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return setSectors(session, *arguments, tag); });
    };
}

}  // namespace

Work setUpAccess(Options& options) {
    static constexpr Command kCommands[] = {
        {"show", "Show which key allows what", setUpShow},
        {"set", "Give whole sectors the conditions of a factory or formatted tag", setUpSet},
        {"block", "Give one block a condition", setUpBlock},
    };
    return addCommands(options, kCommands);
}

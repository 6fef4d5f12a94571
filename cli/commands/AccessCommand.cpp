// "access": the conditions of blocks and trailers, and what they mean.

#include "Command.h"
#include "DataOptions.h"
#include "Progress.h"
#include "ResultsText.h"
#include "SectorPlace.h"
#include "TagAccess.h"
#include "Text.h"

#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kSmallGroups = 3;

struct AccessArguments {
    TagAccess access;
    SectorPlace place;
    std::optional<qvl::Key> keyA, keyB;
    int block = 0;
    qvl::DataAccess condition = qvl::DataAccess::open;
    std::optional<qvl::KeyType> keyType;
    std::vector<std::string> words;  // [SECTOR] STATE
};

/// "block 4" or "blocks 128-132": what a group is on the tag, or in an application its indices.
std::string groupText(const qvl::Geometry& layout, bool inApp, int sector, int group) {
    const int size = inApp ? 1 : layout.groupSize(sector);
    const int first = (inApp ? sector * kSmallGroups : layout.firstBlock(sector)) + group * size;
    if (size == 1) return "block " + std::to_string(first);
    return "blocks " + std::to_string(first) + "-" + std::to_string(first + size - 1);
}

void tellSector(Session& session, const qvl::Geometry& layout, bool inApp, int sector,
                const qvl::SectorAccess& access) {
    const qvl::TrailerRule& trailer = qvl::rule(access.trailer);
    Json object{{inApp ? "position" : "sector", sector}};
    Json blocks = Json::array();
    std::vector<std::vector<std::string>> rows{
        {(inApp ? "Position " : "Sector ") + std::to_string(sector), "", "read", "write", "increment", "decrement"}};
    for (int group = 0; group < kSmallGroups; ++group) {
        const qvl::DataRule& rule = qvl::rule(access.data[static_cast<std::size_t>(group)]);
        const auto who = [&](qvl::Who named) { return qvl::name(trailer.inEffect(named)); };
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
    const auto who = [&](qvl::Who named) { return qvl::name(trailer.inEffect(named)); };
    rows.push_back({"key A", trailer.bits, qvl::name(qvl::Who::nobody), who(trailer.writeKeyA)});
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

/// The end of an application shows by asking beyond it.
bool isEnd(const qvl::Error& error, int sector) { return error.status() == kOutOfRange && sector > 0; }

/// One sector, or all of them: then one that cannot be read does not hide the others.
Outcome showAccess(Session& session, const AccessArguments& arguments, const qvl::Tag& tag, const qvl::Memory& memory) {
    const auto geometry = tag.geometry();
    if (!geometry || !geometry->hasTrailers)
        return session.fail({qvl::Reason::notPermitted, kNoTrailers, qvl::statusInfo(kNoTrailers).meaning},
                            tag.typeName());
    const bool all = arguments.place.sector < 0, inApp = arguments.access.app.has_value();
    const int first = all ? 0 : arguments.place.sector, end = all ? geometry->sectors : first + 1;
    Progress progress(session, "Sector", end - first);
    std::vector<int> refused;
    std::optional<qvl::Error> refusal;
    for (int sector = first; sector < end; ++sector) {
        progress.begins(sector - first);
        try {
            tellSector(session, *geometry, inApp, sector,
                       memory.access(sector, arguments.access.login, session.limit()));
        } catch (const qvl::Error& error) {
            if (all && inApp && isEnd(error, sector)) break;
            if (error.reason() != qvl::Reason::wrongKey && error.reason() != qvl::Reason::notPermitted) throw;
            refused.push_back(sector);
            refusal = error;
        }
    }
    return refusal ? session.fail(*refusal, named(inApp ? "position" : "sector", refused)) : Outcome::done;
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
        const TagAccess& access = arguments->access;
        const qvl::Tag tag = findTag(session, access);
        return access.app ? showAccess(session, *arguments, tag, tag.application(*access.app, access.directory))
                          : showAccess(session, *arguments, tag, tag);
    };
}

Outcome setBlock(Session& session, const AccessArguments& arguments, const qvl::Memory& memory) {
    memory.setAccess(arguments.block, arguments.condition, {*arguments.keyA, *arguments.keyB}, session.limit());
    const std::string name = "block " + std::to_string(arguments.block);
    const qvl::DataRule& rule = qvl::rule(arguments.condition);
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
                arguments->condition = qvl::parseDataAccess(text);
                if (arguments->condition == qvl::DataAccess::value ||
                    arguments->condition == qvl::DataAccess::decrementOnly)
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
        return onMemory(session, arguments->access,
                        [&](const qvl::Memory& memory) { return setBlock(session, *arguments, memory); });
    };
}

Outcome setSectors(Session& session, const AccessArguments& arguments) {
    using qvl::KeyType, qvl::TrailerAccess;
    const TagAccess& access = arguments.access;
    const SectorPlace& place = arguments.place;
    const bool factory = arguments.words.back() == "factory";
    const KeyType type = arguments.keyType.value_or(factory ? KeyType::b : KeyType::a);
    const TrailerAccess wanted = factory ? TrailerAccess::bits001 : TrailerAccess::bits011;
    const qvl::KeyPair keys{*arguments.keyA, *arguments.keyB};
    const qvl::Tag tag = findTag(session, access);
    return tellSectors(
        session,
        access.app ? tag.application(*access.app, access.directory).setTrailers(wanted, keys, type, session.limit())
                   : tag.setTrailers(place.sector, place.count, wanted, keys, type, session.limit()),
        arguments.words.back());
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
        .choice("--key-type", arguments->keyType, kKeyTypes, true,
                "Which of the two opens the sector, a or b; a for formatted,\nb for factory by default")
        .type("TYPE");
    addUidOption(options, arguments->access);
    options.footer("All blocks of the sectors get the same condition; their data stays.\n\n"
                   "Example: qvltag access set 5 formatted --key-a factory --key-b factory");
    options.whenRead([arguments] { readWords(*arguments); });
    return [arguments](Session& session) { return setSectors(session, *arguments); };
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

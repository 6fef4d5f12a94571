// "app": applications as a whole.

#include "AppData.h"
#include "Command.h"
#include "ResultsText.h"
#include "TagAccess.h"
#include "Text.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int kMostAppSectors = 15;

struct AppArguments {
    TagAccess access;
    std::optional<std::uint16_t> id;  // of an application that need not be there yet
    std::optional<qvl::Key> directoryKeyB, sectorKeyB, newKeyA, newKeyB;
    qvl::DataAccess condition = qvl::DataAccess::writeB;
    int from = 0;
    int count = 0;
};

void addCount(Options& options, const char* name, int& count, const char* description) {
    options.value(name, count, description).required().type("").range(1, kMostAppSectors);
}

void addDirectoryKey(Options& options, AppArguments& arguments) {
    addKeyOption(options, "--mad-key-b", arguments.directoryKeyB, "Key B of the directory, which writes it").required();
}

qvl::KeyPair newKeys(const AppArguments& arguments) { return {*arguments.newKeyA, *arguments.newKeyB}; }

Outcome tellGiven(Session& session, std::uint16_t id, const std::vector<int>& sectors) {
    session.output().put({{"app", appText(id)}, {"sectors", sectors}},
                         "application " + appText(id) + " now has " + named("sector", sectors));
    return Outcome::done;
}

Outcome createApp(Session& session, const AppArguments& arguments) {
    const qvl::Tag tag = findTag(session, arguments.access);
    const qvl::Application app =
        tag.createApplication(*arguments.id, arguments.count, *arguments.directoryKeyB, newKeys(arguments),
                              arguments.sectorKeyB, arguments.condition, session.limit());
    return tellGiven(session, *arguments.id, app.sectors(session.limit()));
}

Outcome addToApp(Session& session, const AppArguments& arguments) {
    const std::uint16_t id = *arguments.access.app;
    const qvl::Application app = findTag(session, arguments.access).application(id, arguments.access.directory);
    return tellGiven(session, id,
                     app.addSectors(arguments.count, *arguments.directoryKeyB, newKeys(arguments), arguments.sectorKeyB,
                                    arguments.condition, session.limit()));
}

void addGivingOptions(Options& options, AppArguments& arguments) {
    addCount(options, "COUNT", arguments.count, "How many sectors, of three blocks each");
    addDirectoryKey(options, arguments);
    addKeyOption(options, "--sector-key-b", arguments.sectorKeyB,
                 "Key B of the free sectors; as --mad-key-b by default");
    addKeyOption(options, "--new-key-a", arguments.newKeyA, "Key A of these sectors from then on").required();
    addKeyOption(options, "--new-key-b", arguments.newKeyB, "Key B of these sectors from then on").required();
    options
        .text(
            "--access", [&arguments](const std::string& text) { arguments.condition = qvl::parseDataAccess(text); },
            "Who may do what with the blocks, as \"access block\" has it;\nwrite-b by default")
        .type("CODE");
    addUidOption(options, arguments.access);
}

Outcome takeSectors(Session& session, const AppArguments& arguments) {
    const TagAccess& access = arguments.access;
    const qvl::Application app = findTag(session, access).application(*access.app, access.directory);
    const qvl::Results results = app.removeSectors(arguments.from, arguments.count, *arguments.directoryKeyB,
                                                   access.login, arguments.newKeyA, arguments.newKeyB, session.limit());
    const std::string id = appText(*access.app);
    if (!results.complete()) return tellResults(session, results, "position", id);
    session.output().put({{"app", id}, {"removed", arguments.count}},
                         "application " + id + ": " + counted(static_cast<std::size_t>(arguments.count), "sector") +
                             " removed");
    return Outcome::done;
}

void addTakingOptions(Options& options, AppArguments& arguments) {
    arguments.access.login.type = qvl::KeyType::b;
    addDirectoryKey(options, arguments);
    options
        .text(
            "--key", [&arguments](const std::string& text) { arguments.access.login.key = keyFromText(text); },
            "Key of the sectors that may write their trailers")
        .type("KEY")
        .required();
    addKeyTypeOption(options, arguments.access.login.type, "b by default");
    addKeyOption(options, "--new-key-a", arguments.newKeyA, "Key A of the freed sectors; mad by default");
    addKeyOption(options, "--new-key-b", arguments.newKeyB, "Key B of the freed sectors; as --mad-key-b by default");
    addUidOption(options, arguments.access);
    options.footer("What the sectors hold is zeroed.");
}

/// The directory is read with the key that is there to write it: it always may.
void readWithDirectoryKey(AppArguments& arguments) {
    arguments.access.directory = {*arguments.directoryKeyB, qvl::KeyType::b};
}

Work setUpInit(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->id);
    addGivingOptions(options, *arguments);
    options.footer("Example: qvltag app init 4711 2 --mad-key-b @master.key --new-key-a @door.a --new-key-b @door.b");
    return [arguments](Session& session) { return createApp(session, *arguments); };
}

Work setUpAdd(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->access.app);
    addGivingOptions(options, *arguments);
    options.footer("Only sectors above those that the application has are used.");
    options.whenRead([arguments] { readWithDirectoryKey(*arguments); });
    return [arguments](Session& session) { return addToApp(session, *arguments); };
}

Work takingWork(Options& options, const std::shared_ptr<AppArguments>& arguments) {
    addTakingOptions(options, *arguments);
    options.whenRead([arguments] { readWithDirectoryKey(*arguments); });
    return [arguments](Session& session) { return takeSectors(session, *arguments); };
}

Work setUpRemove(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->access.app);
    options.value("--from", arguments->from, "Position in the list of its sectors, 0 by default")
        .type("I")
        .range(0, kMostAppSectors - 1);
    addCount(options, "--count", arguments->count, "How many sectors");
    return takingWork(options, arguments);
}

Work setUpReset(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->access.app);
    addCount(options, "COUNT", arguments->count, "How many sectors from its first one on; all of them remove it");
    return takingWork(options, arguments);
}

}  // namespace

Work setUpApp(Options& options) {
    static constexpr Command kCommands[] = {
        {"ls", "List the applications of a tag and their sectors", setUpAppLs},
        {"init", "Create an application", setUpInit},
        {"add", "Give an application more sectors", setUpAdd},
        {"remove", "Take sectors from an application", setUpRemove},
        {"reset", "Take its first sectors, or all, from an application", setUpReset},
        {"read", "Show all that an application holds", setUpAppRead},
        {"write", "Write all that an application holds", setUpAppWrite},
    };
    return addCommands(options, kCommands);
}

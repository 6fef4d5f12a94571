// "app": applications as a whole.

#include "AccessText.h"
#include "AppData.h"
#include "Command.h"
#include "DataOptions.h"
#include "Records.h"
#include "ServiceStatus.h"
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
    std::optional<Key> directoryKeyB, sectorKeyB, newKeyA, newKeyB;
    DataAccControl condition = AccData100;
    short from = 0;
    short count = 0;
};

void addCount(Options& options, const char* name, short& count, const char* description) {
    options.value(name, count, description).required().type("").range(1, kMostAppSectors);
}

void addDirectoryKey(Options& options, AppArguments& arguments) {
    addKeyOption(options, "--mad-key-b", arguments.directoryKeyB, "Key B of the directory, which writes it").required();
}

/// The two operations that give sectors differ in one thing: whether the application is there already.
using GiveSectors = decltype(&ReaderImpl::initApp);

Outcome giveSectors(Session& session, const AppArguments& arguments, const TagUID& tag, GiveSectors give) {
    Records records(session.adaptor());
    int finished = 0;
    const std::uint16_t id = arguments.id ? *arguments.id : *arguments.access.app;
    const int status = (session.adaptor().*give)(0, TagAppMad1, static_cast<short>(id), arguments.directoryKeyB->data(),
                                                 bytesOrNull(arguments.sectorKeyB), 0, arguments.count, tag,
                                                 arguments.newKeyA->data(), arguments.newKeyB->data(),
                                                 arguments.condition, finished, records.count(), records.list());
    if (status != kOk) return failWithRecords(session, status, "sector", records.all(), appText(id));
    std::vector<int> sectors;
    for (const OpResultCode& each : records.all())
        if (each.status == kOk) sectors.push_back(each.number);
    session.output().put({{"app", appText(id)}, {"sectors", sectors}},
                         "application " + appText(id) + " now has " + named("sector", sectors));
    return Outcome::done;
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
            "--access", [&arguments](const std::string& text) { arguments.condition = dataConditionFromText(text); },
            "Who may do what with the blocks, as \"access block\" has it;\nwrite-b by default")
        .type("CODE");
    addUidOption(options, arguments.access);
}

Outcome takeSectors(Session& session, const AppArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    std::vector<int> statuses(static_cast<std::size_t>(arguments.count));
    const int status = session.adaptor().removeAppSector(0, TagAppMad1, access.appId(), arguments.directoryKeyB->data(),
                                                         0, arguments.from, arguments.count, tag, access.keyMode,
                                                         access.key.data(), bytesOrNull(arguments.newKeyA),
                                                         bytesOrNull(arguments.newKeyB), statuses.data());
    const std::string id = appText(*access.app);
    if (status == kOk) {
        session.output().put({{"app", id}, {"removed", arguments.count}},
                             "application " + id + ": " + counted(static_cast<std::size_t>(arguments.count), "sector") +
                                 " removed");
        return Outcome::done;
    }
    std::vector<OpResultCode> records;
    for (std::size_t i = 0; i < statuses.size() && statuses[i] != 0; ++i)
        records.push_back({static_cast<short>(arguments.from + static_cast<short>(i)), statuses[i]});
    return failWithRecords(session, status, "position", records, id);
}

void addTakingOptions(Options& options, AppArguments& arguments) {
    arguments.access.keyMode = AuthKeyB;
    addDirectoryKey(options, arguments);
    options
        .text(
            "--key", [&arguments](const std::string& text) { arguments.access.key = keyFromText(text); },
            "Key of the sectors that may write their trailers")
        .type("KEY")
        .required();
    addKeyTypeOption(options, arguments.access.keyMode, "b by default");
    addKeyOption(options, "--new-key-a", arguments.newKeyA, "Key A of the freed sectors; mad by default");
    addKeyOption(options, "--new-key-b", arguments.newKeyB, "Key B of the freed sectors; as --mad-key-b by default");
    addUidOption(options, arguments.access);
    options.footer("What the sectors hold is zeroed.");
}

/// The directory is read with the key that is there to write it: it always may.
void readWithDirectoryKey(AppArguments& arguments) {
    arguments.access.madKey = arguments.directoryKeyB;
    arguments.access.madKeyMode = AuthKeyB;
}

Work setUpInit(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->id);
    addGivingOptions(options, *arguments);
    options.footer("Example: qvltag app init 4711 2 --mad-key-b @master.key --new-key-a @door.a --new-key-b @door.b");
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return giveSectors(session, *arguments, tag, &ReaderImpl::initApp); });
    };
}

Work setUpAdd(Options& options) {
    const auto arguments = std::make_shared<AppArguments>();
    addAppId(options, arguments->access.app);
    addGivingOptions(options, *arguments);
    options.footer("Only sectors above those that the application has are used.");
    options.whenRead([arguments] { readWithDirectoryKey(*arguments); });
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) {
            return giveSectors(session, *arguments, tag, &ReaderImpl::addAppSector);
        });
    };
}

Work takingWork(Options& options, const std::shared_ptr<AppArguments>& arguments) {
    addTakingOptions(options, *arguments);
    options.whenRead([arguments] { readWithDirectoryKey(*arguments); });
    return [arguments](Session& session) {
        return onTag(session, arguments->access,
                     [&](const TagUID& tag) { return takeSectors(session, *arguments, tag); });
    };
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

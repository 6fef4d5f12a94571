#include "AppData.h"

#include "DataOptions.h"
#include "ResultsText.h"
#include "TagAccess.h"
#include "Text.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kBlockSize = 16;
constexpr std::uint16_t kFree = 0, kDefect = 1;
constexpr std::size_t kDataBlocks = 3;  // of a sector; the directory knows small ones only

Outcome listApps(Session& session, const TagAccess& access) {
    const auto directory = findTag(session, access).directory(access.directory, session.limit());
    std::vector<std::uint16_t> order;
    std::map<std::uint16_t, std::vector<int>> sectors;
    for (std::size_t sector = 1; sector < directory.size(); ++sector) {
        const std::uint16_t id = directory[sector];
        if (id > kDefect && !sectors.contains(id)) order.push_back(id);
        sectors[id].push_back(static_cast<int>(sector));
    }
    if (session.output().isJson()) {
        for (const std::uint16_t id : order)
            session.output().put({{"app", appText(id)}, {"sectors", sectors[id]}}, "");
        session.output().put({{"free", sectors[kFree]}, {"defect", sectors[kDefect]}}, "");
        return Outcome::done;
    }
    std::vector<std::vector<std::string>> rows;
    const auto addRow = [&](const std::string& name, const std::vector<int>& list) {
        if (!list.empty())
            rows.push_back(
                {name, named("sector", list), std::to_string(list.size() * kDataBlocks * kBlockSize) + " bytes"});
    };
    for (const std::uint16_t id : order)
        addRow(appText(id), sectors[id]);
    addRow("free", sectors[kFree]);
    addRow("defect", sectors[kDefect]);
    session.output().put({}, alignedTable(rows));
    return Outcome::done;
}

struct AppDataArguments {
    TagAccess access;
    DataArguments data;
    std::optional<std::array<std::uint8_t, kBlockSize>> fill;
    std::string file;
};

qvl::Application findApp(Session& session, const TagAccess& access) {
    return findTag(session, access).application(*access.app, access.directory);
}

Outcome readApp(Session& session, const AppDataArguments& arguments) {
    const qvl::Application app = findApp(session, arguments.access);
    return tellBlocks(session, app.readAll(arguments.access.login, session.limit()), arguments.file);
}

Outcome writeApp(Session& session, const AppDataArguments& arguments) {
    const auto& bytes = arguments.data.bytes;
    const qvl::Application app = findApp(session, arguments.access);
    const qvl::Results results = app.writeAll(bytes, arguments.access.login, arguments.fill, session.limit());
    const std::string id = appText(*arguments.access.app);
    if (!results.complete()) return tellResults(session, results, "block", id);
    session.output().put({{"app", id}, {"bytes", bytes.size()}, {"blocks", results.list().size()}},
                         "application " + id + ": " + counted(bytes.size(), "byte") + " written, " +
                             counted(results.list().size(), "block") + " in all");
    return Outcome::done;
}

std::array<std::uint8_t, kBlockSize> fillFromText(const std::string& text) {
    std::array<std::uint8_t, kBlockSize> block{};
    if (!bytesFromHex(text, block)) throw std::invalid_argument("what fills up is a block of 32 hexadecimal digits");
    return block;
}

}  // namespace

Work setUpAppLs(Options& options) {
    const auto access = std::make_shared<TagAccess>();
    addMadKeyOptions(options, *access);
    addUidOption(options, *access);
    return [access](Session& session) { return listApps(session, *access); };
}

Work setUpAppRead(Options& options) {
    const auto arguments = std::make_shared<AppDataArguments>();
    addAppId(options, arguments->access.app);
    addKeyOptions(options, arguments->access);
    addMadKeyOptions(options, arguments->access);
    options.value("--file", arguments->file, "Write the bytes to this file, do not show them").type("FILE");
    addUidOption(options, arguments->access);
    options.footer("Blocks are numbered within the application. Single ones: \"read BLOCK --app ID\".\n\n"
                   "Example: qvltag app read 4711 --key @door.a");
    return [arguments](Session& session) { return readApp(session, *arguments); };
}

Work setUpAppWrite(Options& options) {
    const auto arguments = std::make_shared<AppDataArguments>();
    addAppId(options, arguments->access.app);
    addDataOptions(options, arguments->data);
    options
        .text(
            "--fill", [arguments](const std::string& text) { arguments->fill = fillFromText(text); },
            "16 bytes, repeated over what the data leaves;\nzeros by default")
        .type("HEX");
    addKeyOptions(options, arguments->access);
    addMadKeyOptions(options, arguments->access);
    addUidOption(options, arguments->access);
    options.footer("The whole application is written, value blocks too. Single blocks: \"write BLOCK --app ID\".\n\n"
                   "Example: qvltag app write 4711 --text \"Door 17\" --key @door.b --key-type b");
    return [arguments](Session& session) { return writeApp(session, *arguments); };
}

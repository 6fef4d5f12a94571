#include "AppData.h"

#include "BlockText.h"
#include "DataOptions.h"
#include "FromLibrary.h"
#include "Records.h"
#include "ServiceStatus.h"
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

constexpr std::size_t kDirectoryWords = 16;
constexpr std::size_t kBlockSize = 16;
constexpr std::uint16_t kFree = 0, kDefect = 1;
constexpr std::size_t kDataBlocks = 3;  // of a sector; the directory knows small ones only

Outcome listApps(Session& session, const TagAccess& access, const TagUID& tag) {
    std::array<short, kDirectoryWords> directory{};
    const int status =
        session.adaptor().getAppIdDir(0, TagAppMad1, tag, directory.data(), access.madKeyMode, access.madKeyBytes());
    if (status != kOk) return session.fail(status);
    std::vector<std::uint16_t> order;
    std::map<std::uint16_t, std::vector<int>> sectors;
    for (std::size_t sector = 1; sector < directory.size(); ++sector) {
        const auto id = static_cast<std::uint16_t>(directory[sector]);
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
    std::optional<std::vector<std::uint8_t>> fill;
    std::string file;
};

Outcome readApp(Session& session, const AppDataArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    FromLibrary<std::uint8_t> data(session.adaptor());
    Records records(session.adaptor());
    int length = 0;
    const int status = session.adaptor().getAppData(0, access.appType(), tag, access.appId(), access.keyMode,
                                                    access.key.data(), data.out(), length, access.madKeyMode,
                                                    access.madKeyBytes(), records.count(), records.list());
    return tellData(session, status, {data.get(), static_cast<std::size_t>(data.get() ? length : 0)}, records.all(),
                    arguments.file);
}

Outcome writeApp(Session& session, AppDataArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    auto& bytes = arguments.data.bytes;
    Records records(session.adaptor());
    const int status = session.adaptor().setAppData(
        0, access.appType(), tag, access.appId(), access.keyMode, access.key.data(), bytes.data(),
        static_cast<int>(bytes.size()), access.madKeyMode, access.madKeyBytes(),
        arguments.fill ? arguments.fill->data() : nullptr, records.count(), records.list());
    const std::string id = appText(*access.app);
    if (status != kOk) return failWithRecords(session, status, "block", records.all(), id);
    session.output().put({{"app", id}, {"bytes", bytes.size()}, {"blocks", records.all().size()}},
                         "application " + id + ": " + counted(bytes.size(), "byte") + " written, " +
                             counted(records.all().size(), "block") + " in all");
    return Outcome::done;
}

std::vector<std::uint8_t> fillFromText(const std::string& text) {
    auto bytes = bytesFromHex(text);
    if (!bytes || bytes->size() != kBlockSize)
        throw std::invalid_argument("what fills up is a block of 32 hexadecimal digits");
    return *bytes;
}

}  // namespace

Work setUpAppLs(Options& options) {
    const auto access = std::make_shared<TagAccess>();
    addMadKeyOptions(options, *access);
    addUidOption(options, *access);
    return [access](Session& session) {
        return onTag(session, *access, [&](const TagUID& tag) { return listApps(session, *access, tag); });
    };
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
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) { return readApp(session, *arguments, tag); });
    };
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
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) { return writeApp(session, *arguments, tag); });
    };
}

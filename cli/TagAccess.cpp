#include "TagAccess.h"

#include "FromLibrary.h"
#include "ServiceStatus.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <stdexcept>
#include <string>

namespace {

constexpr std::size_t kLongestUid = 10;
constexpr unsigned kFirstApp = 6, kLastApp = 0xFFFF;

std::uint16_t appFromText(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    unsigned id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
    if (error != std::errc() || end != text.data() + text.size() || id < kFirstApp || id > kLastApp)
        throw std::invalid_argument("an application id is a hexadecimal number from 6 to FFFF");
    return static_cast<std::uint16_t>(id);
}

std::vector<std::uint8_t> uidFromText(const std::string& text) {
    const auto uid = bytesFromHex(text);
    if (!uid || uid->empty() || uid->size() > kLongestUid)
        throw std::invalid_argument("a UID is up to 10 bytes, two hexadecimal digits each");
    return *uid;
}

Outcome theTagWithUid(Session& session, const TagAccess& access, const std::function<Outcome(const TagUID&)>& work) {
    FromLibrary<TagUID> tags(session.adaptor());
    short count = 0;
    const int status = session.adaptor().getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags.out());
    if (status != kOk) return session.fail(status);
    const TagUID wanted(access.uid.data(), static_cast<std::uint32_t>(access.uid.size()), kTagUnknown);
    for (const TagUID& each : std::span(tags.get(), static_cast<std::size_t>(count)))
        if (each == wanted) return work(each);
    return session.fail(kNoTag, hexDigits(access.uid));
}

}  // namespace

CLI::Option* addTextOption(CLI::App& app, const char* name, std::function<void(const std::string&)> take,
                           const char* description) {
    return app
        .add_option_function<std::string>(
            name,
            [name, take = std::move(take)](const std::string& text) {
                try {
                    take(text);
                } catch (const std::invalid_argument& wrong) {
                    throw CLI::ValidationError(name, wrong.what());
                }
            },
            description)
        ->type_name("");
}

void addUidOption(CLI::App& app, TagAccess& access) {
    addTextOption(
        app, "--uid", [&access](const std::string& text) { access.uid = uidFromText(text); },
        "Only the tag with this UID, not the first one found")
        ->type_name("HEX");
}

CLI::Option* addKeyOption(CLI::App& app, const char* name, std::optional<Key>& key, const char* description) {
    return addTextOption(
               app, name, [&key](const std::string& text) { key = keyFromText(text); }, description)
        ->type_name("KEY");
}

CLI::Option* addKeyTypeOption(CLI::App& app, AuthKeyMode& mode, const char* fallback) {
    static const std::map<std::string, AuthKeyMode> kTypes{{"a", AuthKeyA}, {"b", AuthKeyB}};
    return app.add_option("--key-type", mode, std::string("Which key of the sector that is, a or b; ") + fallback)
        ->type_name("TYPE")
        ->transform(CLI::CheckedTransformer(kTypes, CLI::ignore_case));
}

void addKeyOptions(CLI::App& app, TagAccess& access) {
    addTextOption(
        app, "--key", [&access](const std::string& text) { access.key = keyFromText(text); },
        "Key of the sectors: 12 digits, factory (the default), mad,\n@FILE or env:NAME")
        ->type_name("KEY");
    addKeyTypeOption(app, access.keyMode, "a by default");
}

void addMadKeyOptions(CLI::App& app, TagAccess& access) {
    auto* key = addKeyOption(app, "--mad-key", access.madKey, "Key of the directory, if not its public key A");
    static const std::map<std::string, AuthKeyMode> kTypes{{"a", AuthKeyA}, {"b", AuthKeyB}};
    app.add_option("--mad-key-type", access.madKeyMode, "Which key of sector 0 that is, a or b; a by default")
        ->type_name("TYPE")
        ->transform(CLI::CheckedTransformer(kTypes, CLI::ignore_case))
        ->needs(key);
}

CLI::Option* addAppOption(CLI::App& app, TagAccess& access) {
    auto* option = addTextOption(
                       app, "--app", [&access](const std::string& text) { access.app = appFromText(text); },
                       "Count blocks and sectors within this application, from 0")
                       ->type_name("ID");
    addMadKeyOptions(app, access);
    return option;
}

void addAppId(CLI::App& app, std::optional<std::uint16_t>& id) {
    addTextOption(
        app, "ID", [&id](const std::string& text) { id = appFromText(text); },
        "The application, a hexadecimal number from 6 to FFFF")
        ->required();
}

Outcome onTag(Session& session, const TagAccess& access, const std::function<Outcome(const TagUID&)>& work) {
    if (!access.uid.empty()) return theTagWithUid(session, access, work);
    FromLibrary<TagUID> found(session.adaptor());
    const int status = session.adaptor().getTagId(0, access.appType(), access.appId(), found.out(), access.madKeyMode,
                                                  access.madKeyBytes(), true);
    return status == kOk ? work(*found.get()) : session.fail(status);
}

std::string uidText(const TagUID& tag) { return hexDigits({tag.getUid(), tag.getUidLen()}); }

const char* typeText(const TagUID& tag) { return tagInfoByType(tag.getTagType()).name; }

std::string appText(std::uint16_t id) {
    const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id)};
    return hexDigits(bytes);
}

#include "TagAccess.h"

#include "FromLibrary.h"
#include "ServiceStatus.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <map>
#include <stdexcept>
#include <string>

namespace {

constexpr std::size_t kLongestUid = 10;
const std::map<std::string, AuthKeyMode> kKeyTypes{{"a", AuthKeyA}, {"b", AuthKeyB}};
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

void addUidOption(Options& options, TagAccess& access) {
    options
        .text(
            "--uid", [&access](const std::string& text) { access.uid = uidFromText(text); },
            "Only the tag with this UID, not the first one found")
        .type("HEX");
}

Option addKeyOption(Options& options, const char* name, std::optional<Key>& key, const char* description) {
    return options
        .text(
            name, [&key](const std::string& text) { key = keyFromText(text); }, description)
        .type("KEY");
}

Option addKeyTypeOption(Options& options, AuthKeyMode& mode, const char* fallback) {
    return options
        .choice("--key-type", mode, kKeyTypes, true,
                std::string("Which key of the sector that is, a or b; ") + fallback)
        .type("TYPE");
}

void addKeyOptions(Options& options, TagAccess& access) {
    options
        .text(
            "--key", [&access](const std::string& text) { access.key = keyFromText(text); },
            "Key of the sectors: 12 digits, factory (the default), mad,\n@FILE or env:NAME")
        .type("KEY");
    addKeyTypeOption(options, access.keyMode, "a by default");
}

void addMadKeyOptions(Options& options, TagAccess& access) {
    const Option key =
        addKeyOption(options, "--mad-key", access.madKey, "Key of the directory, if not its public key A");
    options
        .choice("--mad-key-type", access.madKeyMode, kKeyTypes, true,
                "Which key of sector 0 that is, a or b; a by default")
        .type("TYPE")
        .needs(key);
}

Option addAppOption(Options& options, TagAccess& access) {
    const Option option = options
                              .text(
                                  "--app", [&access](const std::string& text) { access.app = appFromText(text); },
                                  "Count blocks and sectors within this application, from 0")
                              .type("ID");
    addMadKeyOptions(options, access);
    return option;
}

void addAppId(Options& options, std::optional<std::uint16_t>& id) {
    options
        .text(
            "ID", [&id](const std::string& text) { id = appFromText(text); },
            "The application, a hexadecimal number from 6 to FFFF")
        .required();
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

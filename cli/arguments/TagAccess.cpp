#include "TagAccess.h"

#include "Text.h"

#include <array>
#include <charconv>
#include <stdexcept>
#include <string>

namespace {

constexpr unsigned kFirstApp = 6, kLastApp = 0xFFFF;

std::uint16_t appFromText(std::string_view text) {
    if (text.starts_with("0x") || text.starts_with("0X")) text.remove_prefix(2);
    unsigned id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id, 16);
    if (error != std::errc() || end != text.data() + text.size() || id < kFirstApp || id > kLastApp)
        throw std::invalid_argument("an application id is a hexadecimal number from 6 to FFFF");
    return static_cast<std::uint16_t>(id);
}

// Blanks and colons may stand between the digits.
qvl::Uid uidFromText(const std::string& text) {
    const auto bytes = bytesFromHex(text);
    return qvl::Uid::parse(bytes ? hexDigits(*bytes) : text);
}

}  // namespace

void addUidOption(Options& options, TagAccess& access) {
    options
        .text(
            "--uid", [&access](const std::string& text) { access.uid = uidFromText(text); },
            "Only the tag with this UID, not the first one found")
        .type("HEX");
}

Option addKeyOption(Options& options, const char* name, std::optional<qvl::Key>& key, const char* description) {
    return options
        .text(
            name, [&key](const std::string& text) { key = keyFromText(text); }, description)
        .type("KEY");
}

Option addKeyTypeOption(Options& options, qvl::KeyType& type, const char* fallback) {
    return options
        .choice("--key-type", type, kKeyTypes, true,
                std::string("Which key of the sector that is, a or b; ") + fallback)
        .type("TYPE");
}

void addKeyOptions(Options& options, TagAccess& access) {
    options
        .text(
            "--key", [&access](const std::string& text) { access.login.key = keyFromText(text); },
            "Key of the sectors: 12 digits, factory (the default), mad,\n@FILE or env:NAME")
        .type("KEY");
    addKeyTypeOption(options, access.login.type, "a by default");
}

void addMadKeyOptions(Options& options, TagAccess& access) {
    const Option key =
        options
            .text(
                "--mad-key", [&access](const std::string& text) { access.directory.key = keyFromText(text); },
                "Key of the directory, if not its public key A")
            .type("KEY");
    options
        .choice("--mad-key-type", access.directory.type, kKeyTypes, true,
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

qvl::Tag findTag(Session& session, const TagAccess& access) {
    const qvl::Limit limit = session.limit();
    if (!access.uid.empty()) return session.reader().waitForTag(access.uid, limit);
    if (access.app) return session.reader().waitForTag(qvl::ApplicationQuery{*access.app, access.directory}, limit);
    return session.reader().waitForTag(limit);
}

Outcome onMemory(Session& session, const TagAccess& access, const std::function<Outcome(const qvl::Memory&)>& work) {
    const qvl::Tag tag = findTag(session, access);
    return access.app ? work(tag.application(*access.app, access.directory)) : work(tag);
}

std::string appText(std::uint16_t id) {
    const std::array<std::uint8_t, 2> bytes{static_cast<std::uint8_t>(id >> 8), static_cast<std::uint8_t>(id)};
    return hexDigits(bytes);
}

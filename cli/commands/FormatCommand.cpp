// "format" and "unformat": a whole tag from the factory state to the system's own and back.

#include "Command.h"
#include "FromLibrary.h"
#include "Records.h"
#include "ServiceStatus.h"
#include "TagAccess.h"
#include "Text.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr std::size_t kMostSectors = 40;

struct FormatArguments {
    TagAccess access;  // the UID alone
    TagAppType directory = TagAppMad1;
    std::optional<Key> keyA, keyB;
};

/// The library chooses the tag by itself. Where a certain one is wanted, it has to be the only one.
Outcome checkOnlyTag(Session& session, const TagAccess& access) {
    if (access.uid.empty()) return Outcome::done;
    FromLibrary<TagUID> tags(session.adaptor());
    short count = 0;
    const int status = session.adaptor().getAllTagId(0, TagAppNone, 0, AuthKeyA, nullptr, count, tags.out());
    if (status != kOk) return session.fail(status);
    if (count == 1 && uidText(*tags.get()) == hexDigits(access.uid)) return Outcome::done;
    return session.output().error({Outcome::failed, "other tags",
                                   "the tag " + hexDigits(access.uid) + " is not the only one at the reader",
                                   "Lay this one tag on the reader and nothing else; \"ls\" shows what is there.", 0});
}

Outcome done(Session& session, const TagUID& tag, const char* what) {
    session.output().put({{what, uidText(tag)}, {"type", typeText(tag)}},
                         std::string(what) + ": " + uidText(tag) + ", " + typeText(tag));
    return Outcome::done;
}

Outcome formatTag(Session& session, FormatArguments& arguments) {
    if (const Outcome check = checkOnlyTag(session, arguments.access); check != Outcome::done) return check;
    FromLibrary<TagUID> tag(session.adaptor());
    Records records(session.adaptor());
    const int status = session.adaptor().formatTag(0, arguments.directory, bytesOrNull(arguments.keyB), tag.out(),
                                                   bytesOrNull(arguments.keyA), records.count(), records.list());
    if (status != kOk) return failWithRecords(session, status, "sector", records.all());
    return done(session, *tag.get(), "formatted");
}

Outcome unformatTag(Session& session, FormatArguments& arguments) {
    if (const Outcome check = checkOnlyTag(session, arguments.access); check != Outcome::done) return check;
    FromLibrary<TagUID> tag(session.adaptor());
    std::array<int, kMostSectors> statuses{};
    const int status =
        session.adaptor().unformatTag(0, arguments.directory, bytesOrNull(arguments.keyB), tag.out(), statuses.data());
    if (status == kOk) return done(session, *tag.get(), "unformatted");
    std::vector<OpResultCode> records;
    for (std::size_t i = 0; i < statuses.size() && statuses[i] != 0; ++i)
        records.push_back({static_cast<short>(i), statuses[i]});
    return failWithRecords(session, status, "sector", records);
}

}  // namespace

Work setUpFormat(Options& options) {
    const auto arguments = std::make_shared<FormatArguments>();
    static const std::map<std::string, TagAppType> kDirectories{
        {"1", TagAppMad1}, {"2", TagAppMad2}, {"none", TagAppNone}};
    options
        .choice("--mad", arguments->directory, kDirectories, false,
                "Version of the application directory: 1 (the default),\n2 or none")
        .type("VERSION");
    addKeyOption(options, "--new-key-b", arguments->keyB, "Key B of all sectors from then on").required();
    addKeyOption(options, "--new-key-a", arguments->keyA, "Key A of all sectors; mad with a directory, else factory");
    addUidOption(options, arguments->access);
    options.footer("The tag has to be in the factory state. From then on key A reads and key B writes.\n"
                   "Data blocks stay as they are, but for the directory in sector 0.\n\n"
                   "Example: qvltag format --new-key-b @master.key");
    return [arguments](Session& session) { return formatTag(session, *arguments); };
}

Work setUpUnformat(Options& options) {
    const auto arguments = std::make_shared<FormatArguments>();
    static const std::map<std::string, TagAppType> kDirectories{{"1", TagAppMad1}, {"none", TagAppNone}};
    addKeyOption(options, "--key-b", arguments->keyB, "Key B of all sectors").required();
    options
        .choice("--mad", arguments->directory, kDirectories, false,
                "1 (the default) stops if sector 0 fails,\nnone goes on with the others")
        .type("VERSION");
    addUidOption(options, arguments->access);
    options.footer("Sectors of applications have keys of their own: remove the applications first.\n"
                   "Block 1 keeps the checksum of an empty directory; \"write 1 00\" clears it.\n\n"
                   "Example: qvltag unformat --key-b @master.key");
    return [arguments](Session& session) { return unformatTag(session, *arguments); };
}

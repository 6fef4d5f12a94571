// "format" and "unformat": a whole tag from the factory state to the system's own and back.

#include "Command.h"
#include "ResultsText.h"
#include "TagAccess.h"

#include <map>
#include <memory>
#include <optional>
#include <string>

namespace {

using Directory = qvl::Tag::Directory;

struct FormatArguments {
    TagAccess access;  // the UID alone
    Directory directory = Directory::version1;
    std::optional<qvl::Key> keyA, keyB;
};

Outcome tell(Session& session, const qvl::Tag& tag, const qvl::Results& results, const char* what) {
    if (!results.complete()) return tellResults(session, results, "sector");
    const std::string uid = tag.uid().text();
    session.output().put({{what, uid}, {"type", tag.typeName()}},
                         std::string(what) + ": " + uid + ", " + tag.typeName());
    return Outcome::done;
}

Outcome formatTag(Session& session, const FormatArguments& arguments) {
    const qvl::Tag tag = findTag(session, arguments.access);
    return tell(session, tag, tag.format(*arguments.keyB, arguments.directory, arguments.keyA, session.limit()),
                "formatted");
}

Outcome unformatTag(Session& session, const FormatArguments& arguments) {
    const qvl::Tag tag = findTag(session, arguments.access);
    return tell(session, tag, tag.unformat(*arguments.keyB, arguments.directory, session.limit()), "unformatted");
}

}  // namespace

Work setUpFormat(Options& options) {
    const auto arguments = std::make_shared<FormatArguments>();
    static const std::map<std::string, Directory> kDirectories{
        {"1", Directory::version1}, {"2", Directory::version2}, {"none", Directory::none}};
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
    static const std::map<std::string, Directory> kDirectories{{"1", Directory::version1}, {"none", Directory::none}};
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

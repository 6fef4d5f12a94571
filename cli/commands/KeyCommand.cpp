// "key": the keys of sectors.

#include "Command.h"
#include "ResultsText.h"
#include "SectorPlace.h"
#include "TagAccess.h"

#include <memory>
#include <optional>
#include <string>

namespace {

struct KeyArguments {
    TagAccess access;
    SectorPlace place;
    std::optional<qvl::Key> newKeyA, newKeyB;
};

Outcome setKeys(Session& session, const KeyArguments& arguments) {
    const TagAccess& access = arguments.access;
    const SectorPlace& place = arguments.place;
    const qvl::KeyPair keys{*arguments.newKeyA, *arguments.newKeyB};
    const qvl::Tag tag = findTag(session, access);
    return tellSectors(session,
                       access.app
                           ? tag.application(*access.app, access.directory).setKeys(keys, access.login, session.limit())
                           : tag.setKeys(place.sector, place.count, keys, access.login, session.limit()),
                       "new keys");
}

Work setUpKeySet(Options& options) {
    const auto arguments = std::make_shared<KeyArguments>();
    options.value("SECTOR", arguments->place.sector, "The first sector; none with --app")
        .type("")
        .range(0, kLastSector);
    addSectorCount(options, arguments->place, arguments->access);
    addKeyOptions(options, arguments->access);
    addKeyOption(options, "--new-key-a", arguments->newKeyA, "Key A from then on").required();
    addKeyOption(options, "--new-key-b", arguments->newKeyB, "Key B from then on").required();
    addUidOption(options, arguments->access);
    options.footer(
        "Give the key that may write the trailer: A of factory sectors, B of formatted ones.\n\n"
        "Example: qvltag key set --app 4711 --key @old.b --key-type b --new-key-a @new.a --new-key-b @new.b");
    options.whenRead([arguments] { arguments->place.check(arguments->access); });
    return [arguments](Session& session) { return setKeys(session, *arguments); };
}

}  // namespace

Work setUpKey(Options& options) {
    static constexpr Command kCommands[] = {{"set", "Change both keys of sectors", setUpKeySet}};
    return addCommands(options, kCommands);
}

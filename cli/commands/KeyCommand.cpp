// "key": the keys of sectors.

#include "Command.h"
#include "Records.h"
#include "SectorPlace.h"
#include "ServiceStatus.h"
#include "TagAccess.h"

#include <memory>
#include <optional>
#include <string>

namespace {

struct KeyArguments {
    TagAccess access;
    SectorPlace place;
    std::optional<Key> newKeyA, newKeyB;
};

Outcome setKeys(Session& session, const KeyArguments& arguments, const TagUID& tag) {
    const TagAccess& access = arguments.access;
    Records records(session.adaptor());
    const int status = session.adaptor().setKey(0, access.appType(), access.appIdOr(arguments.place.sector), tag,
                                                access.keyMode, access.key.data(), arguments.newKeyA->data(),
                                                arguments.newKeyB->data(), arguments.place.count, access.madKeyMode,
                                                access.madKeyBytes(), records.count(), records.list());
    return tellSectors(session, status, records, "new keys");
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
    return [arguments](Session& session) {
        return onTag(session, arguments->access, [&](const TagUID& tag) { return setKeys(session, *arguments, tag); });
    };
}

}  // namespace

Work setUpKey(Options& options) {
    static constexpr Command kCommands[] = {{"set", "Change both keys of sectors", setUpKeySet}};
    return addCommands(options, kCommands);
}

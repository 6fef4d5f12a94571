// "info": what the reader tells of itself.

#include "Command.h"
#include "Text.h"

#include <string>
#include <utility>

namespace {

Outcome showInfo(Session& session) {
    const qvl::Identity identity = session.reader().identity(session.limit());
    const std::pair<std::string, std::string> rows[] = {
        {"Reader", identity.adaptor},   {"Model", identity.model},   {"Firmware", identity.firmware},
        {"Id", hexDigits(identity.id)}, {"Device", identity.device},
    };
    Json object{{"reader", identity.adaptor}};
    if (!identity.model.empty()) object.add("model", identity.model);
    object.add("firmware", identity.firmware);
    object.add("id", hexDigits(identity.id));
    if (!identity.device.empty()) object.add("device", identity.device);
    session.output().put(object, alignedRows(rows));
    return Outcome::done;
}

}  // namespace

Work setUpInfo(Options&) { return showInfo; }

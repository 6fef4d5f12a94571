// "info": what the reader tells of itself.

#include "Command.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string>
#include <utility>

namespace {

// Readers give less: 6 bytes of id, a text of up to 54 characters.
using Buffer = std::array<std::uint8_t, 256>;

/// The two kinds of readers that the library drives have serial numbers of different lengths. Empty for another length.
std::string modelOf(std::size_t idLength) {
    constexpr std::size_t kPn531IdLength = 6, kMfRc500IdLength = 4;
    if (idLength == kPn531IdLength) return "PN531";
    return idLength == kMfRc500IdLength ? "MF RC500" : "";
}

Outcome showInfo(Session& session) {
    ReaderImpl& adaptor = session.adaptor();
    Buffer version{}, id{};
    std::uint16_t versionLength = 0, idLength = 0;
    if (const int status = adaptor.getReaderFwVersion(version.data(), versionLength); status != kOk)
        return session.fail(status, "firmware version");
    if (const int status = adaptor.getReaderId(id.data(), idLength); status != kOk)
        return session.fail(status, "reader id");

    const std::string firmware(version.begin(), std::find(version.begin(), version.end(), std::uint8_t{0}));
    const std::string idText = hexDigits(std::span(id).first(std::min<std::size_t>(idLength, id.size())));
    const std::string model = modelOf(idLength);
    const char* device = adaptor.getDeviceInstanceID();
    const std::pair<std::string, std::string> rows[] = {
        {"Reader", adaptor.getAdaptorName()}, {"Model", model}, {"Firmware", firmware}, {"Id", idText},
        {"Device", device ? device : ""},
    };
    Json object{{"reader", adaptor.getAdaptorName()}};
    if (!model.empty()) object.add("model", model);
    object.add("firmware", firmware);
    object.add("id", idText);
    if (device) object.add("device", device);
    session.output().put(object, alignedRows(rows));
    return Outcome::done;
}

}  // namespace

Work setUpInfo(Options&) { return showInfo; }

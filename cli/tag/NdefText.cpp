#include "NdefText.h"

#include "ApduText.h"
#include "Text.h"

#include <string>

namespace {

/// What a card says must not steer the terminal: control characters, those of two bytes (U+0080 to U+009F) included,
/// become points.
std::string withoutControls(std::string text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto at = [&](std::size_t index) {
            return static_cast<unsigned char>(index < text.size() ? text[index] : 0);
        };
        if (at(i) < ' ' || at(i) == 0x7F) text[i] = '.';
        if (at(i) == 0xC2 && at(i + 1) >= 0x80 && at(i + 1) < 0xA0) text.replace(i, 2, ".");
    }
    return text;
}

}  // namespace

void tellNdefRecord(Output& output, std::size_t number, const qvl::NdefRecord& record) {
    Json object{{"record", number}};
    if (!record.id.empty()) object.add("id", std::string(record.id.begin(), record.id.end()));
    if (const auto uri = record.uri()) {
        object.add("uri", *uri);
        return output.put(object, "URI   " + withoutControls(*uri));
    }
    if (const auto words = record.text()) {
        object.add("text", words->text);
        object.add("language", words->language);
        return output.put(object,
                          "Text  " + withoutControls(words->text) + " (" + withoutControls(words->language) + ")");
    }
    object.add("type", record.typeName());
    object.add("data", hexDigits(record.payload));
    const std::string dump = dumpRows("      ", record.payload);
    output.put(object, "Type  " + withoutControls(record.typeName()) + (dump.empty() ? "" : "\n" + dump));
}

#include "NdefMessage.h"

#include "ApduText.h"
#include "Text.h"

#include <array>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace {

using Bytes = std::vector<std::uint8_t>;
using View = std::span<const std::uint8_t>;

enum Flag : std::uint8_t { kMessageBegin = 0x80, kMessageEnd = 0x40, kChunk = 0x20, kShort = 0x10, kHasId = 0x08 };
enum TypeNameFormat : std::uint8_t { kEmpty, kWellKnown, kMedia, kAbsoluteUri, kExternal, kUnknown, kUnchanged };
constexpr std::uint8_t kFormatBits = 0x07;

/// Identifier codes of the URI record type definition.
constexpr std::array<std::string_view, 36> kUriPrefixes = {"",
                                                           "http://www.",
                                                           "https://www.",
                                                           "http://",
                                                           "https://",
                                                           "tel:",
                                                           "mailto:",
                                                           "ftp://anonymous:anonymous@",
                                                           "ftp://ftp.",
                                                           "ftps://",
                                                           "sftp://",
                                                           "smb://",
                                                           "nfs://",
                                                           "ftp://",
                                                           "dav://",
                                                           "news:",
                                                           "telnet://",
                                                           "imap:",
                                                           "rtsp://",
                                                           "urn:",
                                                           "pop:",
                                                           "sip:",
                                                           "sips:",
                                                           "tftp:",
                                                           "btspp://",
                                                           "btl2cap://",
                                                           "btgoep://",
                                                           "tcpobex://",
                                                           "irdaobex://",
                                                           "file://",
                                                           "urn:epc:id:",
                                                           "urn:epc:tag:",
                                                           "urn:epc:pat:",
                                                           "urn:epc:raw:",
                                                           "urn:epc:",
                                                           "urn:nfc:"};

std::string textOf(View bytes) { return {bytes.begin(), bytes.end()}; }

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

/// Takes fields from the front of a message, each of them only if it is there as a whole.
class Cursor {
  public:
    explicit Cursor(View bytes) : mRest(bytes) {}

    bool atEnd() const { return mRest.empty(); }
    View take(std::size_t count) {
        if (count > mRest.size()) throw std::invalid_argument("it ends in the middle of a record");
        const View taken = mRest.first(count);
        mRest = mRest.subspan(count);
        return taken;
    }
    std::size_t number(std::size_t bytes) {
        std::size_t value = 0;
        for (const std::uint8_t byte : take(bytes))
            value = value << 8 | byte;
        return value;
    }

  private:
    View mRest;
};

struct Header {
    std::uint8_t flags;
    NdefRecord record;
};

Header takeRecord(Cursor& cursor) {
    constexpr std::size_t kShortLength = 1, kLongLength = 4;
    const auto flags = static_cast<std::uint8_t>(cursor.number(1));
    const std::size_t typeLength = cursor.number(1);
    const std::size_t payloadLength = cursor.number(flags & kShort ? kShortLength : kLongLength);
    const std::size_t idLength = flags & kHasId ? cursor.number(1) : 0;
    const auto bytes = [&](std::size_t count) {
        const View taken = cursor.take(count);
        return Bytes(taken.begin(), taken.end());
    };
    Header header{flags, {}};
    header.record.typeNameFormat = flags & kFormatBits;
    header.record.type = bytes(typeLength);
    header.record.id = bytes(idLength);
    header.record.payload = bytes(payloadLength);
    return header;
}

std::optional<std::string> uriOf(const NdefRecord& record) {
    if (record.typeNameFormat == kAbsoluteUri) return textOf(record.type);
    if (record.typeNameFormat != kWellKnown || textOf(record.type) != "U" || record.payload.empty())
        return std::nullopt;
    const std::uint8_t code = record.payload[0];
    const std::string_view prefix = code < kUriPrefixes.size() ? kUriPrefixes[code] : std::string_view();
    return std::string(prefix) + textOf(View(record.payload).subspan(1));
}

/// Language and text of a text record in UTF-8.
std::optional<std::pair<std::string, std::string>> wordsOf(const NdefRecord& record) {
    constexpr std::uint8_t kUtf16 = 0x80, kLanguageLength = 0x3F;
    if (record.typeNameFormat != kWellKnown || textOf(record.type) != "T" || record.payload.empty())
        return std::nullopt;
    const View rest = View(record.payload).subspan(1);
    const std::size_t length = record.payload[0] & kLanguageLength;
    if (record.payload[0] & kUtf16 || length > rest.size()) return std::nullopt;
    return std::pair(textOf(rest.first(length)), textOf(rest.subspan(length)));
}

std::string typeText(const NdefRecord& record) {
    std::string type = textOf(record.type);
    switch (record.typeNameFormat) {
    case kEmpty:
        return "empty";
    case kWellKnown:
        return "urn:nfc:wkt:" + type;
    case kExternal:
        return "urn:nfc:ext:" + type;
    case kUnknown:
        return "unknown";
    default:
        return type;
    }
}

}  // namespace

std::vector<NdefRecord> ndefRecords(View message) {
    std::vector<NdefRecord> records;
    Cursor cursor(message);
    bool inChunks = false;
    for (bool ended = false; !ended;) {
        if (cursor.atEnd()) throw std::invalid_argument("its last record is missing");
        Header header = takeRecord(cursor);
        if (((header.flags & kMessageBegin) != 0) != (records.empty() && !inChunks))
            throw std::invalid_argument("its records do not begin with the first one");
        if (inChunks != (header.record.typeNameFormat == kUnchanged))
            throw std::invalid_argument("the chunks of a record do not fit together");
        if (inChunks) {
            Bytes& payload = records.back().payload;
            payload.insert(payload.end(), header.record.payload.begin(), header.record.payload.end());
        } else {
            records.push_back(std::move(header.record));
        }
        inChunks = (header.flags & kChunk) != 0;
        ended = (header.flags & kMessageEnd) != 0;
    }
    if (inChunks || !cursor.atEnd()) throw std::invalid_argument("it does not end with its last record");
    return records;
}

void tellNdefRecord(Output& output, std::size_t number, const NdefRecord& record) {
    Json object{{"record", number}};
    if (!record.id.empty()) object.add("id", textOf(record.id));
    if (const auto uri = uriOf(record)) {
        object.add("uri", *uri);
        return output.put(object, "URI   " + withoutControls(*uri));
    }
    if (const auto words = wordsOf(record)) {
        object.add("text", words->second);
        object.add("language", words->first);
        return output.put(object,
                          "Text  " + withoutControls(words->second) + " (" + withoutControls(words->first) + ")");
    }
    object.add("type", typeText(record));
    object.add("data", hexDigits(record.payload));
    const std::string dump = dumpRows("      ", record.payload);
    output.put(object, "Type  " + withoutControls(typeText(record)) + (dump.empty() ? "" : "\n" + dump));
}

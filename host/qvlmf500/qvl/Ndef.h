#pragma once

#include "Bytes.h"
#include "Card.h"
#include "Error.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace qvl {

/// A record of an NDEF message (NFC Data Exchange Format, NFC Forum), its chunks joined.
struct NdefRecord {
    std::uint8_t typeNameFormat = 0;  ///< 0 to 7.
    Bytes type, id, payload;

    /// The whole URI of a URI record or of one whose type is a URI.
    std::optional<std::string> uri() const;
    struct Text {
        std::string language, text;
    };
    /// Of a text record in UTF-8.
    std::optional<Text> text() const;
    /// The type in the form of a URN or media type: "urn:nfc:wkt:U", "text/plain"; "empty" or "unknown".
    std::string typeName() const;
};

/// An NDEF message: its records, in order.
struct NdefMessage {
    std::vector<NdefRecord> records;

    /// @throws Error (content) that says where the message is not sound.
    static NdefMessage parse(ByteView bytes);
};

/// The bytes of the NDEF message of an NFC Forum Type 4 Tag; none for an empty message. No length that the card names
/// is trusted. @throws Error: content for a card that is no such tag or breaks the rules, else as Card::exchange.
Bytes readNdef(Card& card, const Limit& limit = Limit(std::chrono::seconds(5)));

namespace detail {

enum NdefFlag : std::uint8_t { kMessageBegin = 0x80, kMessageEnd = 0x40, kChunk = 0x20, kShort = 0x10, kHasId = 0x08 };
enum TypeNameFormat : std::uint8_t { kEmpty, kWellKnown, kMedia, kAbsoluteUri, kExternal, kUnknown, kUnchanged };
inline constexpr std::uint8_t kFormatBits = 0x07;

/// Identifier codes of the URI record type definition.
inline constexpr std::array<std::string_view, 36> kUriPrefixes = {"",
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

inline std::string textOf(ByteView bytes) { return {bytes.begin(), bytes.end()}; }

/// Takes fields from the front of a message, each of them only if it is there as a whole.
class NdefCursor {
  public:
    explicit NdefCursor(ByteView bytes) : mRest(bytes) {}

    bool atEnd() const { return mRest.empty(); }
    ByteView take(std::size_t count) {
        if (count > mRest.size()) throw Error(Reason::content, "the message ends in the middle of a record");
        const ByteView taken = mRest.first(count);
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
    ByteView mRest;
};

struct NdefHeader {
    std::uint8_t flags;
    NdefRecord record;
};

inline NdefHeader takeRecord(NdefCursor& cursor) {
    constexpr std::size_t kShortLength = 1, kLongLength = 4;
    const auto flags = static_cast<std::uint8_t>(cursor.number(1));
    const std::size_t typeLength = cursor.number(1);
    const std::size_t payloadLength = cursor.number(flags & kShort ? kShortLength : kLongLength);
    const std::size_t idLength = flags & kHasId ? cursor.number(1) : 0;
    const auto bytes = [&](std::size_t count) {
        const ByteView taken = cursor.take(count);
        return Bytes(taken.begin(), taken.end());
    };
    NdefHeader header{flags, {}};
    header.record.typeNameFormat = flags & kFormatBits;
    header.record.type = bytes(typeLength);
    header.record.id = bytes(idLength);
    header.record.payload = bytes(payloadLength);
    return header;
}

constexpr std::uint8_t highByte(std::size_t value) { return static_cast<std::uint8_t>(value >> 8); }
constexpr std::uint8_t lowByte(std::size_t value) { return static_cast<std::uint8_t>(value & 0xFF); }

/// The commands that a Type 4 Tag has to know.
class Type4Reader {
  public:
    Type4Reader(Card& card, const Limit& limit) : mCard(card), mLimit(limit) {}

    void selectApplication() {
        expect(send({0x00, 0xA4, 0x04, 0x00, 0x07, 0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01, 0x00}),
               "the card has no NDEF application");
    }
    void selectFile(std::size_t id, const char* fileName) {
        constexpr std::uint8_t kById = 0x00, kNoAnswer = 0x0C, kIdSize = 2;
        expect(send({0x00, 0xA4, kById, kNoAnswer, kIdSize, highByte(id), lowByte(id)}),
               std::string("the card has no ") + fileName);
    }
    /// Exactly `count` bytes of the selected file, in slices.
    Bytes read(std::size_t offset, std::size_t count, std::size_t slice) {
        constexpr std::size_t kLastOffset = 0x7FFF;
        Bytes all;
        while (all.size() < count) {
            const std::size_t at = offset + all.size();
            if (at > kLastOffset) throw Error(Reason::content, "the file is longer than offsets of READ BINARY reach");
            const std::size_t wanted = std::min(count - all.size(), slice);
            const ApduAnswer answer = send({0x00, 0xB0, highByte(at), lowByte(at), lowByte(wanted)});
            expect(answer, "the file of the card cannot be read");
            if (answer.data.empty() || answer.data.size() > wanted)
                throw Error(Reason::content, "the card gives " + std::to_string(answer.data.size()) + " bytes where " +
                                                 std::to_string(wanted) + " are read");
            all.insert(all.end(), answer.data.begin(), answer.data.end());
        }
        return all;
    }

  private:
    ApduAnswer send(const Bytes& command) { return mCard.exchange(command, mLimit); }
    static void expect(const ApduAnswer& answer, const std::string& otherwise) {
        if (answer.ok()) return;
        const std::uint8_t word[] = {answer.sw1, answer.sw2};
        throw Error(Reason::content, otherwise + " (status word " + toHex(word) + ")");
    }

    Card& mCard;
    const Limit& mLimit;
};

/// What the capability container says of the NDEF file.
struct NdefPlace {
    std::size_t file, size, slice;

    static NdefPlace of(const Bytes& capabilities) {
        constexpr std::size_t kMleAt = 3, kTagAt = 7, kFileAt = 9, kSizeAt = 11, kReadAccessAt = 13,
                              kLongestRead = 0xFF;
        constexpr std::uint8_t kNdefFileControl = 0x04, kControlLength = 0x06;
        const auto word = [&](std::size_t at) {
            return static_cast<std::size_t>(capabilities[at] << 8 | capabilities[at + 1]);
        };
        if (word(0) < kSize || capabilities[kTagAt] != kNdefFileControl || capabilities[kTagAt + 1] != kControlLength)
            throw Error(Reason::content, "the capability container names no NDEF file");
        if (capabilities[kReadAccessAt] != 0) throw Error(Reason::content, "the NDEF file may not be read");
        if (word(kSizeAt) < kLengthSize || word(kMleAt) == 0)
            throw Error(Reason::content, "the capability container names impossible sizes");
        return {word(kFileAt), word(kSizeAt), std::min(word(kMleAt), kLongestRead)};
    }

    static constexpr std::size_t kSize = 15, kLengthSize = 2;
};

}  // namespace detail

inline std::optional<std::string> NdefRecord::uri() const {
    if (typeNameFormat == detail::kAbsoluteUri) return detail::textOf(type);
    if (typeNameFormat != detail::kWellKnown || detail::textOf(type) != "U" || payload.empty()) return std::nullopt;
    const std::uint8_t code = payload[0];
    const std::string_view prefix =
        code < detail::kUriPrefixes.size() ? detail::kUriPrefixes[code] : std::string_view();
    return std::string(prefix) + detail::textOf(ByteView(payload).subspan(1));
}

inline std::optional<NdefRecord::Text> NdefRecord::text() const {
    constexpr std::uint8_t kUtf16 = 0x80, kLanguageLength = 0x3F;
    if (typeNameFormat != detail::kWellKnown || detail::textOf(type) != "T" || payload.empty()) return std::nullopt;
    const ByteView rest = ByteView(payload).subspan(1);
    const std::size_t length = payload[0] & kLanguageLength;
    if ((payload[0] & kUtf16) != 0 || length > rest.size()) return std::nullopt;
    return Text{detail::textOf(rest.first(length)), detail::textOf(rest.subspan(length))};
}

inline std::string NdefRecord::typeName() const {
    switch (typeNameFormat) {
    case detail::kEmpty:
        return "empty";
    case detail::kWellKnown:
        return "urn:nfc:wkt:" + detail::textOf(type);
    case detail::kExternal:
        return "urn:nfc:ext:" + detail::textOf(type);
    case detail::kUnknown:
        return "unknown";
    default:
        return detail::textOf(type);
    }
}

inline NdefMessage NdefMessage::parse(ByteView bytes) {
    using namespace detail;
    NdefMessage message;
    std::vector<NdefRecord>& records = message.records;
    NdefCursor cursor(bytes);
    bool inChunks = false;
    for (bool ended = false; !ended;) {
        if (cursor.atEnd()) throw Error(Reason::content, "the last record of the message is missing");
        NdefHeader header = takeRecord(cursor);
        if (((header.flags & kMessageBegin) != 0) != (records.empty() && !inChunks))
            throw Error(Reason::content, "the records of the message do not begin with the first one");
        if (inChunks != (header.record.typeNameFormat == kUnchanged))
            throw Error(Reason::content, "the chunks of a record do not fit together");
        if (inChunks) {
            Bytes& payload = records.back().payload;
            payload.insert(payload.end(), header.record.payload.begin(), header.record.payload.end());
        } else {
            records.push_back(std::move(header.record));
        }
        inChunks = (header.flags & kChunk) != 0;
        ended = (header.flags & kMessageEnd) != 0;
    }
    if (inChunks || !cursor.atEnd()) throw Error(Reason::content, "the message does not end with its last record");
    return message;
}

inline Bytes readNdef(Card& card, const Limit& limit) {
    using detail::NdefPlace;
    constexpr std::size_t kCapabilitiesFile = 0xE103;
    detail::Type4Reader tag(card, limit);
    tag.selectApplication();
    tag.selectFile(kCapabilitiesFile, "capability container");
    const NdefPlace place = NdefPlace::of(tag.read(0, NdefPlace::kSize, NdefPlace::kSize));
    tag.selectFile(place.file, "NDEF file");
    const Bytes length = tag.read(0, NdefPlace::kLengthSize, place.slice);
    const auto size = static_cast<std::size_t>(length[0] << 8 | length[1]);
    if (size > place.size - NdefPlace::kLengthSize)
        throw Error(Reason::content, "the NDEF message is longer than its file");
    return tag.read(NdefPlace::kLengthSize, size, place.slice);
}

}  // namespace qvl

#include "NdefFile.h"

#include "ServiceStatus.h"
#include "Text.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace {

using Bytes = CardSession::Bytes;

constexpr std::uint8_t kSelectApplication[] = {0x00, 0xA4, 0x04, 0x00, 0x07, 0xD2, 0x76,
                                               0x00, 0x00, 0x85, 0x01, 0x01, 0x00};
constexpr std::size_t kCapabilitiesFile = 0xE103, kCapabilitiesSize = 15;
constexpr std::size_t kLengthSize = 2;
constexpr std::size_t kLongestRead = 0xFF;
constexpr std::size_t kLastOffset = 0x7FFF;

std::uint8_t highByte(std::size_t value) { return static_cast<std::uint8_t>(value >> 8); }
std::uint8_t lowByte(std::size_t value) { return static_cast<std::uint8_t>(value & 0xFF); }

/// The exchange that failed, and where.
struct ExchangeFailed {
    int status;
    std::string where;
};

/// What the capability container says of the NDEF file.
struct NdefPlace {
    std::size_t file = 0;
    std::size_t size = 0;
    std::size_t slice = 0;
};

/// The commands that a Type 4 Tag has to know. All of them throw: ExchangeFailed, or std::invalid_argument for what the
/// card says.
class Type4Reader {
  public:
    explicit Type4Reader(CardSession& card) : mCard(card) {}

    void selectApplication() {
        const auto [data, word] = send({std::begin(kSelectApplication), std::end(kSelectApplication)}, "SELECT");
        if (word != kSwDone) refuse("it has no NDEF application", word);
    }
    void selectFile(std::size_t id, const char* name) {
        constexpr std::uint8_t kById = 0x00, kNoAnswer = 0x0C, kIdSize = 2;
        const auto [data, word] = send({0x00, 0xA4, kById, kNoAnswer, kIdSize, highByte(id), lowByte(id)}, "SELECT");
        if (word != kSwDone) refuse(std::string("there is no ") + name, word);
    }
    /// Exactly `count` bytes of the selected file, in slices.
    Bytes read(std::size_t offset, std::size_t count, std::size_t slice) {
        Bytes all;
        while (all.size() < count) {
            const std::size_t at = offset + all.size();
            if (at > kLastOffset) throw std::invalid_argument("its file is longer than offsets of READ BINARY reach");
            const std::size_t wanted = std::min(count - all.size(), slice);
            const auto [data, word] = send({0x00, 0xB0, highByte(at), lowByte(at), lowByte(wanted)}, "READ BINARY");
            if (word != kSwDone) refuse("its file cannot be read", word);
            if (data.empty() || data.size() > wanted)
                throw std::invalid_argument("it gives " + counted(data.size(), "byte") + " where " +
                                            std::to_string(wanted) + " are read");
            all.insert(all.end(), data.begin(), data.end());
        }
        return all;
    }

  private:
    std::pair<Bytes, StatusWord> send(const Bytes& command, const char* name) {
        const ApduExchange exchange = exchangeApdu(mCard, command, true);
        if (exchange.status != kOk) throw ExchangeFailed{exchange.status, name};
        if (!exchange.statusWord) throw std::invalid_argument(std::string("its answer to ") + name + " is too short");
        return {exchange.data, *exchange.statusWord};
    }
    [[noreturn]] static void refuse(const std::string& what, StatusWord word) {
        const std::uint8_t bytes[] = {sw1(word), sw2(word)};
        throw std::invalid_argument(what + " (" + hexDigits(bytes) + ", " + statusWordText(word) + ")");
    }

    CardSession& mCard;
};

NdefPlace placeOfNdef(const Bytes& capabilities) {
    constexpr std::size_t kMleAt = 3, kTagAt = 7, kFileAt = 9, kSizeAt = 11, kReadAccessAt = 13;
    constexpr std::uint8_t kNdefFileControl = 0x04, kControlLength = 0x06;
    const auto word = [&](std::size_t at) {
        return static_cast<std::size_t>(capabilities[at] << 8 | capabilities[at + 1]);
    };
    if (word(0) < kCapabilitiesSize || capabilities[kTagAt] != kNdefFileControl ||
        capabilities[kTagAt + 1] != kControlLength)
        throw std::invalid_argument("its capability container names no NDEF file");
    if (capabilities[kReadAccessAt] != 0) throw std::invalid_argument("its NDEF file may not be read");
    if (word(kSizeAt) < kLengthSize || word(kMleAt) == 0)
        throw std::invalid_argument("its capability container names impossible sizes");
    return {word(kFileAt), word(kSizeAt), std::min(word(kMleAt), kLongestRead)};
}

Bytes messageOf(CardSession& card) {
    Type4Reader tag(card);
    tag.selectApplication();
    tag.selectFile(kCapabilitiesFile, "capability container");
    const NdefPlace place = placeOfNdef(tag.read(0, kCapabilitiesSize, kCapabilitiesSize));
    tag.selectFile(place.file, "NDEF file");
    const Bytes length = tag.read(0, kLengthSize, place.slice);
    const auto size = static_cast<std::size_t>(length[0] << 8 | length[1]);
    if (size > place.size - kLengthSize)
        throw std::invalid_argument("its message of " + counted(size, "byte") + " does not fit into its file of " +
                                    std::to_string(place.size));
    return tag.read(kLengthSize, size, place.slice);
}

}  // namespace

Outcome readNdefMessage(Session& session, CardSession& card, Bytes& message) {
    try {
        message = messageOf(card);
        return Outcome::done;
    } catch (const ExchangeFailed& failed) {
        return session.fail(failed.status, failed.where);
    } catch (const std::invalid_argument& wrong) {
        return session.output().error({Outcome::failed, "no NDEF message",
                                       std::string("the card is no sound NFC Forum Type 4 Tag: ") + wrong.what(),
                                       "\"qvltag apdu\" sends single commands to it.", 0});
    }
}

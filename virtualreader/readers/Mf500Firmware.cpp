#include "Mf500Firmware.h"

#include "HostCalcCrc.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <string>

/// What is known of a command: its code, how many parameter bytes it takes, how many bytes the host reads of its reply
/// at least, who carries it out.
struct Mf500Firmware::Command {
    std::uint8_t code;
    std::size_t minParameters, maxParameters;
    std::size_t leastValues;
    Mf500Status (Mf500Firmware::*run)(Bytes parameters, Values& values);
};

const Mf500Firmware::Command Mf500Firmware::kCommands[] = {
    {kMf500Request, 1, 1, 2, &Mf500Firmware::request},
    {kMf500CodeKey, 6, 6, 12, &Mf500Firmware::codeKey},
    {kMf500Authenticate, 18, 18, 0, &Mf500Firmware::authenticate},
    {kMf500Read, 1, 1, 16, &Mf500Firmware::read},
    {kMf500Write, 17, 17, 0, &Mf500Firmware::write},
    {kMf500Value, 7, 7, 0, &Mf500Firmware::changeValue},
    {kMf500Halt, 0, 0, 0, &Mf500Firmware::halt},
    {kMf500FieldReset, 2, 2, 0, &Mf500Firmware::resetField},
    {kMf500SerialNumber, 0, 0, 4, &Mf500Firmware::serialNumber},
    {kMf500Anticollision, 6, 6, 4, &Mf500Firmware::anticollision},
    {kMf500Select, 5, 5, 1, &Mf500Firmware::select},
    {kMf500ActivateIdle, 1, 1, 4, &Mf500Firmware::activateIdle},
    {kMf500ActivateIdleLoop, 2, 2, 4, &Mf500Firmware::activateIdle},
    {kMf500ActivateWakeup, 2, 12, 3, &Mf500Firmware::activateWakeup},
    {kMf500DefaultAttributes, 0, 0, 0, &Mf500Firmware::defaultAttributes},
    {kMf500SetAttributes, 2, 2, 0, &Mf500Firmware::setAttributes},
    {kMf500GetAttributes, 0, 0, 5, &Mf500Firmware::getAttributes},
    {kMf500ExchangeBlock, 7, 7 + 0xFFFF, 2, &Mf500Firmware::exchangeBlock},
    {kMf500FirmwareVersion, 0, 0, 2, &Mf500Firmware::firmwareVersion},
    {kMf500ChipVersion, 0, 0, 5, &Mf500Firmware::chipVersion},
};

namespace {

constexpr std::uint8_t kFastestRate = 3;
constexpr std::uint8_t kFirstSelectCode = 0x93;
constexpr std::size_t kCrcBytes = 2;
constexpr std::uint8_t kCrcA = 0;  // mode of HostCalcCrc
constexpr std::size_t kLongestBlock = 256;

std::uint16_t wordAt(std::span<const std::uint8_t> bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8);
}

template <typename Bytes>
void append(std::vector<std::uint8_t>& values, const Bytes& bytes) {
    values.insert(values.end(), std::begin(bytes), std::end(bytes));
}

void appendWord(std::vector<std::uint8_t>& values, std::size_t word) {
    values.push_back(static_cast<std::uint8_t>(word));
    values.push_back(static_cast<std::uint8_t>(word >> 8));
}

/// Cascade level of a select code, none if it is no such code.
std::optional<int> levelOf(std::uint8_t selectCode) {
    if (selectCode != 0x93 && selectCode != 0x95 && selectCode != 0x97) return std::nullopt;
    return (selectCode - kFirstSelectCode) / 2;
}

// The chip takes a key nibble by nibble, the high one of each byte first: a byte holds the complement of the nibble
// high, the nibble low. A0 becomes 5A F0. MF RC500 data sheet, key format.

std::uint8_t codedNibble(unsigned nibble) { return static_cast<std::uint8_t>((~nibble & 0x0F) << 4 | (nibble & 0x0F)); }

bool decodeKey(std::span<const std::uint8_t> coded, std::array<std::uint8_t, 6>& key) {
    for (const std::uint8_t byte : coded)
        if (codedNibble(byte) != byte) return false;
    for (std::size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<std::uint8_t>(coded[2 * i] << 4 | (coded[2 * i + 1] & 0x0F));
    return true;
}

}  // namespace

Mf500Firmware::Mf500Firmware(VirtualField& field, const ReaderOptions& options) : mField(field), mOptions(options) {
    reset();
}

void Mf500Firmware::reset() {
    mDsi = mDri = 0;
    mField.setOn(false);
}

void Mf500Firmware::configure() {
    mDsi = mDri = 0;
    mField.setOn(true);
}

const Mf500Firmware::Command* Mf500Firmware::find(std::uint8_t code) {
    const auto found = std::ranges::find(kCommands, code, &Command::code);
    return found == std::end(kCommands) ? nullptr : found;
}

std::size_t Mf500Firmware::leastValues(std::uint8_t code) {
    const Command* command = find(code);
    return command ? command->leastValues : 0;
}

Mf500Status Mf500Firmware::execute(std::uint8_t code, Bytes parameters, Values& values) {
    values.clear();
    const Command* command = find(code);
    if (!command) return Mf500Status::unknownCommand;
    const bool fits = parameters.size() >= command->minParameters && parameters.size() <= command->maxParameters;
    const Mf500Status status = fits ? (this->*command->run)(parameters, values) : Mf500Status::badParameter;
    if (status != Mf500Status::ok) values.assign(command->leastValues, 0);
    return status;
}

// ---- The reader itself ----

Mf500Status Mf500Firmware::resetField(Bytes parameters, Values&) {
    mField.setOn(false);
    if (wordAt(parameters, 0) != 0) mField.setOn(true);  // How long it is off no tag can tell.
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::serialNumber(Bytes, Values& values) {
    append(values, std::span(mOptions.serialNumber).last<4>());
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::firmwareVersion(Bytes, Values& values) {
    std::string text = "MF RC500 " + std::to_string(mOptions.version[0]);
    for (const std::uint8_t part : std::span(mOptions.version).subspan(1))
        text += "." + std::to_string(part);
    appendWord(values, text.size());
    append(values, text);
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::chipVersion(Bytes, Values& values) {
    constexpr std::uint8_t kProductType[] = {0x30, 0x88, 0xF8, 0x00, 0x00};
    append(values, kProductType);
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::codeKey(Bytes parameters, Values& values) {
    for (const std::uint8_t byte : parameters) {
        values.push_back(codedNibble(byte >> 4u));
        values.push_back(codedNibble(byte));
    }
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::defaultAttributes(Bytes, Values&) {
    mDsi = mDri = 0;
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::setAttributes(Bytes parameters, Values&) {
    if (parameters[0] > kFastestRate || parameters[1] > kFastestRate) return Mf500Status::rateNotSupported;
    mDsi = parameters[0];
    mDri = parameters[1];
    return Mf500Status::ok;
}

/// Frames of a card that does not say more, frames of the reader, the fastest rates both ways, the rates in use.
Mf500Status Mf500Firmware::getAttributes(Bytes, Values& values) {
    constexpr std::uint8_t k32Bytes = 2, k256Bytes = 8;
    append(values, std::to_array(
                       {k32Bytes, k256Bytes, kFastestRate, kFastestRate, static_cast<std::uint8_t>(mDsi << 2 | mDri)}));
    return Mf500Status::ok;
}

// ---- Finding a tag ----

Mf500Status Mf500Firmware::request(Bytes parameters, Values& values) {
    const auto code = static_cast<VirtualTag::Request>(parameters[0]);
    if (code != VirtualTag::Request::reqa && code != VirtualTag::Request::wupa) return Mf500Status::badParameter;
    const auto atqa = mField.request(code);
    if (!atqa) return Mf500Status::noTag;
    appendWord(values, *atqa);
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::anticollision(Bytes parameters, Values& values) {
    constexpr std::uint8_t kMostKnownBits = 32;
    const auto level = levelOf(parameters[0]);
    if (!level || parameters[1] > kMostKnownBits) return Mf500Status::badParameter;
    CascadePart known{};
    std::ranges::copy(parameters.subspan(2), known.begin());
    const auto part = resolveCollisions(mField, *level, known, parameters[1]);
    if (!part) return Mf500Status::noTag;
    if (checkByte(*part) != (*part)[4]) return Mf500Status::wrongCheckByte;
    append(values, std::span(*part).first<4>());
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::select(Bytes parameters, Values& values) {
    const auto level = levelOf(parameters[0]);
    if (!level) return Mf500Status::badParameter;
    CascadePart part{};
    std::ranges::copy(parameters.subspan(1), part.begin());
    part[4] = checkByte(part);
    const auto sak = mField.select(*level, part);
    if (!sak) return Mf500Status::noTag;
    values.push_back(*sak);
    return Mf500Status::ok;
}

/// Looks for any tag that is not halted, or for the one with this UID in whatever state.
bool Mf500Firmware::activate(Bytes uid, FoundTag& tag) {
    // A tag that was left selected takes the first try as a disturbance and answers the second.
    constexpr int kTries = 2;
    for (int attempt = 0; attempt < kTries; ++attempt) {
        const auto atqa = mField.request(uid.empty() ? VirtualTag::Request::reqa : VirtualTag::Request::wupa);
        if (!atqa) continue;
        tag = FoundTag{};
        tag.atqa = *atqa;
        if (uid.empty() ? selectAny(mField, tag) : selectByUid(mField, uid, tag)) return true;
    }
    return false;
}

/// The loop's seconds are not waited for: a tag that is not there now is reported as none at once.
Mf500Status Mf500Firmware::activateIdle(Bytes parameters, Values& values) {
    if (parameters[0] > kFastestRate) return Mf500Status::rateNotSupported;
    FoundTag tag;
    if (!activate({}, tag)) return Mf500Status::noTag;
    appendWord(values, tag.atqa);
    values.push_back(tag.sak);
    values.push_back(static_cast<std::uint8_t>(tag.uidLength));
    append(values, tag.uidBytes());
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::activateWakeup(Bytes parameters, Values& values) {
    if (parameters[0] > kFastestRate) return Mf500Status::rateNotSupported;
    const Bytes uid = parameters.subspan(2);
    if (uid.empty() || uid.size() != parameters[1]) return Mf500Status::badParameter;
    FoundTag tag;
    if (!activate(uid, tag)) return Mf500Status::noTag;
    appendWord(values, tag.atqa);
    values.push_back(tag.sak);
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::halt(Bytes, Values&) {
    mField.halt();
    return Mf500Status::ok;
}

// ---- Dialogue with the selected tag ----

Mf500Status Mf500Firmware::authenticate(Bytes parameters, Values&) {
    constexpr std::uint8_t kKeyA = 0x60, kKeyB = 0x61;
    constexpr std::size_t kUidAt = 1, kKeyAt = 5, kBlockAt = 17;
    if (parameters[0] != kKeyA && parameters[0] != kKeyB) return Mf500Status::badParameter;
    Authentication authentication;
    authentication.withKeyB = parameters[0] == kKeyB;
    authentication.block = parameters[kBlockAt];
    if (!decodeKey(parameters.subspan(kKeyAt, 12), authentication.key)) return Mf500Status::badKey;
    std::copy_n(parameters.begin() + kUidAt, authentication.uid.size(), authentication.uid.begin());
    // A tag that is not there at all is silent; one that is there refuses.
    const bool heard = mField.hasSelected();
    if (mField.authenticate(authentication)) return Mf500Status::ok;
    return heard ? Mf500Status::notAuthenticated : Mf500Status::noTag;
}

/// One frame to which ACK or bytes are due.
Mf500Status Mf500Firmware::step(Bytes frame) {
    mField.exchange(frame, mAnswer);
    if (mAnswer.kind() == AirAnswer::Kind::silence) return Mf500Status::noTag;
    const bool isNak = mAnswer.kind() == AirAnswer::Kind::nibble && mAnswer.nibble() != kAirAck;
    return isNak ? Mf500Status::refused : Mf500Status::ok;
}

Mf500Status Mf500Firmware::read(Bytes parameters, Values& values) {
    constexpr std::uint8_t kRead = 0x30;
    constexpr std::size_t kBlockBytes = 16;
    if (const auto status = step(std::to_array({kRead, parameters[0]})); status != Mf500Status::ok) return status;
    if (mAnswer.bytes().size() != kBlockBytes) return Mf500Status::wrongByteCount;
    append(values, mAnswer.bytes());
    return Mf500Status::ok;
}

Mf500Status Mf500Firmware::write(Bytes parameters, Values&) {
    constexpr std::uint8_t kWrite = 0xA0;
    if (const auto status = step(std::to_array({kWrite, parameters[0]})); status != Mf500Status::ok) return status;
    const auto status = step(parameters.subspan(1));
    return status == Mf500Status::refused ? Mf500Status::notWritten : status;
}

/// Loads the changed value into the tag's transfer buffer, to which its good answer is silence, and writes it from
/// there.
Mf500Status Mf500Firmware::changeValue(Bytes parameters, Values&) {
    constexpr std::uint8_t kDecrement = 0xC0, kRestore = 0xC2, kTransfer = 0xB0;
    if (parameters[0] < kDecrement || parameters[0] > kRestore) return Mf500Status::badParameter;
    if (const auto status = step(parameters.first(2)); status != Mf500Status::ok) return status;
    if (step(parameters.subspan(2, 4)) == Mf500Status::refused) return Mf500Status::refused;
    const auto status = step(std::to_array({kTransfer, parameters[6]}));
    return status == Mf500Status::refused ? Mf500Status::notWritten : status;
}

/// With the CRC appended the last two bytes sent stand in for it, and it comes back after the answer. Without it the
/// bytes go and come as they are. The time-out is not waited for.
Mf500Status Mf500Firmware::exchangeBlock(Bytes parameters, Values& values) {
    constexpr std::size_t kAppendCrcAt = 2, kHeadBytes = 7;
    Bytes block = parameters.subspan(kHeadBytes);
    const std::size_t crcBytes = parameters[kAppendCrcAt] != 0 ? kCrcBytes : 0;
    if (block.size() != wordAt(parameters, 0)) return Mf500Status::badParameter;
    if (block.size() <= crcBytes || block.size() > kLongestBlock) return Mf500Status::badSendLength;
    mField.exchange(block.first(block.size() - crcBytes), mAnswer);
    const Bytes answer = mAnswer.bytes();
    if (mAnswer.kind() == AirAnswer::Kind::silence) return Mf500Status::noTag;
    if (mAnswer.kind() == AirAnswer::Kind::nibble) return Mf500Status::wrongBitCount;
    if (answer.size() + kCrcBytes > kLongestBlock) return Mf500Status::answerTooLong;
    appendWord(values, answer.size() + crcBytes);
    append(values, answer);
    if (crcBytes != 0) {
        std::uint8_t crc[kCrcBytes];
        HostCalcCrc(kCrcA, static_cast<std::uint32_t>(answer.size()), answer.data(), crc);
        append(values, crc);
    }
    return Mf500Status::ok;
}

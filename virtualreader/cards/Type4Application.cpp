#include "Type4Application.h"

#include <algorithm>
#include <optional>

namespace {

// Status words of ISO/IEC 7816-4.
constexpr std::uint16_t kDone = 0x9000;
constexpr std::uint16_t kWrongLength = 0x6700;
constexpr std::uint16_t kSecurityNotSatisfied = 0x6982;
constexpr std::uint16_t kNoCurrentFile = 0x6986;
constexpr std::uint16_t kFileNotFound = 0x6A82;
constexpr std::uint16_t kWrongParameters = 0x6A86;
constexpr std::uint16_t kWrongOffset = 0x6B00;
constexpr std::uint16_t kUnknownInstruction = 0x6D00;
constexpr std::uint16_t kUnknownClass = 0x6E00;

constexpr std::uint8_t kSelect = 0xA4, kReadBinary = 0xB0, kUpdateBinary = 0xD6;
constexpr std::size_t kHeader = 4;  // CLA INS P1 P2.

constexpr std::uint8_t kApplicationId[] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};
constexpr std::uint8_t kCapabilitiesId[] = {0xE1, 0x03};
constexpr std::uint8_t kNdefId[] = {0xE1, 0x04};

constexpr std::uint8_t kMaxResponse = 0xFF, kMaxCommandData = 0xFF;

CardApplication::Answer answerOf(std::uint16_t status, std::span<const std::uint8_t> data = {}) {
    CardApplication::Answer answer{{data.begin(), data.end()}};
    answer.bytes.push_back(static_cast<std::uint8_t>(status >> 8));
    answer.bytes.push_back(static_cast<std::uint8_t>(status));
    return answer;
}

std::uint16_t parameters(std::span<const std::uint8_t> command) {
    return static_cast<std::uint16_t>(command[2] << 8 | command[3]);
}

/// Data field of a short command, which a length byte may follow if `takesLe`. @return none unless the lengths agree.
std::optional<std::span<const std::uint8_t>> dataOf(std::span<const std::uint8_t> command, bool takesLe) {
    if (command.size() <= kHeader || command[kHeader] == 0) return std::nullopt;
    const std::size_t count = command[kHeader];
    const std::size_t whole = kHeader + 1 + count;
    if (command.size() != whole && !(takesLe && command.size() == whole + 1)) return std::nullopt;
    return command.subspan(kHeader + 1, count);
}

}  // namespace

std::unique_ptr<CardApplication> Type4Application::clone() const {
    return std::make_unique<Type4Application>(std::vector(mFile.bytes().begin(), mFile.bytes().end()));
}

CardApplication::Answer Type4Application::onCommand(Bytes command) {
    if (command.size() < kHeader) return answerOf(kWrongLength);
    if (command[0] != 0x00) return answerOf(kUnknownClass);
    switch (command[1]) {
    case kSelect:
        return select(command);
    case kReadBinary:
        return readBinary(command);
    case kUpdateBinary:
        return updateBinary(command);
    default:
        return answerOf(kUnknownInstruction);
    }
}

/// A selection that fails leaves the one before it in force.
CardApplication::Answer Type4Application::select(Bytes command) {
    constexpr std::uint16_t kByName = 0x0400, kByNameNoAnswer = 0x040C, kById = 0x0000, kByIdNoAnswer = 0x000C;
    const std::uint16_t how = parameters(command);
    const bool byName = how == kByName || how == kByNameNoAnswer;
    if (!byName && how != kById && how != kByIdNoAnswer) return answerOf(kWrongParameters);
    const auto data = dataOf(command, true);
    if (!data) return answerOf(kWrongLength);
    if (!byName) return selectFile(*data);
    if (!std::ranges::equal(*data, kApplicationId)) return answerOf(kFileNotFound);
    mSelected = Selected::application;
    return answerOf(kDone);
}

CardApplication::Answer Type4Application::selectFile(Bytes id) {
    if (id.size() != sizeof kNdefId) return answerOf(kWrongLength);
    if (mSelected == Selected::nothing) return answerOf(kFileNotFound);
    if (std::ranges::equal(id, kCapabilitiesId))
        mSelected = Selected::capabilities;
    else if (std::ranges::equal(id, kNdefId))
        mSelected = Selected::ndef;
    else
        return answerOf(kFileNotFound);
    return answerOf(kDone);
}

std::vector<std::uint8_t> Type4Application::capabilities() const {
    constexpr std::uint8_t kVersion = 0x20, kFileControl = 0x04, kControlBytes = 0x06;
    return {0x00,
            0x0F,
            kVersion,
            0x00,
            kMaxResponse,
            0x00,
            kMaxCommandData,
            kFileControl,
            kControlBytes,
            kNdefId[0],
            kNdefId[1],
            static_cast<std::uint8_t>(mFile.size() >> 8),
            static_cast<std::uint8_t>(mFile.size()),
            0x00,
            0x00};
}

/// Le of 00 asks for as many bytes as there are, up to the greatest response; any other Le must be there whole.
CardApplication::Answer Type4Application::readBinary(Bytes command) const {
    if (!hasFile()) return answerOf(kNoCurrentFile);
    const std::size_t offset = parameters(command);
    if (offset > kMaxFile) return answerOf(kWrongParameters);
    if (command.size() != kHeader + 1) return answerOf(kWrongLength);
    const auto container = capabilities();
    const Bytes file = mSelected == Selected::ndef ? mFile.bytes() : Bytes(container);
    if (offset >= file.size()) return answerOf(kWrongOffset);
    const std::size_t left = file.size() - offset, asked = command[kHeader];
    if (asked > left) return answerOf(kWrongLength);
    return answerOf(kDone, file.subspan(offset, asked == 0 ? std::min<std::size_t>(left, kMaxResponse) : asked));
}

CardApplication::Answer Type4Application::updateBinary(Bytes command) {
    if (!hasFile()) return answerOf(kNoCurrentFile);
    if (mSelected != Selected::ndef) return answerOf(kSecurityNotSatisfied);
    const std::size_t offset = parameters(command);
    if (offset > kMaxFile) return answerOf(kWrongParameters);
    const auto data = dataOf(command, false);
    if (!data) return answerOf(kWrongLength);
    if (offset >= mFile.size()) return answerOf(kWrongOffset);
    if (data->size() > mFile.size() - offset) return answerOf(kWrongLength);
    Answer answer = answerOf(kDone);
    answer.powerLost = !mFile.write(offset, *data);
    return answer;
}

#include "MifareClassicTag.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace {

constexpr std::size_t kMiniBytes = 320;
constexpr std::size_t k1kBytes = 1024;
constexpr std::size_t k4kBytes = 4096;

enum Command : std::uint8_t {
    kRead = 0x30,
    kHalt = 0x50,
    kWrite = 0xA0,
    kTransfer = 0xB0,
    kDecrement = 0xC0,
    kIncrement = 0xC1,
    kRestore = 0xC2,
};
constexpr std::uint8_t kNakTransferValid = 0x0;
constexpr std::uint8_t kNakTransferInvalid = 0x4;

// Fields of a trailer: key A, access bits with the free byte, key B.
constexpr std::size_t kKeyBytes = 6;
constexpr std::size_t kAccessAt = 6;
constexpr std::size_t kAccessBytes = 4;
constexpr std::size_t kKeyBAt = 10;

bool isTrailer(int block) { return block == sectorTrailer(block); }

/// A value block holds the value, its inverse, the value again; then the address and its inverse, twice.
bool isValueBlock(std::span<const std::uint8_t> block) {
    for (std::size_t i = 0; i < 4; ++i) {
        if (block[i] != block[8 + i] || (block[i] ^ block[4 + i]) != 0xFF) return false;
    }
    return block[12] == block[14] && block[13] == block[15] && (block[12] ^ block[13]) == 0xFF;
}

std::uint32_t valueOf(std::span<const std::uint8_t> bytes) {
    return bytes[0] | static_cast<std::uint32_t>(bytes[1]) << 8 | static_cast<std::uint32_t>(bytes[2]) << 16 |
           static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::array<std::uint8_t, 16> valueBlock(std::uint32_t value, std::uint8_t address) {
    std::array<std::uint8_t, 16> block{};
    for (std::size_t i = 0; i < 4; ++i) {
        const auto byte = static_cast<std::uint8_t>(value >> (8 * i));
        block[i] = block[8 + i] = byte;
        block[4 + i] = static_cast<std::uint8_t>(~byte);
    }
    block[12] = block[14] = address;
    block[13] = block[15] = static_cast<std::uint8_t>(~address);
    return block;
}

std::uint16_t atqaOf(std::size_t imageBytes, std::size_t uidBytes) {
    const unsigned kindBits = imageBytes == k4kBytes ? 0x0002 : 0x0004;
    return static_cast<std::uint16_t>(kindBits | (uidBytes == 7 ? 0x0040u : 0u));
}

std::uint8_t sakOf(std::size_t imageBytes) {
    return imageBytes == kMiniBytes ? 0x09 : imageBytes == k1kBytes ? 0x08 : 0x18;
}

bool allows(KeySet who, KeySet key) { return (who & key) != 0; }

}  // namespace

MifareClassicTag::MifareClassicTag(std::vector<std::uint8_t> image, std::span<const std::uint8_t> uid)
    : VirtualTag(uid, atqaOf(image.size(), uid.size()), sakOf(image.size())), mMemory(std::move(image)) {}

MifareClassicTag::MifareClassicTag(std::vector<std::uint8_t> image)
    : VirtualTag(std::span(image).first(4), atqaOf(image.size(), 4), sakOf(image.size())), mMemory(std::move(image)) {}

bool MifareClassicTag::isImageSize(std::size_t size) {
    return size == kMiniBytes || size == k1kBytes || size == k4kBytes;
}

std::vector<std::uint8_t> MifareClassicTag::blankImage(std::size_t size, std::span<const std::uint8_t> uid) {
    constexpr std::uint8_t kDelivered[kAccessBytes] = {0xFF, 0x07, 0x80, 0x69};
    std::vector<std::uint8_t> image(size);
    std::vector<std::uint8_t> maker(uid.begin(), uid.end());
    const std::uint16_t atqa = atqaOf(size, uid.size());
    if (uid.size() == 4) maker.push_back(static_cast<std::uint8_t>(uid[0] ^ uid[1] ^ uid[2] ^ uid[3]));
    maker.insert(maker.end(), {sakOf(size), static_cast<std::uint8_t>(atqa), static_cast<std::uint8_t>(atqa >> 8)});
    std::ranges::copy(maker, image.begin());
    for (std::size_t trailer = 0; trailer < size / kBlockBytes; ++trailer) {
        if (!isTrailer(static_cast<int>(trailer))) continue;
        const auto at = image.begin() + static_cast<std::ptrdiff_t>(trailer * kBlockBytes);
        std::fill_n(at, kBlockBytes, std::uint8_t{0xFF});
        std::copy_n(kDelivered, kAccessBytes, at + kAccessAt);
    }
    return image;
}

const char* MifareClassicTag::kind() const {
    return mMemory.size() == kMiniBytes ? "Classic Mini" : mMemory.size() == k1kBytes ? "Classic 1K" : "Classic 4K";
}

std::shared_ptr<VirtualTag> MifareClassicTag::twin() const {
    std::vector<std::uint8_t> image(mMemory.bytes().begin(), mMemory.bytes().end());
    const std::vector<std::uint8_t> other = twinUid();
    std::ranges::copy(other, image.begin());
    if (other.size() == 4) image[4] ^= 0xFF;
    auto twin = std::make_shared<MifareClassicTag>(std::move(image), other);
    twin->setAtqa(atqa());
    twin->setSak(sak());
    twin->quirks() = quirks();
    return twin;
}

std::span<const std::uint8_t> MifareClassicTag::block(int number) const {
    return mMemory.at(static_cast<std::size_t>(number) * kBlockBytes, kBlockBytes);
}

void MifareClassicTag::onReset() {
    mSession.reset();
    mTransfer.reset();
    mPendingCommand = 0;
}

bool MifareClassicTag::onAuthenticate(const Authentication& authentication) {
    onReset();  // Whatever the outcome, the earlier authentication is over.
    if (!isBlock(authentication.block)) return false;
    const std::size_t cipherUidAt = quirks().lastUidBytesAuthenticate ? uid().size() - 4 : 0;
    if (!std::ranges::equal(uid().subspan(cipherUidAt, 4), authentication.uid)) return false;

    const int trailer = sectorTrailer(authentication.block);
    const auto conditions = accessConditions(block(trailer));
    if (!conditions) return false;
    const bool keyBReadable = trailerRights((*conditions)[3]).readKeyB != kNobody;
    if (authentication.withKeyB && keyBReadable && quirks().readableKeyBRefused) return false;
    const auto key = block(trailer).subspan(authentication.withKeyB ? kKeyBAt : 0, kKeyBytes);
    if (!std::ranges::equal(key, authentication.key)) return false;

    mSession = Session{trailer, authentication.withKeyB ? kKeyB : kKeyA};
    return true;
}

/// Access condition that rules `number` in this session; none where nothing at all is allowed.
std::optional<std::uint8_t> MifareClassicTag::conditionOf(int number) const {
    if (!mSession || !isBlock(number) || sectorTrailer(number) != mSession->trailer) return std::nullopt;
    const auto conditions = accessConditions(block(mSession->trailer));
    if (!conditions) return std::nullopt;
    if (mSession->key == kKeyB && trailerRights((*conditions)[3]).readKeyB != kNobody) return std::nullopt;
    return (*conditions)[accessGroup(number)];
}

bool MifareClassicTag::mayBegin(std::uint8_t command, int number) const {
    const auto condition = conditionOf(number);
    if (!condition) return false;
    const KeySet key = mSession->key;
    if (isTrailer(number)) {
        const TrailerRights& rights = trailerRights(*condition);
        if (command == kRead) return true;
        return command == kWrite &&
               (allows(rights.writeKeyA, key) || allows(rights.writeAccessBits, key) || allows(rights.writeKeyB, key));
    }
    const DataRights& rights = dataRights(*condition);
    switch (command) {
    case kRead:
        return allows(rights.read, key);
    case kWrite:
        return number != 0 && allows(rights.write, key);
    case kTransfer:
        return number != 0 && mTransfer && allows(rights.decrement, key);
    case kIncrement:
        return allows(rights.increment, key) && isValueBlock(block(number));
    default:
        return allows(rights.decrement, key) && isValueBlock(block(number));
    }
}

void MifareClassicTag::nak(AirAnswer& answer) { refuse(answer, mTransfer ? kNakTransferValid : kNakTransferInvalid); }

void MifareClassicTag::onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    if (mPendingCommand != 0)
        finish(frame, answer);
    else
        begin(frame, answer);
}

void MifareClassicTag::begin(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    constexpr std::uint8_t kKnown[] = {kRead, kWrite, kTransfer, kDecrement, kIncrement, kRestore};
    if (frame.size() != 2) return drop();
    const std::uint8_t command = frame[0];
    const int number = frame[1];
    if (command == kHalt && number == 0) return enterHalt();
    if (std::ranges::find(kKnown, command) == std::end(kKnown)) return drop();
    if (!mayBegin(command, number)) return nak(answer);
    if (command == kRead) return read(number, answer);
    if (command == kTransfer) return transfer(number, answer);
    mPendingCommand = command;
    mPendingBlock = frame[1];
    answer.setNibble(kAirAck);
}

void MifareClassicTag::finish(std::span<const std::uint8_t> data, AirAnswer& answer) {
    const std::uint8_t command = std::exchange(mPendingCommand, std::uint8_t{0});
    if (data.size() != (command == kWrite ? kBlockBytes : 4)) return nak(answer);
    if (command != kWrite) {
        load(command, data);  // Silence is the good answer here.
        return;
    }
    std::array<std::uint8_t, kBlockBytes> merged;
    std::ranges::copy(data, merged.begin());
    if (isTrailer(mPendingBlock) && !mergeTrailer(mPendingBlock, merged)) return nak(answer);
    store(mPendingBlock, merged, answer);
}

void MifareClassicTag::read(int number, AirAnswer& answer) {
    std::array<std::uint8_t, kBlockBytes> seen;
    std::ranges::copy(block(number), seen.begin());
    if (isTrailer(number)) {
        const TrailerRights& rights = trailerRights(*conditionOf(number));
        std::fill_n(seen.begin(), kKeyBytes, std::uint8_t{0});
        if (!allows(rights.readAccessBits, mSession->key))
            std::fill_n(seen.begin() + kAccessAt, kAccessBytes, std::uint8_t{0});
        if (!allows(rights.readKeyB, mSession->key)) std::fill_n(seen.begin() + kKeyBAt, kKeyBytes, std::uint8_t{0});
    }
    answer.setBytes(seen);
}

/// Puts the stored fields back over those that must not be written. @return false if the chip refuses such a trailer.
bool MifareClassicTag::mergeTrailer(int number, std::span<std::uint8_t> data) const {
    const auto condition = conditionOf(number);
    if (!condition) return false;
    const TrailerRights& rights = trailerRights(*condition);
    bool whole = true;
    const auto keep = [&](KeySet who, std::size_t at, std::size_t count) {
        if (allows(who, mSession->key)) return;
        whole = false;
        std::ranges::copy(block(number).subspan(at, count), data.begin() + static_cast<std::ptrdiff_t>(at));
    };
    keep(rights.writeKeyA, 0, kKeyBytes);
    keep(rights.writeAccessBits, kAccessAt, kAccessBytes);
    keep(rights.writeKeyB, kKeyBAt, kKeyBytes);
    return whole || !quirks().partialTrailerWriteRefused;
}

void MifareClassicTag::load(std::uint8_t command, std::span<const std::uint8_t> operand) {
    const auto source = block(mPendingBlock);
    std::uint32_t value = valueOf(source);
    if (command == kIncrement) value += valueOf(operand);
    if (command == kDecrement) value -= valueOf(operand);
    mTransfer = TransferBuffer{value, source[12]};
}

void MifareClassicTag::transfer(int number, AirAnswer& answer) {
    store(number, valueBlock(mTransfer->value, mTransfer->address), answer);
}

void MifareClassicTag::store(int number, std::span<const std::uint8_t> data, AirAnswer& answer) {
    if (mMemory.write(static_cast<std::size_t>(number) * kBlockBytes, data))
        answer.setNibble(kAirAck);
    else
        losePower();
}

#include "UltralightTag.h"

#include <algorithm>
#include <array>
#include <functional>
#include <utility>

namespace {

constexpr int kPages = 16;
constexpr std::size_t kPageBytes = 4;
constexpr std::size_t kReadBytes = 16;
constexpr int kLockPage = 2;
constexpr int kOneTimePage = 3;
constexpr std::size_t kLockAt = 10;
constexpr std::uint8_t kCascadeTag = 0x88;

constexpr std::uint16_t kAtqa = 0x0044;
constexpr std::uint8_t kSak = 0x00;

enum Command : std::uint8_t { kRead = 0x30, kHalt = 0x50, kCompatibilityWrite = 0xA0, kWrite = 0xA2 };
constexpr std::uint8_t kNak = 0x0;

std::array<std::uint8_t, 7> uidOf(std::span<const std::uint8_t> image) {
    return {image[0], image[1], image[2], image[4], image[5], image[6], image[7]};
}

/// Puts a UID with its two check bytes into pages 0 to 2.
void putUid(std::span<const std::uint8_t> uid, std::vector<std::uint8_t>& image) {
    std::copy_n(uid.begin(), 3, image.begin());
    image[3] = static_cast<std::uint8_t>(kCascadeTag ^ uid[0] ^ uid[1] ^ uid[2]);
    std::copy_n(uid.begin() + 3, 4, image.begin() + 4);
    image[8] = static_cast<std::uint8_t>(uid[3] ^ uid[4] ^ uid[5] ^ uid[6]);
}

}  // namespace

UltralightTag::UltralightTag(std::vector<std::uint8_t> image)
    : VirtualTag(uidOf(image), kAtqa, kSak), mMemory(std::move(image)) {}

std::vector<std::uint8_t> UltralightTag::blankImage(std::span<const std::uint8_t> uid) {
    constexpr std::uint8_t kInternalByte = 0x48;
    std::vector<std::uint8_t> image(kImageBytes);
    putUid(uid, image);
    image[9] = kInternalByte;
    return image;
}

std::shared_ptr<VirtualTag> UltralightTag::twin() const {
    std::vector<std::uint8_t> image(mMemory.bytes().begin(), mMemory.bytes().end());
    putUid(twinUid(), image);
    auto twin = std::make_shared<UltralightTag>(std::move(image));
    twin->quirks() = quirks();
    return twin;
}

/// Lock bits 3 to 15 of the two lock bytes lock the pages of the same numbers.
bool UltralightTag::isLocked(int page) const {
    const auto locks = mMemory.at(kLockAt, 2);
    return ((locks[0] | locks[1] << 8) >> page) & 1;
}

void UltralightTag::onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    if (mPendingPage >= 0) {
        const int page = std::exchange(mPendingPage, -1);
        if (frame.size() != kReadBytes) return refuse(answer, kNak);
        return write(page, frame.first(kPageBytes), answer);
    }
    if (frame.size() < 2) return drop();
    const int page = frame[1];
    if (frame[0] == kHalt && frame.size() == 2 && page == 0) return enterHalt();
    if (frame[0] == kRead && frame.size() == 2) return read(page, answer);
    if (frame[0] == kWrite && frame.size() == 2 + kPageBytes) return write(page, frame.subspan(2), answer);
    if (frame[0] != kCompatibilityWrite || frame.size() != 2) return drop();
    if (!isWritable(page)) return refuse(answer, kNak);
    mPendingPage = page;
    answer.setNibble(kAirAck);
}

void UltralightTag::read(int page, AirAnswer& answer) {
    if (page >= kPages) return refuse(answer, kNak);
    std::array<std::uint8_t, kReadBytes> seen;
    for (std::size_t i = 0; i < seen.size(); ++i)
        seen[i] = mMemory.bytes()[(static_cast<std::size_t>(page) * kPageBytes + i) % kImageBytes];
    answer.setBytes(seen);
}

bool UltralightTag::isWritable(int page) const {
    if (page < kLockPage || page >= kPages) return false;
    return page == kLockPage || !isLocked(page);
}

void UltralightTag::write(int page, std::span<const std::uint8_t> data, AirAnswer& answer) {
    if (!isWritable(page)) return refuse(answer, kNak);
    const std::size_t at = static_cast<std::size_t>(page) * kPageBytes;
    std::array<std::uint8_t, kPageBytes> next;
    std::ranges::copy(mMemory.at(at, kPageBytes), next.begin());
    if (page == kLockPage) {
        next[2] |= lockBits(data[2], 0);
        next[3] |= lockBits(data[3], 1);
    } else if (page == kOneTimePage) {
        std::ranges::transform(next, data, next.begin(), std::bit_or<>());
    } else {
        std::ranges::copy(data, next.begin());
    }
    if (mMemory.write(at, next))
        answer.setNibble(kAirAck);
    else
        losePower();
}

/// Those of the bits for lock byte `index` that are not frozen themselves: bit 0 freezes the lock of page 3, bit 1
/// those of pages 4 to 9, bit 2 those of pages 10 to 15.
std::uint8_t UltralightTag::lockBits(std::uint8_t bits, std::size_t index) const {
    const std::uint8_t freeze = mMemory.at(kLockAt, 1)[0];
    unsigned frozen = 0;
    if (freeze & 1) frozen |= 0x0008;
    if (freeze & 2) frozen |= 0x03F0;
    if (freeze & 4) frozen |= 0xFC00;
    return static_cast<std::uint8_t>(bits & ~(frozen >> (8 * index)));
}

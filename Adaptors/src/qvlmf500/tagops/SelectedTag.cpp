// The floor on which every operation on a tag's memory stands: one authentication a sector, three tries a block, and
// after each failure the tag is woken and authenticated again, since it drops out of its sector.

#include "SelectedTag.h"

#include "ByteHelpers.h"
#include "HexText.h"
#include "LogService.h"
#include "TagGeometry.h"
#include "TagSizes.h"

#include <algorithm>

namespace {

constexpr int kTries = 3;
constexpr std::size_t kCodedKeySize = 12;
constexpr std::size_t kAuthUidSize = 4;
constexpr std::size_t kLargestSector = 256;
constexpr std::uint8_t kIdleRequest = 0x26;
constexpr std::uint8_t kWakeUpRequest = 0x52;

bool hasSameBlocks(std::uint32_t oneType, std::uint32_t otherType) {
    const TagTypeInfo one = tagInfoByType(oneType);
    const TagTypeInfo other = tagInfoByType(otherType);
    return one.blockSize == other.blockSize && one.sectorCount == other.sectorCount;
}

}  // namespace

/// A run of blocks, and how a failure among them is told.
struct SelectedTag::Move {
    const char* operation;  ///< For the log.
    int failure;
    int base;  ///< Absolute number of the sector's first block.
    int first;
    int count;
};

SelectedTag::~SelectedTag() {
    if (mNeedsHalt) mDriver->piccHalt();
}

int SelectedTag::end(int status) {
    mNeedsHalt = mLeaveSelected.value_or(status == kOk);
    return status;
}

std::size_t SelectedTag::blockSize() const { return tagInfoByType(type()).blockSize; }

int SelectedTag::activate() {
    if (mTag.getUidLen() > kMostUidBytes) return kNoTag;
    const int status = waitUntilSelected(kIdleRequest);
    if (status == kOk) holdType();
    return status;
}

int SelectedTag::wake() { return waitUntilSelected(kWakeUpRequest); }

// The first request wakes halted tags as well. A first selection goes on with idle tags as long as no time has passed.
int SelectedTag::waitUntilSelected(std::uint8_t requestCode) {
    std::uint8_t code = kWakeUpRequest;
    return mBudget.wait(
        WaitBudget::ClockRead::beforePause,
        [&](std::uint32_t elapsedMs) {
            if (select(code)) return true;
            code = elapsedMs == 0 ? requestCode : kWakeUpRequest;
            return false;
        },
        [this] { return mDriver->isReaderLost(); });
}

bool SelectedTag::select(std::uint8_t requestCode) {
    if (mTag.getUidLen() == 0 || mTag.getUidLen() > kMostUidBytes) return false;
    std::optional<std::uint8_t> sak;
    if (mDriver->piccSelectKnown(requestCode, mTag, sak) != kBflOk) return false;
    if (!sak) return true;
    const std::uint32_t found = tagTypeFromSak(*sak);
    if (mHeldType && !hasSameBlocks(found, *mHeldType)) {
        QVL_LOG(kLogFailure, "Tag selection failed: another type of tag for tagID = 0x%s",
                HexLine(mTag.getUid(), mTag.getUidLen()).text());
        mDriver->piccHalt();  // left active, it would take what the next sector's commands say
        return false;
    }
    mTag.setTagType(found);
    return true;
}

int SelectedTag::authenticate(int blockAddress, const KeyUse& key) {
    if (type() == kTagUltralight) return kOk;
    SecretBytes<kCodedKeySize> coded;
    coded.fill(0);
    SecretBytes<Trailer::kKeySize> plain;
    if (key.key != nullptr) std::copy_n(key.key, plain.size(), plain.begin());
    if (mDriver->hostCodeKey(key.key != nullptr ? plain.data() : nullptr, coded.data()) != kBflOk) return kKeyRefused;

    std::uint8_t uid[kAuthUidSize] = {};  // bytes that a short UID does not have are zero
    std::copy_n(mTag.getUid(), std::min<std::size_t>(mTag.getUidLen(), kAuthUidSize), uid);
    int woken = kOk;
    short status = kBflOk;
    for (int tries = 1; tries <= kTries; ++tries) {
        status = mDriver->piccAuthKey(static_cast<std::uint8_t>(key.mode), uid, coded.data(),
                                      static_cast<std::uint8_t>(blockAddress));
        if (status == kBflOk) return woken;
        if (tries < kTries) woken = wake();
    }
    QVL_LOG(kLogFailure, "key authentication failed: block=%d error=%d", blockAddress, status);
    return kKeyRefused;
}

template <typename Transfer>
short SelectedTag::tryThreeTimes(int base, const KeyUse& key, Transfer transfer) {
    short status = kBflOk;
    for (int tries = 1; tries <= kTries; ++tries) {
        status = transfer();
        if (status == kBflOk) break;
        if (wake() == kOk && tries < kTries) authenticate(base, key);
    }
    return status;
}

template <typename Transfer, typename Failed>
int SelectedTag::move(const Move& what, const KeyUse& key, int* statuses, Transfer transfer, Failed failed) {
    int current = kOk;
    bool anyFailed = false;
    for (int i = 0; i < what.count; ++i) {
        const auto address = static_cast<std::uint8_t>(what.base + what.first + i);
        const short status = tryThreeTimes(what.base, key, [&] { return transfer(i, address); });
        if (statuses != nullptr) statuses[i] = status == kBflOk ? int{kOk} : what.failure;
        if (status == kBflOk) continue;
        QVL_LOG(kLogFailure, "%s failed: address=%d, status=%d", what.operation, address, status);
        anyFailed = true;
        if (statuses == nullptr) return what.failure;
        failed(i);
        if (i + 1 == what.count) break;
        current = wake();
        if (current == kOk) current = authenticate(what.base, key);
    }
    if (!anyFailed) return kOk;
    return current != kOk ? current : what.failure;
}

int SelectedTag::read(const SectorBlocks& blocks, const KeyUse& key, Login login, std::uint8_t* out, int* statuses) {
    const int base = firstBlockOfSector(type(), blocks.sector);
    const std::size_t size = blockSize();
    const auto blockOf = [&](int i) { return out + static_cast<std::size_t>(i) * size; };
    if (login == Login::anew) {
        if (const int status = authenticate(base, key); status != kOk) {
            std::fill_n(out, static_cast<std::size_t>(blocks.count) * size, std::uint8_t{0});
            if (statuses != nullptr) std::fill_n(statuses, blocks.count, status);
            return status;
        }
    }
    const auto readOne = [&](int i, std::uint8_t address) {
        SecretBytes<kBlockSize> scratch;
        scratch.fill(0);
        const short status = mDriver->piccRead(address, scratch.data());
        if (status == kBflOk) std::copy_n(scratch.data(), size, blockOf(i));
        return status;
    };
    const auto zero = [&](int i) { std::fill_n(blockOf(i), size, std::uint8_t{0}); };
    return move({"getBlock", kBlockNotRead, base, blocks.first, blocks.count}, key, statuses, readOne, zero);
}

int SelectedTag::write(const SectorBlocks& blocks, const KeyUse& key, Login login, std::span<const std::uint8_t> data,
                       int* statuses) {
    const int base = firstBlockOfSector(type(), blocks.sector);
    if (login == Login::anew) {
        if (const int status = authenticate(base, key); status != kOk) {
            if (statuses != nullptr) std::fill_n(statuses, blocks.count, status);
            return status;
        }
    }
    SecretBytes<kLargestSector + kBlockSize> padded;
    padded.fill(0);
    const std::size_t size = static_cast<std::size_t>(blocks.count) * blockSize();
    std::copy_n(data.begin(), std::min({data.size(), size, kLargestSector}), padded.begin());
    const auto writeOne = [&](int i, std::uint8_t address) {
        return mDriver->piccWrite(address, padded.data() + static_cast<std::size_t>(i) * blockSize());
    };
    return move({"setBlock", kBlockNotWritten, base, blocks.first, blocks.count}, key, statuses, writeOne, [](int) {});
}

int SelectedTag::readTrailer(int sector, const KeyUse& key, Trailer& trailer) {
    return read({sector, trailerOffsetOf(type(), sector), 1}, key, Login::anew, trailer.data());
}

int SelectedTag::writeTrailer(int sector, const KeyUse& key, Login login, const Trailer& trailer) {
    return write({sector, trailerOffsetOf(type(), sector), 1}, key, login, trailer);
}

int SelectedTag::changeValue(std::uint8_t command, std::uint8_t address, std::int32_t amount, std::uint8_t transfer) {
    std::uint8_t bytes[4];
    valueToBytes(amount, bytes);
    const short status = mDriver->piccValue(command, address, bytes, transfer);
    if (status == kBflOk) return kOk;
    QVL_LOG(kLogFailure, "incrementValue failed %d", status);
    return kValueFailed;
}

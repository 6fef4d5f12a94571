// The floor on which every tag data operation stands: one authentication a sector, three tries a block, and after each
// failure the tag is woken and authenticated again, since it drops out of its sector.

#include "BlockRun.h"
#include "KeyUse.h"
#include "LogService.h"
#include "QvlMf500ReaderImpl.h"
#include "SecretBytes.h"
#include "TagGeometry.h"

#include <algorithm>

namespace {

constexpr int kTries = 3;
constexpr std::size_t kCodedKeySize = 12;
constexpr std::size_t kAuthUidSize = 4;
constexpr std::size_t kLargestSector = 256;

}  // namespace

int QvlMf500ReaderImpl::authenticateKey(TagUID& tag, int blockAddress, const KeyUse& key) {
    if (tag.getTagType() == kTagUltralight) return kOk;
    const auto bfl = driver();
    SecretBytes<kCodedKeySize> coded;
    coded.fill(0);
    SecretBytes<Trailer::kKeySize> plain;
    if (key.key != nullptr) std::copy_n(key.key, plain.size(), plain.begin());
    if (bfl->hostCodeKey(key.key != nullptr ? plain.data() : nullptr, coded.data()) != kBflOk) return kKeyRefused;

    std::uint8_t uid[kAuthUidSize] = {};  // bytes that a short UID does not have are zero
    std::copy_n(tag.getUid(), std::min<std::size_t>(tag.getUidLen(), kAuthUidSize), uid);
    int woken = kOk;
    short status = kBflOk;
    for (int tries = 1; tries <= kTries; ++tries) {
        status = bfl->piccAuthKey(static_cast<std::uint8_t>(key.mode), uid, coded.data(),
                                  static_cast<std::uint8_t>(blockAddress));
        if (status == kBflOk) return woken;
        if (tries < kTries) woken = waitForTag(kWakeUpRequest, tag);
    }
    QVL_LOG(kLogFailure, "key authentication failed: block=%d error=%d", blockAddress, status);
    return kKeyRefused;
}

template <typename Attempt>
short QvlMf500ReaderImpl::tryThreeTimes(TagUID& tag, int base, const KeyUse& key, Attempt attempt) {
    short status = kBflOk;
    for (int tries = 1; tries <= kTries; ++tries) {
        status = attempt();
        if (status == kBflOk) break;
        if (waitForTag(kWakeUpRequest, tag) == kOk && tries < kTries) authenticateKey(tag, base, key);
    }
    return status;
}

template <typename Move, typename Failed>
int QvlMf500ReaderImpl::moveBlocks(TagUID& tag, int base, const KeyUse& key, const BlockRun& run, int* statuses,
                                   Move move, Failed failed) {
    int current = kOk;
    bool anyFailed = false;
    for (int i = 0; i < run.count; ++i) {
        const auto address = static_cast<std::uint8_t>(base + run.first + i);
        const short status = tryThreeTimes(tag, base, key, [&] { return move(i, address); });
        if (statuses != nullptr) statuses[i] = status == kBflOk ? int{kOk} : run.failure;
        if (status == kBflOk) continue;
        QVL_LOG(kLogFailure, "%s failed: address=%d, status=%d", run.operation, address, status);
        anyFailed = true;
        if (statuses == nullptr) return run.failure;
        failed(i);
        if (i + 1 == run.count) break;
        current = waitForTag(kWakeUpRequest, tag);
        if (current == kOk) current = authenticateKey(tag, base, key);
    }
    if (!anyFailed) return kOk;
    return current != kOk ? current : run.failure;
}

int QvlMf500ReaderImpl::getBlock(TagUID& tag, int sector, const KeyUse& key, int firstBlock, int blockCount,
                                 std::uint8_t* buffer, bool authenticate, int* statuses) {
    const int base = firstBlockOfSector(tag.getTagType(), sector);
    const std::size_t blockSize = tagInfoByType(tag.getTagType()).blockSize;
    const auto blockOf = [&](int i) { return buffer + static_cast<std::size_t>(i) * blockSize; };
    if (authenticate) {
        if (const int status = authenticateKey(tag, base, key); status != kOk) {
            std::fill_n(buffer, static_cast<std::size_t>(blockCount) * blockSize, std::uint8_t{0});
            if (statuses != nullptr) std::fill_n(statuses, blockCount, status);
            return status;
        }
    }
    const auto bfl = driver();
    const auto read = [&](int i, std::uint8_t address) {
        SecretBytes<16> scratch;  // the reader gives 16 bytes, of pages too
        scratch.fill(0);
        const short status = bfl->piccRead(address, scratch.data());
        if (status == kBflOk) std::copy_n(scratch.data(), blockSize, blockOf(i));
        return status;
    };
    const auto zero = [&](int i) { std::fill_n(blockOf(i), blockSize, std::uint8_t{0}); };
    return moveBlocks(tag, base, key, {firstBlock, blockCount, kBlockNotRead, "getBlock"}, statuses, read, zero);
}

int QvlMf500ReaderImpl::setBlock(TagUID& tag, int sector, const KeyUse& key, int firstBlock, int blockCount,
                                 const std::uint8_t* data, int dataLength, bool authenticate, int* statuses) {
    const int base = firstBlockOfSector(tag.getTagType(), sector);
    if (authenticate) {
        if (const int status = authenticateKey(tag, base, key); status != kOk) {
            if (statuses != nullptr) std::fill_n(statuses, blockCount, status);
            return status;
        }
    }
    const auto bfl = driver();
    const std::size_t blockSize = tagInfoByType(tag.getTagType()).blockSize;
    // Padded with zeroes to whole blocks; the driver takes 16 bytes even where a page holds four.
    SecretBytes<kLargestSector + 16> padded;
    padded.fill(0);
    const std::size_t size = static_cast<std::size_t>(blockCount) * blockSize;
    std::copy_n(data, std::min(static_cast<std::size_t>(dataLength), std::min(size, kLargestSector)), padded.begin());
    const auto write = [&](int i, std::uint8_t address) {
        return bfl->piccWrite(address, padded.data() + static_cast<std::size_t>(i) * blockSize);
    };
    return moveBlocks(tag, base, key, {firstBlock, blockCount, kBlockNotWritten, "setBlock"}, statuses, write,
                      [](int) {});
}

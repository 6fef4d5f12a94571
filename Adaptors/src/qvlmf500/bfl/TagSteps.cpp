// Finding and selecting a tag in the single steps of ISO/IEC 14443-3, for readers that do not do it by themselves.

#include "ByteHelpers.h"
#include "LogService.h"
#include "Qvl14443bfl.h"
#include "TagSizes.h"
#include "TagUID.h"

#include <algorithm>

namespace {

constexpr std::uint16_t kFieldResetMs = 20;
constexpr std::uint8_t kReqA = 0x26;
constexpr std::uint8_t kFirstSelectCode = 0x93;
constexpr std::uint8_t kUidIncomplete = 0x04;  // of the SAK
constexpr std::size_t kCascadePart = 4;

}  // namespace

short Qvl14443bfl::piccActivateAny(std::uint8_t* atq, std::uint8_t* sak, std::uint8_t* uid, std::uint8_t* uid_len) {
    pcdRfReset(kFieldResetMs);
    if (const short status = piccRequest(kReqA, atq); status != kBflOk) return status;
    *sak = kUidIncomplete;
    *uid_len = 0;
    int selectCode = kFirstSelectCode;
    while ((*sak & kUidIncomplete) != 0 && selectCode != -1) {
        const auto level = static_cast<std::uint8_t>(selectCode);
        std::uint8_t part[kCascadePart] = {};
        short status = piccCascAnticoll(level, 0, part);
        const bool isEmpty = std::ranges::all_of(part, [](std::uint8_t byte) { return byte == 0; });
        if (status == kBflOk && isEmpty && level == kFirstSelectCode) status = kBflNoTag;
        if (status == kBflOk) status = piccCascSelect(level, part, sak);
        if (status != kBflOk) {
            QVL_LOG(kLogFailure, "piccActivateWakeup anticollision failed=%d", status);
            return status;
        }
        // A part that another level follows begins with the cascade tag.
        const std::size_t skipped = (*sak & kUidIncomplete) != 0 ? 1 : 0;
        const std::size_t taken = std::min(kCascadePart - skipped, kMostUidBytes - *uid_len);
        std::copy_n(part + skipped, taken, uid + *uid_len);
        *uid_len = static_cast<std::uint8_t>(*uid_len + taken);
        selectCode = nextCascadeLevel(selectCode);
    }
    return kBflOk;
}

short Qvl14443bfl::piccSelectKnown(std::uint8_t reqCode, const TagUID& tag, std::optional<std::uint8_t>& sak) {
    std::uint8_t atq[2] = {};
    if (const short status = piccRequest(reqCode, atq); status != kBflOk) {
        QVL_LOG(kLogFailure, "Tag selection failed: %d", status);
        return status;
    }
    return selectByUid(tag, sak);
}

short Qvl14443bfl::selectByUid(const TagUID& tag, std::optional<std::uint8_t>& sak) {
    std::uint8_t told = kUidIncomplete;
    int selectCode = kFirstSelectCode;
    while (told == kUidIncomplete && selectCode != -1) {
        std::uint8_t part[kCascadePart] = {};
        tag.getCascadeBytes(static_cast<std::uint8_t>(selectCode), part);
        if (const short status = piccCascSelect(static_cast<std::uint8_t>(selectCode), part, &told); status != kBflOk) {
            QVL_LOG(kLogFailure, "Tag selection anticollision failed: %d", status);
            return status;
        }
        selectCode = nextCascadeLevel(selectCode);
    }
    sak = told;
    return kBflOk;
}

#include "TagSearch.h"

#include <algorithm>

namespace {

constexpr int kLevels = 3;

}  // namespace

std::uint8_t checkByte(const CascadePart& part) {
    return static_cast<std::uint8_t>(part[0] ^ part[1] ^ part[2] ^ part[3]);
}

std::optional<CascadePart> resolveCollisions(VirtualField& field, int level, CascadePart known, int knownBits) {
    auto heard = field.anticollision(level, known, knownBits);
    while (heard && heard->firstCollision >= 0) {
        const int bit = heard->firstCollision;
        known = heard->bits;
        known[static_cast<std::size_t>(bit / 8)] |= static_cast<std::uint8_t>(1 << (bit % 8));
        heard = field.anticollision(level, known, bit + 1);
    }
    return heard ? std::optional(heard->bits) : std::nullopt;
}

bool selectAny(VirtualField& field, FoundTag& tag) {
    for (int level = 0; level < kLevels; ++level) {
        const auto part = resolveCollisions(field, level);
        if (!part || checkByte(*part) != (*part)[4]) return false;
        const auto sak = field.select(level, *part);
        if (!sak) return false;
        const bool complete = !(*sak & kSakUidNotComplete);
        const std::size_t skipped = complete ? 0 : 1;
        std::copy_n(part->begin() + skipped, 4 - skipped, tag.uid.begin() + tag.uidLength);
        tag.uidLength += 4 - skipped;
        tag.sak = *sak;
        if (complete) return true;
    }
    return false;
}

bool selectByUid(VirtualField& field, std::span<const std::uint8_t> uid, FoundTag& tag) {
    if (uid.size() != 4 && uid.size() != 7 && uid.size() != 10) return false;
    tag.uidLength = uid.size();
    std::ranges::copy(uid, tag.uid.begin());
    const int levels = static_cast<int>(uid.size()) / 3;
    for (int level = 0; level < levels; ++level) {
        const bool last = level + 1 == levels;
        CascadePart part{kCascadeTag};
        std::copy_n(tag.uid.begin() + std::ptrdiff_t{3} * level, last ? 4 : 3, part.begin() + (last ? 0 : 1));
        part[4] = checkByte(part);
        const auto sak = field.select(level, part);
        if (!sak || last == ((*sak & kSakUidNotComplete) != 0)) return false;
        tag.sak = *sak;
    }
    return true;
}

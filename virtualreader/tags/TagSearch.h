#pragma once

#include "VirtualField.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

/// How a reader singles out a tag by ISO/IEC 14443-3. Called under the field's lock, after a request.

/// A tag that was selected.
struct FoundTag {
    std::array<std::uint8_t, 10> uid{};
    std::size_t uidLength = 0;
    std::uint16_t atqa = 0;
    std::uint8_t sak = 0;

    std::span<const std::uint8_t> uidBytes() const { return {uid.data(), uidLength}; }
};

constexpr std::uint8_t kCascadeTag = 0x88;
constexpr std::uint8_t kSakUidNotComplete = 0x04;

/// Check byte of the four bytes in front of it.
std::uint8_t checkByte(const CascadePart& part);

/// Anticollision on `level` to the end: at each collision it goes on with the tags that have a 1 there.
/// @return a whole part that begins with the known bits, none if all tags are silent.
std::optional<CascadePart> resolveCollisions(VirtualField& field, int level, CascadePart known = {}, int knownBits = 0);

/// Selects one of the tags that are ready. @return false if none is, or if it goes on the way; `tag` is then undefined.
bool selectAny(VirtualField& field, FoundTag& tag);
/// Selects the tag with this UID of 4, 7 or 10 bytes.
bool selectByUid(VirtualField& field, std::span<const std::uint8_t> uid, FoundTag& tag);

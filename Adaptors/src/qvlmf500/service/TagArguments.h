#pragma once

#include "ByteHelpers.h"
#include "ServiceEnums.h"
#include "ServiceStatus.h"
#include "TagUID.h"

/// The tests that tag operations share before they take the lock. They see the tag's type as the last selection left
/// it.

/// 3108 for a tag without UID, else 3100.
inline int checkTag(const TagUID& tag) { return tag.getUidLen() == 0 ? kTagWithoutUid : kOk; }

/// 3021 in application mode for a value that is no application id, else 3100.
inline int checkAppId(TagAppType appType, short appId) {
    std::uint8_t aid[2];
    return appType == TagAppNone || aidToBytes(static_cast<std::uint16_t>(appId), aid) ? kOk : kNoApplicationId;
}

/// The tag of a host's constant argument. A selection refreshes its type, and nothing else ever changes.
inline TagUID& refreshable(const TagUID& tag) { return const_cast<TagUID&>(tag); }

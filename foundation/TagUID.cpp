#include "TagUID.h"

#include "ByteHelpers.h"
#include "HexText.h"
#include "QVLParamCollection.h"
#include "ServiceStatus.h"

#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace {

constexpr std::uint8_t kSelectLevel1 = 0x93;
constexpr std::uint8_t kSelectLevel2 = 0x95;
constexpr std::uint8_t kCascadeTag = 0x88;
constexpr std::uint32_t kLongestOnLevel1 = 4;
constexpr std::uint32_t kLongestOnLevel2 = 7;

}  // namespace

TagUID::TagUID() : mUid(nullptr), mUidLen(0), mTagType(kTagStandard), mOwned(0) {}

TagUID::TagUID(const std::uint8_t* uid, std::uint32_t length, std::uint32_t type) : TagUID() {
    setUid(uid, length);
    mTagType = type;
}

TagUID::TagUID(const TagUID& other)
    : QVLParameter(other), mUid(nullptr), mUidLen(0), mTagType(kTagStandard), mOwned(0) {
    *this = other;
}

TagUID& TagUID::operator=(const TagUID& other) {
    if (this == &other) return *this;
    setUid(other.mUid, other.mUidLen);
    mTagType = other.mTagType;
    return *this;
}

TagUID::~TagUID() { adopt(nullptr, 0); }

void TagUID::adopt(std::uint8_t* uid, std::uint32_t length) {
    if (mUid != mShortUid) delete[] mUid;
    mUid = uid;
    mUidLen = mOwned = uid ? length : 0;
}

void TagUID::reset() {
    adopt(nullptr, 0);
    mTagType = kTagStandard;
}

void TagUID::setUid(const std::uint8_t* uid, std::uint32_t length) {
    if (!uid || length == 0) return adopt(nullptr, 0);
    if (length > sizeof mShortUid) return adopt(newCopy(uid, length), length);
    std::memmove(mShortUid, uid, length);
    adopt(mShortUid, length);
}

void TagUID::setUidLen(std::uint32_t length) {
    if (length <= mOwned) mUidLen = length;
}

bool TagUID::operator==(const TagUID& other) const {
    return mUidLen == other.mUidLen && (mUidLen == 0 || std::memcmp(mUid, other.mUid, mUidLen) == 0);
}

char* TagUID::toHexString() const { return hexEncode(getUid(), mUidLen); }

TagUID* TagUID::fromHexString(const char* text, std::uint32_t type) {
    std::unique_ptr<TagUID> tag(new (std::nothrow) TagUID(nullptr, 0, type));
    const std::size_t count = text ? std::strlen(text) / 2 : 0;
    if (!tag || count == 0) return tag.release();
    if (count > std::numeric_limits<std::uint32_t>::max()) return nullptr;

    std::unique_ptr<std::uint8_t[]> bytes(new (std::nothrow) std::uint8_t[count]);
    if (!bytes) return nullptr;
    std::uint32_t length = 0;
    hexDecode(text, length, bytes.get());
    tag->adopt(bytes.release(), length);
    return tag.release();
}

void TagUID::getCascadeBytes(std::uint8_t selectCode, std::uint8_t* out) const {
    std::uint32_t first = 6;
    bool more = false;
    if (selectCode == kSelectLevel1) {
        first = 0;
        more = mUidLen > kLongestOnLevel1;
    } else if (selectCode == kSelectLevel2) {
        first = 3;
        more = mUidLen > kLongestOnLevel2;
    }
    if (more) *out++ = kCascadeTag;
    for (std::uint32_t i = first; i < first + (more ? 3 : 4); ++i)
        *out++ = i < mUidLen ? mUid[i] : std::uint8_t{0};
}

void TagUID::getTagInfo(TagTypeInfo& out) const { out = tagInfoByType(mTagType); }

int TagUID::serialize(std::uint32_t& length, std::uint8_t*& data) {
    length = 0;
    data = nullptr;
    QVLParamCollection stream;
    if (int status = stream.addBytes(mUidLen, getUid()); status != kMemoryOk) return status;
    if (int status = stream.addShort(static_cast<std::uint16_t>(tagTypeToWire(mTagType))); status != kMemoryOk)
        return status;
    data = newCopy(stream.getData(), stream.getSize());
    if (!data) return kStreamFull;
    length = stream.getSize();
    return kMemoryOk;
}

int TagUID::deserialize(std::uint32_t length, const std::uint8_t* data) {
    QVLParamCollection stream;
    int status = stream.setData(length, data);  // before the old UID goes: the bytes may be the tag's own
    adopt(nullptr, 0);
    if (status != kMemoryOk) return status;

    std::uint32_t uidLength = 0;
    std::uint8_t* uid = nullptr;
    status = stream.getBytes(uidLength, uid);
    if (status != kMemoryOk) return status;
    adopt(uid, uidLength);

    std::uint16_t wireCode = 0;
    status = stream.getShort(wireCode);
    if (status != kMemoryOk) return status;
    mTagType = wireToTagType(wireCode);
    return kMemoryOk;
}

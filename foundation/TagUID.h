#pragma once

#include "QVLParameter.h"
#include "TagTypes.h"

#include <cstdint>

/// Identity of a tag: its UID bytes and its type (TagTypes.h). Handed to a host always as an array, even of one, and
/// released with ReaderImpl::freeMemory. In a stream: bytes UID, short wire code of the type. Where there is no memory
/// for a copy, the tag ends up without a UID: it never keeps the one of another tag.
class QVL_API TagUID final : public QVLParameter {
  public:
    /// Empty, type 0x0400.
    TagUID();
    TagUID(const std::uint8_t* uid, std::uint32_t length, std::uint32_t type);
    TagUID(const TagUID& other);
    TagUID& operator=(const TagUID& other);
    ~TagUID();

    /// Empty again, type 0x0400.
    void reset();
    /// Copies `length` bytes, which may be the tag's own; length 0 or null leaves the tag without bytes. The type
    /// stays.
    void setUid(const std::uint8_t* uid, std::uint32_t length);
    /// The tag keeps the bytes; null when the length is 0.
    const std::uint8_t* getUid() const { return mUidLen > 0 ? mUid : nullptr; }
    std::uint32_t getUidLen() const { return mUidLen; }
    std::uint32_t getTagType() const { return mTagType; }
    /// Shortens the UID, or takes that back; a length beyond the bytes held changes nothing.
    void setUidLen(std::uint32_t length);
    void setTagType(std::uint32_t type) { mTagType = type; }

    /// Same length and same bytes; the type is ignored.
    bool operator==(const TagUID& other) const;

    /// New terminated text, two lower-case digits a byte, which the caller deletes as an array; null without a UID.
    char* toHexString() const;
    /// New TagUID, which the caller deletes, from hexadecimal text; an odd digit at the end is dropped. Null without
    /// memory.
    static TagUID* fromHexString(const char* text, std::uint32_t type);
    /// The four bytes that a cascade level of ISO/IEC 14443-3 sends: `selectCode` 0x93, 0x95, 0x97. UID bytes that are
    /// not there read as zero.
    void getCascadeBytes(std::uint8_t selectCode, std::uint8_t* out) const;
    /// Row of the tag's type.
    void getTagInfo(TagTypeInfo& out) const;

    int serialize(std::uint32_t& length, std::uint8_t*& data) override;
    /// On failure the tag holds no UID, unless the UID itself was read.
    int deserialize(std::uint32_t length, const std::uint8_t* data) override;

  private:
    QVL_INTERNAL void adopt(std::uint8_t* uid, std::uint32_t length);

    std::uint8_t* mUid;
    std::uint32_t mUidLen;
    std::uint32_t mTagType;
    std::uint32_t mOwned;        // bytes at mUid
    std::uint8_t mShortUid[10];  // where mUid points for every UID that ISO/IEC 14443-3 knows
};

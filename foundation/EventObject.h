#pragma once

#include "TagUID.h"

#include <cstdint>

/// What polling hands to a host. The host releases it with ReaderImpl::freeMemory. A buffer that there is no memory for
/// stays empty.
class QVL_API EventObject {
  public:
    static constexpr std::int32_t kTagEvent = 1;
    static constexpr std::uint32_t kTagFound = 103;

    /// Kind 1, code 103, time 0, type 2002, both buffers empty.
    EventObject();
    /// Copies both buffers. Only for kind 1 the type is a tag type code and is translated to its wire code.
    EventObject(std::int32_t kind, std::uint32_t code, std::uint32_t time, std::uint32_t type, const std::uint8_t* uid,
                std::uint32_t uidLen, std::uint32_t extraLen, const std::uint8_t* extra);
    EventObject(std::uint32_t code, std::uint32_t time, const TagUID& tag);
    EventObject(const EventObject& other);
    EventObject& operator=(const EventObject& other);
    ~EventObject();

    /// The same on an existing object: kind 1, UID and type from the tag, an empty tag leaving type 0x0400.
    void set(std::uint32_t code, std::uint32_t time, const TagUID& tag, std::uint32_t extraLen,
             const std::uint8_t* extra);

    std::int32_t getKind() const { return mKind; }
    std::uint32_t getCode() const { return mCode; }
    /// Seconds since 1970.
    std::uint32_t getTime() const { return mTime; }
    /// Wire code of the tag type, 2000 to 2007.
    std::uint32_t getType() const { return mType; }
    /// Gives a new copy of the UID, which the caller deletes as an array, or only length 0. Always true.
    bool getUid(std::uint32_t& length, std::uint8_t*& bytes) const;
    std::uint32_t getUidLen() const { return mUidLen; }
    /// The event keeps the bytes; null when there are none.
    const std::uint8_t* getExtra() const { return mExtra; }
    std::uint32_t getExtraLen() const { return mExtraLen; }

  private:
    std::int32_t mKind;
    std::uint32_t mCode;
    std::uint32_t mTime;
    std::uint32_t mType;
    std::uint8_t* mUid;
    std::uint32_t mUidLen;
    std::uint8_t* mExtra;
    std::uint32_t mExtraLen;
};

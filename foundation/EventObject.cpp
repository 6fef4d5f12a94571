#include "EventObject.h"

#include "ByteHelpers.h"

namespace {

/// Puts a copy in place of an owned buffer. The source may lie in the old buffer.
void replaceBuffer(std::uint8_t*& buffer, std::uint32_t& length, const std::uint8_t* bytes, std::uint32_t count) {
    std::uint8_t* copy = newCopy(bytes, count);
    delete[] buffer;
    buffer = copy;
    length = copy ? count : 0;
}

std::uint32_t wireTypeOf(const TagUID& tag) {
    return tagTypeToWire(tag.getUidLen() > 0 ? tag.getTagType() : static_cast<std::uint32_t>(kTagStandard));
}

}  // namespace

EventObject::EventObject()
    : mKind(kTagEvent), mCode(kTagFound), mTime(0), mType(tagTypeToWire(kTagStandard)), mUid(nullptr), mUidLen(0),
      mExtra(nullptr), mExtraLen(0) {}

EventObject::EventObject(std::int32_t kind, std::uint32_t code, std::uint32_t time, std::uint32_t type,
                         const std::uint8_t* uid, std::uint32_t uidLen, std::uint32_t extraLen,
                         const std::uint8_t* extra)
    : EventObject() {
    mKind = kind;
    mCode = code;
    mTime = time;
    mType = kind == kTagEvent ? tagTypeToWire(type) : type;
    replaceBuffer(mUid, mUidLen, uid, uidLen);
    replaceBuffer(mExtra, mExtraLen, extra, extraLen);
}

EventObject::EventObject(std::uint32_t code, std::uint32_t time, const TagUID& tag) : EventObject() {
    set(code, time, tag, 0, nullptr);
}

EventObject::EventObject(const EventObject& other) : EventObject() { *this = other; }

EventObject& EventObject::operator=(const EventObject& other) {
    if (this == &other) return *this;
    mKind = other.mKind;
    mCode = other.mCode;
    mTime = other.mTime;
    mType = other.mType;
    replaceBuffer(mUid, mUidLen, other.mUid, other.mUidLen);
    replaceBuffer(mExtra, mExtraLen, other.mExtra, other.mExtraLen);
    return *this;
}

EventObject::~EventObject() {
    delete[] mUid;
    delete[] mExtra;
}

void EventObject::set(std::uint32_t code, std::uint32_t time, const TagUID& tag, std::uint32_t extraLen,
                      const std::uint8_t* extra) {
    mKind = kTagEvent;
    mCode = code;
    mTime = time;
    mType = wireTypeOf(tag);
    replaceBuffer(mUid, mUidLen, tag.getUid(), tag.getUidLen());
    replaceBuffer(mExtra, mExtraLen, extra, extraLen);
}

bool EventObject::getUid(std::uint32_t& length, std::uint8_t*& bytes) const {
    length = 0;
    if (mUidLen == 0) return true;
    bytes = newCopy(mUid, mUidLen);
    if (bytes) length = mUidLen;
    return true;
}

#include "QVLParamCollection.h"

#include "ByteHelpers.h"
#include "ServiceStatus.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <new>

namespace {

enum ValueType : std::uint8_t { kShort = 1, kLong = 2, kByte = 3, kString = 4, kBytes = 5 };

constexpr std::uint64_t kGrowthStep = 64;
constexpr std::uint32_t kMaxSize = std::numeric_limits<std::uint32_t>::max();
constexpr std::size_t kTypeSize = 1;
constexpr std::size_t kLengthSize = 4;

void toBigEndian(std::uint32_t value, std::uint8_t* out, std::size_t count) {
    for (std::size_t i = count; i-- > 0; value >>= 8)
        out[i] = static_cast<std::uint8_t>(value);
}

std::uint32_t fromBigEndian(const std::uint8_t* bytes, std::size_t count) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < count; ++i)
        value = value << 8 | bytes[i];
    return value;
}

}  // namespace

QVLParamCollection::QVLParamCollection()
    : mBuffer(nullptr), mCapacity(0), mSize(0), mCursor(nullptr), mNext(this), mPrevious(this) {}

QVLParamCollection::QVLParamCollection(const QVLParamCollection& other) : QVLParamCollection() { share(other); }

QVLParamCollection& QVLParamCollection::operator=(const QVLParamCollection& other) {
    if (this == &other) return *this;
    const QVLParamCollection keeper(other);  // keeps a buffer that both share already
    drop();
    share(keeper);
    return *this;
}

QVLParamCollection::~QVLParamCollection() { drop(); }

/// A relayed command may carry a key.
void QVLParamCollection::release(std::uint8_t* buffer, std::uint32_t capacity) {
    if (buffer) wipe(buffer, capacity);
    std::free(buffer);
}

/// Joins the ring of `other`. The object holds no buffer yet.
void QVLParamCollection::share(const QVLParamCollection& other) {
    if (!other.mBuffer) return;
    mBuffer = other.mBuffer;
    mCapacity = other.mCapacity;
    mSize = other.mSize;
    mCursor = other.mCursor;
    mPrevious = &other;
    mNext = other.mNext;
    mPrevious->mNext = mNext->mPrevious = this;
}

/// Leaves the ring; the last one frees the buffer. The object is as new afterwards.
void QVLParamCollection::drop() {
    if (!isShared()) release(mBuffer, mCapacity);
    mPrevious->mNext = mNext;
    mNext->mPrevious = mPrevious;
    mBuffer = mCursor = nullptr;
    mCapacity = mSize = 0;
    mNext = mPrevious = this;
}

/// Makes this object the sole owner of its buffer. On failure the stream is empty.
bool QVLParamCollection::own() {
    if (!isShared()) return true;
    auto* copy = static_cast<std::uint8_t*>(std::malloc(mCapacity));
    if (!copy) {
        drop();
        return false;
    }
    std::memcpy(copy, mBuffer, mCapacity);
    const std::uint32_t capacity = mCapacity;
    const std::uint32_t size = mSize;
    const std::ptrdiff_t offset = mCursor - mBuffer;
    drop();
    mBuffer = copy;
    mCapacity = capacity;
    mSize = size;
    mCursor = mBuffer + offset;
    return true;
}

/// Makes room for `count` more bytes at the cursor. On failure the stream is empty.
bool QVLParamCollection::reserve(std::uint64_t count) {
    if (!own()) return false;
    if (count == 0) return true;
    const std::uint64_t needed = mSize + count;
    if (mBuffer && needed <= mCapacity) {
        if (count > left()) seekEnd();  // a read went on after what was written
        return true;
    }
    const std::uint64_t steps = (needed - mCapacity + kGrowthStep - 1) / kGrowthStep;
    const std::uint64_t capacity = mCapacity + steps * kGrowthStep;
    void* grown = capacity <= kMaxSize ? std::malloc(static_cast<std::size_t>(capacity)) : nullptr;
    if (!grown) {
        drop();
        return false;
    }
    if (mBuffer) std::memcpy(grown, mBuffer, mCapacity);
    release(mBuffer, mCapacity);
    mBuffer = static_cast<std::uint8_t*>(grown);
    std::memset(mBuffer + mCapacity, 0, static_cast<std::size_t>(capacity - mCapacity));
    mCapacity = static_cast<std::uint32_t>(capacity);
    seekEnd();
    return true;
}

void QVLParamCollection::write(const std::uint8_t* bytes, std::size_t count) {
    if (count == 0) return;
    std::memcpy(mCursor, bytes, count);
    mCursor += count;
    mSize += static_cast<std::uint32_t>(count);
}

int QVLParamCollection::put(std::uint8_t type, const std::uint8_t* body, std::uint32_t bodyLength) {
    if (!reserve(kTypeSize)) return kStreamFull;
    write(&type, kTypeSize);
    if (!reserve(bodyLength)) return kStreamFull;
    write(body, bodyLength);
    return kMemoryOk;
}

int QVLParamCollection::putBlock(std::uint8_t type, std::size_t length, const std::uint8_t* bytes) {
    const auto address = reinterpret_cast<std::uintptr_t>(bytes);
    const auto start = reinterpret_cast<std::uintptr_t>(mBuffer);
    std::unique_ptr<const std::uint8_t[]> ownBytes;
    if (mBuffer && address >= start && address - start < mCapacity) {  // growing would move them away
        ownBytes.reset(newCopy(bytes, length));
        if (!ownBytes && length > 0) {
            drop();
            return kStreamFull;
        }
        bytes = ownBytes.get();
    }
    if (length > kMaxSize) {
        drop();
        return kStreamFull;
    }
    std::uint8_t lengthField[kLengthSize];
    toBigEndian(static_cast<std::uint32_t>(length), lengthField, kLengthSize);
    if (int status = put(type, lengthField, kLengthSize); status != kMemoryOk) return status;
    if (!reserve(length)) return kStreamFull;
    write(bytes, length);
    return kMemoryOk;
}

int QVLParamCollection::addShort(std::uint16_t value) {
    std::uint8_t body[2];
    toBigEndian(value, body, sizeof body);
    return put(kShort, body, sizeof body);
}

int QVLParamCollection::addLong(std::uint32_t value) {
    std::uint8_t body[4];
    toBigEndian(value, body, sizeof body);
    return put(kLong, body, sizeof body);
}

int QVLParamCollection::addByte(std::uint8_t value) { return put(kByte, &value, sizeof value); }

int QVLParamCollection::addString(const char* text) {
    if (!text) return kMemoryOk;
    return putBlock(kString, std::strlen(text), reinterpret_cast<const std::uint8_t*>(text));
}

int QVLParamCollection::addBytes(std::uint32_t length, const std::uint8_t* bytes) {
    if (!bytes && length > 0) return kStreamFull;
    return putBlock(kBytes, length, bytes);
}

int QVLParamCollection::addParameter(QVLParameter& parameter) try {
    std::uint32_t length = 0;
    std::uint8_t* data = nullptr;
    if (int status = parameter.serialize(length, data); status != kMemoryOk) return status;
    const std::unique_ptr<const std::uint8_t[]> owner(data);
    return addBytes(length, data);
} catch (...) {
    return kStreamFull;
}

std::size_t QVLParamCollection::left() const {
    return mBuffer ? static_cast<std::size_t>(mBuffer + mCapacity - mCursor) : 0;
}

int QVLParamCollection::readInteger(std::uint8_t type, std::size_t count, std::uint32_t& value) {
    if (left() < kTypeSize) return kStreamEnd;
    if (*mCursor++ != type) return kWrongValueType;
    if (left() < count) return kStreamEnd;
    value = fromBigEndian(mCursor, count);
    mCursor += count;
    return kMemoryOk;
}

/// Reads type and length of a string or of bytes; all `length` bytes are there at the cursor.
int QVLParamCollection::openBlock(std::uint8_t type, std::uint32_t& length) {
    std::uint32_t count = 0;
    if (int status = readInteger(type, kLengthSize, count); status != kMemoryOk) return status;
    if (left() < count) return kStreamEnd;
    length = count;
    return kMemoryOk;
}

int QVLParamCollection::getShort(std::uint16_t& value) {
    std::uint32_t read = 0;
    if (int status = readInteger(kShort, sizeof value, read); status != kMemoryOk) return status;
    value = static_cast<std::uint16_t>(read);
    return kMemoryOk;
}

int QVLParamCollection::getLong(std::uint32_t& value) { return readInteger(kLong, sizeof value, value); }

int QVLParamCollection::getByte(std::uint8_t& value) {
    std::uint32_t read = 0;
    if (int status = readInteger(kByte, sizeof value, read); status != kMemoryOk) return status;
    value = static_cast<std::uint8_t>(read);
    return kMemoryOk;
}

int QVLParamCollection::getString(char*& text) {
    text = nullptr;
    std::uint32_t length = 0;
    if (int status = openBlock(kString, length); status != kMemoryOk) return status;
    if (length == 0) return kMemoryOk;
    auto* copy = new (std::nothrow) char[std::size_t{length} + 1];
    if (!copy) return kStreamFull;
    std::memcpy(copy, mCursor, length);
    copy[length] = '\0';
    mCursor += length;
    text = copy;
    return kMemoryOk;
}

int QVLParamCollection::getBytes(std::uint32_t& length, std::uint8_t*& bytes) {
    length = 0;
    bytes = nullptr;
    std::uint32_t count = 0;
    if (int status = openBlock(kBytes, count); status != kMemoryOk) return status;
    if (count == 0) return kMemoryOk;
    bytes = newCopy(mCursor, count);
    if (!bytes) return kStreamFull;
    length = count;
    mCursor += count;
    return kMemoryOk;
}

int QVLParamCollection::getParameter(QVLParameter& parameter) try {
    std::uint32_t length = 0;
    std::uint8_t* bytes = nullptr;
    if (int status = getBytes(length, bytes); status != kMemoryOk) return status;
    const std::unique_ptr<const std::uint8_t[]> owner(bytes);
    return parameter.deserialize(length, bytes);
} catch (...) {
    return kStreamFull;
}

int QVLParamCollection::peekType(std::uint8_t& type) {
    if (left() < kTypeSize) return kStreamEnd;
    type = *mCursor;
    return kMemoryOk;
}

std::uint32_t QVLParamCollection::getSize() const { return mSize; }

const std::uint8_t* QVLParamCollection::getData() const { return mBuffer; }

void QVLParamCollection::rewind() { mCursor = mBuffer; }

void QVLParamCollection::seekEnd() { mCursor = mBuffer ? mBuffer + mSize : nullptr; }

void QVLParamCollection::clear() {
    if (!own() || !mBuffer) return;
    std::memset(mBuffer, 0, mCapacity);
    mSize = 0;
    mCursor = mBuffer;
}

int QVLParamCollection::setData(std::uint32_t length, const std::uint8_t* bytes) {
    std::uint8_t* copy = bytes && length > 0 ? static_cast<std::uint8_t*>(std::malloc(length)) : nullptr;
    if (copy) std::memcpy(copy, bytes, length);
    drop();
    if (!copy) return length == 0 ? kMemoryOk : kStreamFull;
    mBuffer = mCursor = copy;
    mCapacity = mSize = length;
    return kMemoryOk;
}

std::uint8_t* QVLParamCollection::detachData() {
    if (!own()) return nullptr;
    std::uint8_t* buffer = mBuffer;
    mBuffer = nullptr;
    drop();
    return buffer;
}

std::uint32_t QVLParamCollection::getCapacity() const { return mCapacity; }

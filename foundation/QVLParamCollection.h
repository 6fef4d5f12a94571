#pragma once

#include "QVLParameter.h"

#include <cstddef>
#include <cstdint>

/// A growing byte stream of typed values: the arguments and results of ReaderImpl::runCommand.
///
/// Each value is one type byte and a body; integers and lengths are big-endian.
///
///   1 short   2 bytes
///   2 long    4 bytes
///   3 byte    1 byte
///   4 string  4 bytes length N, N characters without terminator
///   5 bytes   4 bytes length N, N bytes
///
/// There are no names and no count: who reads must know the order of types. Operations with a status return 3000 on
/// success, 3037 when a read would pass the end, 3041 when the value has another type, 3038 when the buffer cannot
/// grow; then the stream is empty. A failed read does not move the cursor back; the pointer that it should have filled
/// is null. One thread at a time, collections that share a buffer included.
class QVL_API QVLParamCollection {
  public:
    QVLParamCollection();
    /// Copies share one buffer until one of them writes, which then takes its own.
    QVLParamCollection(const QVLParamCollection& other);
    QVLParamCollection& operator=(const QVLParamCollection& other);
    ~QVLParamCollection();

    int addShort(std::uint16_t value);
    int addLong(std::uint32_t value);
    int addByte(std::uint8_t value);
    /// A null text adds nothing and returns 3000.
    int addString(const char* text);
    /// Null bytes with a length add nothing and return 3038.
    int addBytes(std::uint32_t length, const std::uint8_t* bytes);
    /// Adds what `parameter.serialize` writes, as bytes; its failure is returned and nothing is added.
    int addParameter(QVLParameter& parameter);

    int getShort(std::uint16_t& value);
    int getLong(std::uint32_t& value);
    int getByte(std::uint8_t& value);
    /// `text` becomes a new terminated buffer that the caller deletes as an array; null for an empty text.
    int getString(char*& text);
    /// `bytes` becomes a new buffer that the caller deletes as an array; null for length 0.
    int getBytes(std::uint32_t& length, std::uint8_t*& bytes);
    int getParameter(QVLParameter& parameter);
    /// The next byte, without moving on.
    int peekType(std::uint8_t& type);

    std::uint32_t getSize() const;
    /// The bytes written so far; null while nothing was written. The collection keeps them.
    const std::uint8_t* getData() const;
    void rewind();
    void seekEnd();
    /// Empties the stream and zeroes its bytes; the buffer stays.
    void clear();
    /// Makes a copy of these bytes the content, ready to be read. The collection's own bytes are welcome. 3038 without
    /// memory and for null bytes with a length; then the stream is empty.
    int setData(std::uint32_t length, const std::uint8_t* bytes);
    /// Hands the buffer over, to be released with `free`, and leaves the collection empty. Of a shared buffer it is a
    /// copy, null without memory.
    std::uint8_t* detachData();

    /// Bytes that the buffer holds; it grows in steps of 64. Reads are limited by this, and what was never written
    /// reads as zero.
    std::uint32_t getCapacity() const;

  private:
    QVL_INTERNAL bool isShared() const { return mNext != this; }
    QVL_INTERNAL void share(const QVLParamCollection& other);
    QVL_INTERNAL static void release(std::uint8_t* buffer, std::uint32_t capacity);
    QVL_INTERNAL void drop();
    QVL_INTERNAL bool own();
    QVL_INTERNAL bool reserve(std::uint64_t count);
    QVL_INTERNAL int put(std::uint8_t type, const std::uint8_t* body, std::uint32_t bodyLength);
    QVL_INTERNAL int putBlock(std::uint8_t type, std::size_t length, const std::uint8_t* bytes);
    QVL_INTERNAL void write(const std::uint8_t* bytes, std::size_t count);
    QVL_INTERNAL std::size_t left() const;
    QVL_INTERNAL int readInteger(std::uint8_t type, std::size_t count, std::uint32_t& value);
    QVL_INTERNAL int openBlock(std::uint8_t type, std::uint32_t& length);

    std::uint8_t* mBuffer;  // malloc, realloc, free; shared by all objects of the ring
    std::uint32_t mCapacity;
    std::uint32_t mSize;
    std::uint8_t* mCursor;
    mutable const QVLParamCollection* mNext;  // ring of those who share the buffer; itself for a sole owner
    mutable const QVLParamCollection* mPrevious;
};

#include "TamaFrameAssembler.h"

#include "TamaDevice.h"

#include <algorithm>
#include <new>

namespace {

// The head of a normal frame is complete with 5 bytes, that of an extended one with 8.
constexpr std::uint32_t kHeadSize = 5;
constexpr std::uint32_t kExtendedHeadSize = 8;

}  // namespace

std::int32_t TamaFrameAssembler::appendByte(std::uint8_t b) {
    if (mPosInChunk == kChunkSize) {
        if (static_cast<std::size_t>(mChunkIndex + 1) == mChunks.size()) {
            try {
                mChunks.push_back(std::make_unique<Chunk>());
            } catch (const std::bad_alloc&) {
                return kDeviceFailed;
            }
        }
        mPosInChunk = 0;
        ++mChunkIndex;
    }
    (*mChunks[static_cast<std::size_t>(mChunkIndex)])[static_cast<std::size_t>(mPosInChunk)] = b;
    ++mPosInChunk;
    return kDeviceOk;
}

std::int32_t TamaFrameAssembler::reset() {
    mPosInChunk = kChunkSize;
    mChunkIndex = -1;
    return kDeviceOk;
}

bool TamaFrameAssembler::isAckOrNack() const {
    return (at(3) == 0xFF && at(4) == 0x00) || (at(3) == 0x00 && at(4) == 0xFF);
}

bool TamaFrameAssembler::extendedHeadFits() const { return static_cast<std::uint8_t>(at(5) + at(6) + at(7)) == 0; }

bool TamaFrameAssembler::normalHeadFits() const { return static_cast<std::uint8_t>(at(3) + at(4)) == 0; }

std::int32_t TamaFrameAssembler::needsMoreBytes(bool* more) {
    const std::uint32_t n = held();
    if (n < kHeadSize)
        *more = true;
    else if (isAckOrNack())
        *more = n != 6;
    else if (isExtended() && n < kExtendedHeadSize)
        *more = true;
    else if (isExtended())
        *more = extendedHeadFits() && n < at(6) * 256u + at(5) + 10u;
    else
        *more = normalHeadFits() && n < at(3) + 7u;
    return kDeviceOk;
}

std::int32_t TamaFrameAssembler::hasBadHeader(bool* bad) {
    const std::uint32_t n = held();
    if (n < kHeadSize || isAckOrNack())
        *bad = false;
    else if (isExtended())
        *bad = n >= kExtendedHeadSize && !extendedHeadFits();
    else
        *bad = !normalHeadFits();
    return kDeviceOk;
}

std::int32_t TamaFrameAssembler::frameLength(std::uint32_t* length) {
    *length = held();
    return kDeviceOk;
}

std::int32_t TamaFrameAssembler::copyFrame(std::uint8_t* buffer, std::uint32_t size) {
    std::uint32_t left = held();
    if (size < left) return kDeviceBadArgument;
    for (const auto& chunk : mChunks) {
        const std::uint32_t part = std::min<std::uint32_t>(left, kChunkSize);
        buffer = std::copy_n(chunk->begin(), part, buffer);
        left -= part;
        if (left == 0) break;
    }
    return kDeviceOk;
}

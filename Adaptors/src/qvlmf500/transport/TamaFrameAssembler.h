#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

/// Decides from the bytes alone when a frame of the host link is complete. Bytes are kept in chunks of 255 that stay
/// allocated for the next frame; the longest frame has 65545 bytes. Results are values of DeviceStatus.
class TamaFrameAssembler {
  public:
    TamaFrameAssembler() = default;
    virtual ~TamaFrameAssembler() = default;
    TamaFrameAssembler(const TamaFrameAssembler&) = delete;
    TamaFrameAssembler& operator=(const TamaFrameAssembler&) = delete;

    /// @return kDeviceFailed if there is no memory for the byte, which is then not taken.
    virtual std::int32_t appendByte(std::uint8_t b);
    virtual std::int32_t reset();
    /// False when the frame is complete, and when its head is wrong so that nobody can tell how long it is.
    virtual std::int32_t needsMoreBytes(bool* more);
    virtual std::int32_t hasBadHeader(bool* bad);
    /// Number of bytes held.
    virtual std::int32_t frameLength(std::uint32_t* length);
    /// Copies all bytes held. @return kDeviceBadArgument if `size` is too small; then nothing is copied.
    virtual std::int32_t copyFrame(std::uint8_t* buffer, std::uint32_t size);

  private:
    static constexpr std::int32_t kChunkSize = 255;
    using Chunk = std::array<std::uint8_t, kChunkSize>;

    std::uint32_t held() const { return static_cast<std::uint32_t>(mChunkIndex * kChunkSize + mPosInChunk); }
    std::uint8_t at(std::size_t position) const { return (*mChunks[0])[position]; }
    bool isExtended() const { return at(3) == 0xFF && at(4) == 0xFF; }
    bool isAckOrNack() const;
    bool extendedHeadFits() const;
    bool normalHeadFits() const;

    std::int32_t mPosInChunk = kChunkSize;
    std::int32_t mChunkIndex = -1;
    std::vector<std::unique_ptr<Chunk>> mChunks;
};

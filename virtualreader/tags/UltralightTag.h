#pragma once

#include "TagMemory.h"
#include "VirtualTag.h"

#include <vector>

/// MIFARE Ultralight: 16 pages of 4 bytes with one-time bits and page locks. Data sheet MF0ICU1.
class UltralightTag : public VirtualTag {
  public:
    static constexpr std::size_t kImageBytes = 64;

    /// `image` has 64 bytes; its pages 0 and 1 tell the UID of seven bytes.
    explicit UltralightTag(std::vector<std::uint8_t> image);
    /// The image of a tag as delivered.
    static std::vector<std::uint8_t> blankImage(std::span<const std::uint8_t> uid);

    const char* kind() const override { return "Ultralight"; }
    TagMemory* memory() override { return &mMemory; }
    std::shared_ptr<VirtualTag> twin() const override;

  protected:
    void onFrame(std::span<const std::uint8_t> frame, AirAnswer& answer) override;
    void onReset() override { mPendingPage = -1; }

  private:
    bool isLocked(int page) const;
    bool isWritable(int page) const;
    std::uint8_t lockBits(std::uint8_t bits, std::size_t index) const;
    void read(int page, AirAnswer& answer);
    void write(int page, std::span<const std::uint8_t> data, AirAnswer& answer);

    TagMemory mMemory;
    int mPendingPage = -1;  ///< Page of a compatibility write that waits for its data.
};

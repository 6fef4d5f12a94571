#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// Decides whether a tag keeps its power while it writes to its memory.
class WritePower {
  public:
    virtual ~WritePower() = default;
    /// Asked before each write. @return none if the power lasts, else how many bytes reach the memory before it fails.
    virtual std::optional<std::size_t> bytesUntilPowerLoss() = 0;
};

/// What a tag remembers: apart from any reader, so that it survives a pulled plug and goes back to its image file byte
/// for byte. Every write of a tag passes through `write`.
class TagMemory {
  public:
    explicit TagMemory(std::vector<std::uint8_t> image) : mBytes(std::move(image)) {}

    std::size_t size() const { return mBytes.size(); }
    std::span<const std::uint8_t> bytes() const { return mBytes; }
    /// `count` bytes from `offset` on; both lie inside the memory.
    std::span<const std::uint8_t> at(std::size_t offset, std::size_t count) const {
        return bytes().subspan(offset, count);
    }

    /// One write of the tag. @return false if the power was lost on the way: the bytes before that point are stored.
    bool write(std::size_t offset, std::span<const std::uint8_t> data);
    /// Replaces the content from outside, as many bytes as there are. No write of the tag.
    void assign(std::span<const std::uint8_t> image) { std::copy_n(image.begin(), mBytes.size(), mBytes.begin()); }
    /// Writes seen so far, torn ones included.
    std::uint32_t writeCount() const { return mWriteCount; }

    /// Who decides on the power; null, the default, never loses it. Not owned.
    void setPower(WritePower* power) { mPower = power; }

  private:
    std::vector<std::uint8_t> mBytes;
    WritePower* mPower = nullptr;
    std::uint32_t mWriteCount = 0;
};

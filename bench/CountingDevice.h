#pragma once

#include "TamaDevice.h"

#include <cstdint>
#include <memory>
#include <utility>

/// What went over the line. A command is one frame of the host.
struct LineCount {
    std::uint64_t commands = 0;
    std::uint64_t bytes = 0;  ///< Both directions.
};

/// Counts what passes between the driver and another device.
class CountingDevice : public TamaDevice {
  public:
    /// `count` outlives the device.
    CountingDevice(std::unique_ptr<TamaDevice> device, LineCount& count) : mDevice(std::move(device)), mCount(count) {}

    std::int32_t OpenInterface(const char* name, std::uint32_t a, std::uint32_t b) override {
        return mDevice->OpenInterface(name, a, b);
    }
    std::int32_t CloseInterface() override { return mDevice->CloseInterface(); }
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                     std::uint32_t timeout) override {
        const std::int32_t result = mDevice->WriteBytesUnblocked(data, len, count, timeout);
        ++mCount.commands;
        mCount.bytes += *count;
        return result;
    }
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                    std::uint32_t timeout) override {
        const std::int32_t result = mDevice->ReadBytesUnBlocked(buffer, size, count, timeout);
        mCount.bytes += *count;
        return result;
    }
    void discardInput() override { mDevice->discardInput(); }

  private:
    std::unique_ptr<TamaDevice> mDevice;
    LineCount& mCount;
};

#pragma once

#include "Mf500Device.h"
#include "TamaDevice.h"

#include <cstdint>
#include <memory>
#include <utility>

/// What went over the line. A command is one frame or message of the host.
struct LineCount {
    std::uint64_t commands = 0;
    std::uint64_t bytes = 0;  ///< Both directions.
};

/// Counts what passes between a driver and another device. `count` outlives it.
class CountingDevice : public TamaDevice {
  public:
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
    bool isGone() override { return mDevice->isGone(); }

  private:
    std::unique_ptr<TamaDevice> mDevice;
    LineCount& mCount;
};

class CountingMf500Device : public Mf500Device {
  public:
    CountingMf500Device(std::unique_ptr<Mf500Device> device, LineCount& count)
        : mDevice(std::move(device)), mCount(count) {}

    bool open() override { return mDevice->open(); }
    void close() override { mDevice->close(); }
    platform::IoResult write(std::span<const std::uint8_t> message, std::uint32_t timeoutMs) override {
        ++mCount.commands;
        mCount.bytes += message.size();
        return mDevice->write(message, timeoutMs);
    }
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) override {
        const platform::IoResult result = mDevice->read(buffer, count, timeoutMs);
        mCount.bytes += count;
        return result;
    }

  private:
    std::unique_ptr<Mf500Device> mDevice;
    LineCount& mCount;
};

#pragma once

#include "TamaDevice.h"
#include "VirtualLine.h"
#include "VirtualTamaReader.h"

#include <cstdint>
#include <memory>
#include <optional>

/// The driver's device on a reader in this process. It stands for a serial line, whose reads have a time-out of their
/// own, or for a device path, whose reads have the given one. @see VirtualLine
class VirtualTamaDevice : public TamaDevice {
  public:
    static constexpr std::uint32_t kSerialTimeoutMs = 4000;

    explicit VirtualTamaDevice(std::shared_ptr<VirtualTamaReader> reader,
                               std::optional<std::uint32_t> ownTimeoutMs = kSerialTimeoutMs);

    std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) override;
    std::int32_t CloseInterface() override;
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                     std::uint32_t timeout) override;
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                    std::uint32_t timeout) override;
    void discardInput() override { mLine.discard(); }
    bool isGone() override { return mLine.isBroken(); }

  private:
    VirtualLine mLine;
    std::optional<std::uint32_t> mOwnTimeoutMs;
};

#pragma once

#include "Mf500Device.h"
#include "VirtualLine.h"
#include "VirtualMf500Reader.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

/// The driver's device on a reader in this process. @see VirtualLine
class VirtualMf500Device : public Mf500Device {
  public:
    explicit VirtualMf500Device(std::shared_ptr<VirtualMf500Reader> reader);

    bool open() override { return mLine.open(); }
    void close() override { mLine.close(); }
    platform::IoResult write(std::span<const std::uint8_t> message, std::uint32_t timeoutMs) override;
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) override;

  private:
    VirtualLine mLine;
};

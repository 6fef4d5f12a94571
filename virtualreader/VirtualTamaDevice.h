#pragma once

#include "TamaDevice.h"
#include "VirtualTamaReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>

/// A device in this process: one message is one frame. Time-outs are reported at once, without waiting. A reader that
/// is gone gives the general failure.
class VirtualTamaDevice : public TamaDevice, private ReaderSink, private ReaderWatcher {
  public:
    /// Made closed. The reader may serve one open device at a time.
    explicit VirtualTamaDevice(std::shared_ptr<VirtualTamaReader> reader);
    ~VirtualTamaDevice() override;
    VirtualTamaDevice(const VirtualTamaDevice&) = delete;
    VirtualTamaDevice& operator=(const VirtualTamaDevice&) = delete;

    std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) override;
    std::int32_t CloseInterface() override;
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                     std::uint32_t timeout) override;
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                    std::uint32_t timeout) override;
    void discardInput() override;
    bool isGone() override { return mBroken; }

  private:
    void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) override;
    void onBabble() override;
    void onQuiet() override;
    void onVanished() override;
    void onReturned() override;
    void dropFirst();

    static constexpr std::size_t kSlots = 8;
    static constexpr std::size_t kSlotBytes = 1024;
    struct Slot {
        std::size_t length = 0;  ///< Of the frame, which may be longer than what is kept of it.
        bool late = false;       ///< Waits for a time-out of the host.
        std::array<std::uint8_t, kSlotBytes> bytes;
    };

    std::shared_ptr<VirtualTamaReader> mReader;
    std::array<Slot, kSlots> mSlots;
    std::size_t mFirst = 0;
    std::size_t mCount = 0;
    std::uint64_t mBabblePosition = 0;
    bool mOpen = false;
    bool mBroken = false;  ///< The reader went away since the device was opened.
    bool mBabbling = false;
};

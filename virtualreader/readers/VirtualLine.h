#pragma once

#include "IoResult.h"
#include "VirtualReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

/// A host's end of a line to a reader in this process: one message is one frame. Nothing that comes is waited for: a
/// reader answers at once or not at all, and then the time-out passes on the current clock. A reader that is gone gives
/// failures from then on.
class VirtualLine : private ReaderSink, private ReaderWatcher {
  public:
    /// Made closed. The reader may serve one open line at a time.
    explicit VirtualLine(std::shared_ptr<VirtualReader> reader);
    ~VirtualLine() override;
    VirtualLine(const VirtualLine&) = delete;
    VirtualLine& operator=(const VirtualLine&) = delete;

    /// False while the reader is unplugged.
    bool open();
    void close();
    /// The reader went away since the line was opened.
    bool isBroken() const;

    platform::IoResult write(std::span<const std::uint8_t> message);
    /// `count` gets the length of the message, which is above buffer.size() for one that did not fit and was not
    /// copied.
    platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs);
    /// Drops what has come and was not read.
    void discard();

  private:
    void onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) override;
    void onBabble() override;
    void onQuiet() override;
    void onVanished() override;
    void onReturned() override;
    platform::IoResult take(std::span<std::uint8_t> buffer, std::size_t& count);
    void dropFirst();

    static constexpr std::size_t kSlots = 8;
    static constexpr std::size_t kSlotBytes = 2048;
    struct Slot {
        std::size_t length = 0;  ///< Of the frame, which may be longer than what is kept of it.
        bool late = false;       ///< Waits for a time-out of the host.
        std::array<std::uint8_t, kSlotBytes> bytes;
    };

    std::shared_ptr<VirtualReader> mReader;
    std::array<Slot, kSlots> mSlots;
    std::size_t mFirst = 0;
    std::size_t mCount = 0;
    std::uint64_t mBabblePosition = 0;
    bool mOpen = false;
    bool mBroken = false;
    bool mBabbling = false;
};

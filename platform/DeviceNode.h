#pragma once

#include "IoResult.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace platform {

/// A device that moves whole messages: one message written is one frame, one message read is one frame.
///
/// What an implementation owes: opening never blocks, never takes a controlling terminal, never keeps one of the three
/// standard descriptors and is not inherited by child processes; a peer that has closed is told apart from an empty
/// message and from silence, at once; in a forked child the node of its parent neither reads nor writes.
class DeviceNode {
  public:
    DeviceNode() = default;
    ~DeviceNode();
    DeviceNode(const DeviceNode&) = delete;
    DeviceNode& operator=(const DeviceNode&) = delete;

    /// Opens the device at `path`, a NUL-terminated path of the system. An open node is closed first.
    bool open(const char* path);
    bool isOpen() const { return mDescriptor >= 0; }
    void close();

    /// Reads one message of at most buffer.size() bytes; a longer one is cut there. `count` is set in every case.
    IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs);
    /// Writes `data` as one message.
    IoResult write(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs);

  private:
    IoResult readSocket(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs);
    IoResult readNode(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs);
    IoResult writeSocket(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs);
    IoResult writeNode(std::span<const std::uint8_t> data, std::size_t& count, std::uint32_t timeoutMs);
    void limitSocket(int option, std::uint32_t timeoutMs, std::uint32_t& current);

    int mDescriptor = -1;
    std::uint32_t mGeneration = 0;  // of the process that opened it
    bool mIsSocket = false;
    std::uint32_t mReadLimitMs = 0;
    std::uint32_t mWriteLimitMs = 0;
};

}  // namespace platform

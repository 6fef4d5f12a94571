#pragma once

#include "IoResult.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>

/// What carries whole messages between the library of an MF RC500 reader and the reader. Made closed; one thread at a
/// time. The destructor of an implementation releases the device.
class Mf500Device {
  public:
    virtual ~Mf500Device() = default;

    /// Finds and opens the reader; an open device is closed first.
    virtual bool open() = 0;
    virtual void close() = 0;
    /// Writes a message: one command.
    virtual platform::IoResult write(std::span<const std::uint8_t> message, std::uint32_t timeoutMs) = 0;
    /// Reads a message, one reply, of at most buffer.size() bytes; a longer one is cut there. `count` is set in every
    /// case.
    virtual platform::IoResult read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) = 0;
};

using Mf500DeviceFactory = std::function<std::unique_ptr<Mf500Device>()>;

/// Makes the device, closed: the first one of the reader's interface classes, unless a test has put another factory in
/// place.
std::unique_ptr<Mf500Device> makeMf500Device();
/// Puts another factory in place; an empty one restores the search. Not while a driver opens its device.
void setMf500DeviceFactory(Mf500DeviceFactory factory);

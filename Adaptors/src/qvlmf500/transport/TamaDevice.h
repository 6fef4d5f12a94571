#pragma once

#include "IoResult.h"

#include <cstdint>

/// Status values of the device level, signed 32 bits in the style of HRESULT: negative is failure.
enum DeviceStatus : std::int32_t {
    kDeviceOk = 0,
    kDeviceTimedOut = 0x03EA0001,                            ///< 65667073: a read timed out; `count` holds what came.
    kDeviceFailed = static_cast<std::int32_t>(0x80004005u),  ///< An open, read or write failed.
    kDeviceBadArgument = static_cast<std::int32_t>(0x80070057u),  ///< The buffer is smaller than the frame.
};

constexpr std::int32_t toDeviceStatus(platform::IoResult result) {
    if (result == platform::IoResult::done) return kDeviceOk;
    return result == platform::IoResult::timedOut ? kDeviceTimedOut : kDeviceFailed;
}

/// What carries whole frames between the TAMA driver and its reader. Made closed; one thread at a time. The destructor
/// of an implementation releases the device.
class TamaDevice {
  public:
    virtual ~TamaDevice() = default;

    /// Opens the device of this name. The two further arguments are always 0.
    virtual std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) = 0;
    virtual std::int32_t CloseInterface() = 0;
    /// Writes one frame of `len` bytes; `count` gets what was written. `timeout` in milliseconds.
    virtual std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                             std::uint32_t timeout) = 0;
    /// Reads one frame of at most `size` bytes; `count` gets its length, which is above `size` for a frame that did not
    /// fit and was not copied.
    virtual std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                            std::uint32_t timeout) = 0;

    /// Drops what has come and was not read. Waits for nothing, and ends even where input comes without end.
    virtual void discardInput() {}
    /// True once the other end is known to be gone: nothing more will come until the next open.
    virtual bool isGone() { return false; }
};

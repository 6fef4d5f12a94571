#pragma once

#include "Qvl14443bfl.h"
#include "USBFileIO.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>

using GetCurrentDevInstID = int (*)(char* buffer, int size, std::uint16_t* length);

/// A reader as a device scan finds it.
struct FoundReader {
    BflType kind = BflTypeMf500;
    std::string path;  ///< Empty: the driver finds its device by itself.

    bool operator==(const FoundReader&) const = default;
    /// Whether it is on a serial port, here without its baud rate; empty if not.
    std::string serialPort() const;
    /// The settings or the device root name its serial port.
    bool isNamed() const;
    /// A new driver for it, or the one that all adaptors share, with the path as its device name.
    std::shared_ptr<Qvl14443bfl> makeDriver() const;
    /// What tells the instance id of its device: an operation of a helper library. Null without one.
    GetCurrentDevInstID findInstanceHelper() const;
};

/// Which reader is attached. Under the reader lock.
class DeviceScan {
  public:
    /// Why a scan is asked for.
    enum Event : int { kStartAnew = 0, kDeviceEvent1 = 1, kDeviceEvent2 = 2, kAfterFailedInit = 3 };

    /// @return the reader, or nothing when no scan is due: scans are at least 500 ms apart, and after a failed start
    /// one runs only when a device event has come since the last start anew.
    std::optional<FoundReader> run(int event);

  private:
    FoundReader choose(int status) const;

    USBFileIO mUSBFileIO;
    bool mHasRun = false;
};

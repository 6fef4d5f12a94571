#pragma once

#include <array>
#include <cstdint>

/// Finds out which reader is attached and how to reach it. Keeps what it finds in a table of 32 entries; opens nothing.
/// One caller at a time.
class USBFileIO {
  public:
    /// One device. An entry keeps its path when the device goes away, so that a device that comes back finds it.
    struct DeviceInfo {
        char path[255];         ///< Device path, or "COM%d;%d" for the serial fallback; empty for a free entry.
        char instanceId[257];   ///< How the system names the device; empty for the serial fallback.
        std::uint32_t present;  ///< 1 if the last scan saw the device.
        std::uint32_t isTama;   ///< 1 for a TAMA reader, 0 for an MF RC500 reader.
    };
    static constexpr std::size_t kEntries = 32;

    USBFileIO();

    /// Asks the five interface classes in order and takes the devices of the first class that has one; with none, the
    /// serial port of the settings, or nothing if they say SERIAL_FALLBACK=0. Skips paths above 254 characters, and
    /// with a log line each what is neither a socket nor a character device.
    /// @return 0, or the system's error number when a class cannot be read.
    int scanForDevices();

    std::array<DeviceInfo, kEntries> deviceInfo;

  private:
    std::size_t nextIndex() const;
    bool scanClass(std::size_t classIndex, std::size_t next, int& error);
    void takeDevice(const char* path, const char* instanceId, std::size_t devIndex, std::size_t next, bool isTama);
    void takeSerialPort(std::size_t next);
    DeviceInfo* find(const char* path);

    std::array<const char*, 5> pGuid;
};

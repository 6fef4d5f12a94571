#pragma once

#include "ManualResetEvent.h"
#include "SerialLine.h"

#include <cstdint>
#include <memory>

/// A caller's own record for one read, write or wait. The call is over when the event is set.
struct SerialOverlapped {
    platform::ManualResetEvent* event = nullptr;
};

/// One serial port. Operations with a status return mLastError: 0, one of the values below, or the system's error
/// number. Calls on one port must not overlap. Never logs.
class SerialPort {
  public:
    static constexpr std::uint32_t kSuccess = 0;
    static constexpr std::uint32_t kInvalidFunction = 1;        ///< Overlapped arguments on a port opened without.
    static constexpr std::uint32_t kNotOpen = 6;                ///< The port is not open.
    static constexpr std::uint32_t kAlreadyOpen = 1247;         ///< open on an open port.
    static constexpr std::uint32_t kTimeout = 1460;             ///< The time-out went by first.
    static constexpr std::uint32_t kUnknownMode = 0x80070057u;  ///< Unknown mode of handshaking or read time-outs.

    static constexpr std::uint32_t kNoLimit = 0xFFFFFFFFu;  ///< As a time-out in ms: wait as long as it takes.

    SerialPort() = default;
    virtual ~SerialPort();
    SerialPort(const SerialPort&) = delete;
    SerialPort& operator=(const SerialPort&) = delete;

    /// Opens `name` ("COM<n>" or a path) for this process alone, with reads that return at once. With `overlapped`,
    /// reads, writes and waits take a time-out. The queue sizes are a wish that this system has no use for.
    virtual std::uint32_t open(const char* name, std::uint32_t inQueue, std::uint32_t outQueue, bool overlapped);
    /// 0 also for a closed port.
    virtual std::uint32_t close();
    /// `stopBits` 0 is one stop bit; `parity` 0 is none. The driver of the port decides about the baud rate.
    virtual std::uint32_t setup(std::uint32_t baudRate, int dataBits, int parity, int stopBits);
    /// With `adjustMask` the event mask gains the bit of the event character.
    virtual std::uint32_t setEventChar(std::uint8_t character, bool adjustMask);
    virtual std::uint32_t setMask(std::uint32_t mask);
    /// Waits for an event of the mask.
    virtual std::uint32_t waitEvent(SerialOverlapped* overlapped, std::uint32_t timeout);
    /// 0 off, 1 hardware, 2 software.
    virtual std::uint32_t setHandshaking(int mode);
    /// 0: a read returns at once with what is there. 1: a read waits for all that it was asked for.
    virtual std::uint32_t setReadTimeouts(int mode);

    /// As the line stands; -1 on failure.
    virtual std::int32_t getBaudrate();
    virtual std::int32_t getDataBits();
    virtual std::int32_t getParity();
    virtual std::int32_t getStopBits();
    virtual std::int32_t getHandshaking();
    /// 0 on a closed port.
    virtual std::uint32_t getEventMask();
    virtual std::uint8_t getEventChar();

    /// `written` and `got` may be null. `timeout` in ms; on a port without overlapped I/O it must be kNoLimit and
    /// `overlapped` null.
    virtual std::uint32_t writeString(const char* text, std::uint32_t* written, SerialOverlapped* overlapped,
                                      std::uint32_t timeout);
    virtual std::uint32_t write(const std::uint8_t* data, std::uint32_t len, std::uint32_t* written,
                                SerialOverlapped* overlapped, std::uint32_t timeout);
    virtual std::uint32_t read(std::uint8_t* buffer, std::uint32_t len, std::uint32_t* got,
                               SerialOverlapped* overlapped, std::uint32_t timeout);

    /// Drops what has arrived and what waits to be sent.
    std::uint32_t purge();
    /// Takes one byte without asking the system. @return false if none has been fetched.
    bool takeBuffered(std::uint8_t& byte) { return mHandle && mHandle->takeBuffered(byte); }
    /// Waits at most `ms` for a byte, and no longer than until it comes. kTimeout if none came; any other failure means
    /// that the line is gone.
    std::uint32_t waitForByte(std::uint32_t ms);

  private:
    bool begin();
    bool beginTransfer(std::uint32_t& count, const SerialOverlapped* overlapped, std::uint32_t timeout);
    std::uint32_t endTransfer(platform::IoResult result, const SerialOverlapped* overlapped);
    std::uint32_t fail(int systemError);
    platform::IoResult readAll(std::span<std::uint8_t> buffer, std::uint32_t& got, std::uint32_t timeout);
    bool lineSettings(platform::LineSettings& out);

    std::uint32_t mLastError = 0;
    std::unique_ptr<platform::SerialLine> mHandle;  // null when closed
    std::uint32_t mEvents = 0;
    std::uint32_t mEventMask = 0;
    std::unique_ptr<platform::ManualResetEvent> mIoEvent;  // only on a port with overlapped I/O
    bool mReadsWait = false;
};

#pragma once

#include "SerialPort.h"
#include "TamaDevice.h"
#include "TamaFrameAssembler.h"

#include <cstdint>

/// A reader on a serial line: 8 data bits, no parity, 1 stop bit, no flow control. Frames are put together from single
/// bytes; a read ends 3 to 4 seconds after its start, whatever the given time-out.
class TamaSerialDevice : public TamaDevice {
  public:
    /// `assembler` stays the caller's and outlives the device.
    TamaSerialDevice(TamaFrameAssembler& assembler, std::uint32_t baudRate);
    ~TamaSerialDevice() override;

    std::int32_t OpenInterface(const char* name, std::uint32_t, std::uint32_t) override;
    std::int32_t CloseInterface() override;
    std::int32_t WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                     std::uint32_t timeout) override;
    std::int32_t ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                    std::uint32_t timeout) override;
    void discardInput() override;
    bool isGone() override { return mIsGone; }

  private:
    std::int32_t collectFrame();
    void dropBuffered();

    std::uint32_t mBaudRate;
    SerialPort mSerialPort;
    TamaFrameAssembler* mFrameAssembler;
    bool mIsGone = false;
};

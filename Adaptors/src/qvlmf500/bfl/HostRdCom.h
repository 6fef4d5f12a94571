#pragma once

#include "Mf500Device.h"
#include "SecretBytes.h"

#include <cstddef>
#include <cstdint>
#include <memory>

/// The closed library of an MF RC500 reader: commands as objects, a protocol that carries them, and the interface to
/// the device. The driver knows these operations and nothing of the messages.
///
/// This implementation speaks one message a command to the first device of the reader's interface classes: command code
/// and command buffer out; status, 16 bits signed, and data buffer back. Words and longs travel low byte first.

/// One command and its reply. Results are 0; -60 when a buffer is full, -1012 when too little is left to read.
class CommandObject {
  public:
    /// A block of 4096 bytes with what stands around it: length, CRC and time-out, or the next key.
    static constexpr std::size_t kBufferSize = 4096 + 64;

    CommandObject();
    virtual ~CommandObject();
    static void* operator new(std::size_t size);
    static void operator delete(void* object);

    /// Empties both buffers.
    void ResetBuffers();
    void SetCommand(std::uint8_t code) { mCode = code; }
    std::uint8_t GetCommand() const { return mCode; }

    short AddParam(const std::uint8_t& byte);
    short AddParam(const std::uint16_t& word);
    short AddParam(const std::uint32_t& number);
    short AddParam(const std::uint8_t* data, const std::uint32_t& length);
    const std::uint8_t* GetCommandBuffer() const { return mCommand.data(); }
    std::uint32_t GetCommandBufferLength() const { return mCommandLength; }

    const std::uint8_t* GetDataBuffer() const { return mData.data(); }
    std::uint32_t GetDataBufferLength() const { return mDataLength; }
    short SetDataBuffer(const std::uint8_t* data, const std::uint32_t& length);
    /// The next bytes of the reply.
    short GetParam(std::uint8_t* out, const std::uint32_t& length);
    short GetParam(std::uint16_t& word);
    std::int32_t GetStatus() const { return mStatus; }

  private:
    friend class USBProtocol;

    SecretBytes<kBufferSize> mCommand, mData;
    std::uint32_t mCommandLength = 0, mDataLength = 0;
    std::uint32_t mRead = 0;  // of the data buffer
    std::int32_t mStatus = 0;
    std::uint8_t mCode = 0;
};

class USB {
  public:
    USB();
    virtual ~USB();
    static void* operator new(std::size_t size);
    static void operator delete(void* object);

    /// Finds and opens the first reader. @return 0, or -1001.
    virtual short OpenInterface();
    virtual short CloseInterface();

  private:
    friend class USBProtocol;
    std::unique_ptr<Mf500Device> mDevice;
};

/// Lives no longer than the interface that it was made for. Times are milliseconds.
class USBProtocol {
  public:
    explicit USBProtocol(USB& usb);
    virtual ~USBProtocol();
    static void* operator new(std::size_t size);
    static void operator delete(void* object);

    /// Sends the command, waits for the reply and fills in status and data. @return 0; -1001 when the link failed or
    /// closed, -1027 after a time-out, -1012 for a reply without a status or longer than the buffer. What has come
    /// before the command is dropped. A command in which the reader itself waits for a tag has a minute more.
    virtual short SendCommand(CommandObject& command, std::uint32_t txTimeout, std::uint32_t rxTimeout);
    /// Waits for a further reply, without a command; else as SendCommand. 0 takes only what is there.
    virtual short ReceiveReply(CommandObject& command, std::uint32_t rxTimeout);
    virtual void SetRxTimeout(std::uint32_t timeout) { mRxTimeout = timeout; }
    virtual void SetTxTimeout(std::uint32_t timeout) { mTxTimeout = timeout; }

  private:
    void dropLeftOvers();

    USB& mUSB;
    std::uint32_t mRxTimeout = 0, mTxTimeout = 0;
};

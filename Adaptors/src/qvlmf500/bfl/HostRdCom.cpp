#include "HostRdCom.h"

#include "BflStatus.h"

#include <algorithm>
#include <array>
#include <new>

namespace {

constexpr std::size_t kStatusSize = 2;
constexpr int kMostLeftOvers = 64;  // a device that is never silent
constexpr std::uint8_t kActivateIdleLoop = 0x49;
constexpr std::uint32_t kLongestLoopMs = 60000;

short toStatus(platform::IoResult result) {
    switch (result) {
    case platform::IoResult::done:
        return kBflOk;
    case platform::IoResult::timedOut:
        return kBflDeviceTimedOut;
    case platform::IoResult::failed:
        break;
    }
    return kBflDeviceFailed;
}

}  // namespace

CommandObject::CommandObject() = default;
CommandObject::~CommandObject() = default;
void* CommandObject::operator new(std::size_t size) { return ::operator new(size); }
void CommandObject::operator delete(void* object) { ::operator delete(object); }

void CommandObject::ResetBuffers() {
    std::fill_n(mCommand.data(), mCommandLength, std::uint8_t{0});
    std::fill_n(mData.data(), mDataLength, std::uint8_t{0});
    mCommandLength = mDataLength = mRead = 0;
}

short CommandObject::AddParam(const std::uint8_t* data, const std::uint32_t& length) {
    if (length > kBufferSize - mCommandLength) return kBflOutOfRange;
    std::copy_n(data, length, mCommand.data() + mCommandLength);
    mCommandLength += length;
    return kBflOk;
}

short CommandObject::AddParam(const std::uint8_t& byte) { return AddParam(&byte, 1); }

short CommandObject::AddParam(const std::uint16_t& word) {
    const std::uint8_t bytes[] = {static_cast<std::uint8_t>(word), static_cast<std::uint8_t>(word >> 8)};
    return AddParam(bytes, sizeof bytes);
}

short CommandObject::AddParam(const std::uint32_t& number) {
    const std::uint8_t bytes[] = {static_cast<std::uint8_t>(number), static_cast<std::uint8_t>(number >> 8),
                                  static_cast<std::uint8_t>(number >> 16), static_cast<std::uint8_t>(number >> 24)};
    return AddParam(bytes, sizeof bytes);
}

short CommandObject::SetDataBuffer(const std::uint8_t* data, const std::uint32_t& length) {
    if (length > kBufferSize) return kBflOutOfRange;
    std::copy_n(data, length, mData.data());
    mDataLength = length;
    mRead = 0;
    return kBflOk;
}

short CommandObject::GetParam(std::uint8_t* out, const std::uint32_t& length) {
    if (length > mDataLength - mRead) return kBflBadFrame;
    std::copy_n(mData.data() + mRead, length, out);
    mRead += length;
    return kBflOk;
}

short CommandObject::GetParam(std::uint16_t& word) {
    std::uint8_t bytes[2];
    if (const short status = GetParam(bytes, sizeof bytes); status != kBflOk) return status;
    word = static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
    return kBflOk;
}

USB::USB() : mDevice(makeMf500Device()) {}
USB::~USB() = default;
void* USB::operator new(std::size_t size) { return ::operator new(size); }
void USB::operator delete(void* object) { ::operator delete(object); }

short USB::OpenInterface() { return mDevice->open() ? kBflOk : kBflDeviceFailed; }

short USB::CloseInterface() {
    mDevice->close();
    return kBflOk;
}

USBProtocol::USBProtocol(USB& usb) : mUSB(usb) {}
USBProtocol::~USBProtocol() = default;
void* USBProtocol::operator new(std::size_t size) { return ::operator new(size); }
void USBProtocol::operator delete(void* object) { ::operator delete(object); }

void USBProtocol::dropLeftOvers() {
    std::uint8_t scrap[64];
    std::size_t count = 0;
    for (int i = 0; i < kMostLeftOvers && mUSB.mDevice->read(scrap, count, 0) == platform::IoResult::done; ++i) {
    }
}

short USBProtocol::SendCommand(CommandObject& command, std::uint32_t txTimeout, std::uint32_t rxTimeout) {
    dropLeftOvers();
    const std::size_t length = 1 + std::size_t{command.mCommandLength};
    std::array<std::uint8_t, 1 + CommandObject::kBufferSize> message;
    const WipedAtEnd wiped(message.data(), length);
    message[0] = command.mCode;
    std::copy_n(command.mCommand.data(), command.mCommandLength, message.data() + 1);
    const platform::IoResult sent =
        mUSB.mDevice->write({message.data(), length}, txTimeout != 0 ? txTimeout : mTxTimeout);
    const std::uint32_t limit =
        (rxTimeout != 0 ? rxTimeout : mRxTimeout) + (command.mCode == kActivateIdleLoop ? kLongestLoopMs : 0);
    return sent == platform::IoResult::done ? ReceiveReply(command, limit) : toStatus(sent);
}

short USBProtocol::ReceiveReply(CommandObject& command, std::uint32_t rxTimeout) {
    std::array<std::uint8_t, kStatusSize + CommandObject::kBufferSize + 1> message;
    std::size_t count = 0;
    const platform::IoResult result = mUSB.mDevice->read(message, count, rxTimeout);
    const WipedAtEnd wiped(message.data(), count);
    if (result != platform::IoResult::done) return toStatus(result);
    if (count < kStatusSize || count == message.size()) return kBflBadFrame;
    command.mStatus = static_cast<std::int16_t>(message[0] | message[1] << 8);
    return command.SetDataBuffer(message.data() + kStatusSize, static_cast<std::uint32_t>(count - kStatusSize));
}

#include "HostRdCom.h"

#include "BflStatus.h"
#include "Clock.h"
#include "Devices.h"
#include "ReaderClasses.h"

#include <algorithm>
#include <new>
#include <vector>

namespace {

constexpr std::size_t kStatusSize = 2;

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

USB::USB() = default;
USB::~USB() = default;
void* USB::operator new(std::size_t size) { return ::operator new(size); }
void USB::operator delete(void* object) { ::operator delete(object); }

short USB::OpenInterface() {
    for (const ReaderClass& readerClass : kReaderClasses) {
        std::vector<platform::DeviceInterface> devices;
        if (readerClass.isTama || platform::listDeviceInterfaces(readerClass.guid, devices) != 0) continue;
        if (!devices.empty()) return mNode.open(devices[0].path.c_str()) ? kBflOk : kBflDeviceFailed;
    }
    return kBflDeviceFailed;
}

short USB::CloseInterface() {
    mNode.close();
    return kBflOk;
}

USBProtocol::USBProtocol(USB& usb) : mUSB(usb) {}
USBProtocol::~USBProtocol() = default;
void* USBProtocol::operator new(std::size_t size) { return ::operator new(size); }
void USBProtocol::operator delete(void* object) { ::operator delete(object); }

void USBProtocol::dropLeftOvers() {
    constexpr std::uint32_t kQuietMs = 20, kLongestMs = 500;
    platform::Clock& clock = platform::Clock::current();
    const std::uint64_t start = clock.nowMs();
    std::uint8_t scrap[64];
    std::size_t count = 0;
    while (clock.nowMs() - start < kLongestMs && mUSB.mNode.read(scrap, count, kQuietMs) == platform::IoResult::done) {
    }
    mInputStale = false;
}

short USBProtocol::SendCommand(CommandObject& command, std::uint32_t txTimeout, std::uint32_t rxTimeout) {
    if (mInputStale) dropLeftOvers();
    SecretBytes<1 + CommandObject::kBufferSize> message;
    message[0] = command.mCode;
    std::copy_n(command.mCommand.data(), command.mCommandLength, message.data() + 1);
    std::size_t count = 0;
    const platform::IoResult sent = mUSB.mNode.write({message.data(), 1 + std::size_t{command.mCommandLength}}, count,
                                                     txTimeout != 0 ? txTimeout : mTxTimeout);
    const short status = sent == platform::IoResult::done ? receive(command, rxTimeout) : toStatus(sent);
    mInputStale = status != kBflOk;
    return status;
}

short USBProtocol::receive(CommandObject& command, std::uint32_t timeout) {
    SecretBytes<kStatusSize + CommandObject::kBufferSize> message;
    std::size_t count = 0;
    const platform::IoResult result =
        mUSB.mNode.read({message.data(), message.size()}, count, timeout != 0 ? timeout : mRxTimeout);
    if (result != platform::IoResult::done) return toStatus(result);
    if (count < kStatusSize) return kBflBadFrame;
    command.mStatus = static_cast<std::int16_t>(message[0] | message[1] << 8);
    return command.SetDataBuffer(message.data() + kStatusSize, static_cast<std::uint32_t>(count - kStatusSize));
}

#include "TamaSerialDevice.h"

#include "Clock.h"

namespace {

constexpr std::uint32_t kWaitForByteMs = 100;
constexpr std::uint64_t kReadLimitSeconds = 3;
constexpr std::size_t kScratchSize = 512;

std::uint64_t wholeSeconds() { return platform::Clock::current().nowMs() / 1000; }

}  // namespace

TamaSerialDevice::TamaSerialDevice(TamaFrameAssembler& assembler, std::uint32_t baudRate)
    : mBaudRate(baudRate), mFrameAssembler(&assembler) {}

TamaSerialDevice::~TamaSerialDevice() { mSerialPort.close(); }

std::int32_t TamaSerialDevice::OpenInterface(const char* name, std::uint32_t, std::uint32_t) {
    mIsGone = false;
    if (mSerialPort.open(name, 0, 0, true) != 0) return kDeviceFailed;
    if (mSerialPort.setup(mBaudRate, 8, 0, 0) != 0) return kDeviceFailed;
    mSerialPort.purge();
    return mSerialPort.setHandshaking(0) == 0 ? kDeviceOk : kDeviceFailed;
}

std::int32_t TamaSerialDevice::CloseInterface() {
    dropBuffered();
    mSerialPort.close();
    return kDeviceOk;
}

std::int32_t TamaSerialDevice::WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                                   std::uint32_t timeout) {
    const auto size = static_cast<std::uint32_t>(len);
    const std::uint32_t status = mSerialPort.write(data, size, count, nullptr, timeout);
    if (status == SerialPort::kSuccess) return kDeviceOk;
    mIsGone = status != SerialPort::kTimeout;
    return kDeviceFailed;
}

std::int32_t TamaSerialDevice::ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count, std::uint32_t) {
    *count = 0;
    const std::int32_t result = collectFrame();
    bool bad = false;
    mFrameAssembler->hasBadHeader(&bad);
    if (!bad) {
        mFrameAssembler->copyFrame(buffer, static_cast<std::uint32_t>(size));
        mFrameAssembler->frameLength(count);
    }
    mFrameAssembler->reset();
    return result;
}

std::int32_t TamaSerialDevice::collectFrame() {
    const std::uint64_t start = wholeSeconds();
    bool timedOut = false;
    for (bool more = true; more && !timedOut;) {
        std::uint8_t byte = 0;
        if (!mSerialPort.takeBuffered(byte)) {  // only a wait takes time, so only a wait asks for it
            const std::uint32_t waited = mSerialPort.waitForByte(kWaitForByteMs);
            mIsGone = waited != SerialPort::kSuccess && waited != SerialPort::kTimeout;
            if (mIsGone) return kDeviceFailed;
            timedOut = wholeSeconds() - start > kReadLimitSeconds;
            if (!mSerialPort.takeBuffered(byte)) continue;
        }
        if (mFrameAssembler->appendByte(byte) != kDeviceOk) return kDeviceFailed;
        mFrameAssembler->needsMoreBytes(&more);
    }
    return timedOut ? kDeviceTimedOut : kDeviceOk;
}

void TamaSerialDevice::dropBuffered() {
    std::uint8_t scratch[kScratchSize];
    std::uint32_t got = 0;
    mSerialPort.read(scratch, kScratchSize, &got, nullptr, SerialPort::kNoLimit);
}

void TamaSerialDevice::discardInput() { mSerialPort.purge(); }

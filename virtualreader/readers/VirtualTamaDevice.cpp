#include "VirtualTamaDevice.h"

#include <utility>

VirtualTamaDevice::VirtualTamaDevice(std::shared_ptr<VirtualTamaReader> reader,
                                     std::optional<std::uint32_t> ownTimeoutMs)
    : mLine(std::move(reader)), mOwnTimeoutMs(ownTimeoutMs) {}

std::int32_t VirtualTamaDevice::OpenInterface(const char*, std::uint32_t, std::uint32_t) {
    return mLine.open() ? kDeviceOk : kDeviceFailed;
}

std::int32_t VirtualTamaDevice::CloseInterface() {
    mLine.close();
    return kDeviceOk;
}

std::int32_t VirtualTamaDevice::WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                                    std::uint32_t) {
    *count = 0;
    if (len < 0) return kDeviceBadArgument;
    const platform::IoResult result = mLine.write({data, static_cast<std::size_t>(len)});
    if (result == platform::IoResult::done) *count = static_cast<std::uint32_t>(len);
    return toDeviceStatus(result);
}

std::int32_t VirtualTamaDevice::ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                                   std::uint32_t timeout) {
    *count = 0;
    if (size < 0) return kDeviceBadArgument;
    std::size_t got = 0;
    const platform::IoResult result =
        mLine.read({buffer, static_cast<std::size_t>(size)}, got, mOwnTimeoutMs.value_or(timeout));
    *count = static_cast<std::uint32_t>(got);
    return toDeviceStatus(result);
}

#include "TamaFileDevice.h"

namespace {

std::int32_t toDeviceStatus(platform::IoResult result) {
    switch (result) {
    case platform::IoResult::done:
        return kDeviceOk;
    case platform::IoResult::timedOut:
        return kDeviceTimedOut;
    case platform::IoResult::failed:
        break;
    }
    return kDeviceFailed;
}

}  // namespace

std::int32_t TamaFileDevice::OpenInterface(const char* name, std::uint32_t, std::uint32_t) {
    return mHandle.open(name) ? kDeviceOk : kDeviceFailed;
}

std::int32_t TamaFileDevice::CloseInterface() {
    mHandle.close();
    return kDeviceOk;
}

std::int32_t TamaFileDevice::WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                                 std::uint32_t timeout) {
    std::size_t written = 0;
    const platform::IoResult result = mHandle.write({data, static_cast<std::size_t>(len)}, written, timeout);
    *count = static_cast<std::uint32_t>(written);
    return toDeviceStatus(result);
}

std::int32_t TamaFileDevice::ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                                std::uint32_t timeout) {
    std::size_t got = 0;
    const platform::IoResult result = mHandle.read({buffer, static_cast<std::size_t>(size)}, got, timeout);
    *count = static_cast<std::uint32_t>(got);
    return toDeviceStatus(result);
}

#include "TamaFileDevice.h"

#include "Installation.h"

std::int32_t TamaFileDevice::noted(platform::IoResult result) {
    mIsGone = mIsGone || result == platform::IoResult::failed;
    return toDeviceStatus(result);
}

std::int32_t TamaFileDevice::OpenInterface(const char* name, std::uint32_t, std::uint32_t) {
    mIsGone = false;
    // The default name is one of another system; a path of this system stays as it is.
    const bool isForeign = name[0] == '\\';
    return mHandle.open(isForeign ? platform::toSystemPath(name).c_str() : name) ? kDeviceOk : kDeviceFailed;
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
    return noted(result);
}

std::int32_t TamaFileDevice::ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                                std::uint32_t timeout) {
    std::size_t got = 0;
    const platform::IoResult result = mHandle.read({buffer, static_cast<std::size_t>(size)}, got, timeout);
    *count = static_cast<std::uint32_t>(got);
    return noted(result);
}

void TamaFileDevice::discardInput() {
    constexpr int kMostMessages = 1024;
    std::uint8_t scrap[64];
    std::size_t got = 0;
    for (int i = 0; i < kMostMessages && mHandle.read(scrap, got, 0) == platform::IoResult::done; ++i) {
    }
}

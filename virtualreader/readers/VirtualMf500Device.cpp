#include "VirtualMf500Device.h"

#include <algorithm>
#include <utility>

VirtualMf500Device::VirtualMf500Device(std::shared_ptr<VirtualMf500Reader> reader) : mLine(std::move(reader)) {}

platform::IoResult VirtualMf500Device::write(std::span<const std::uint8_t> message, std::uint32_t) {
    return mLine.write(message);
}

platform::IoResult VirtualMf500Device::read(std::span<std::uint8_t> buffer, std::size_t& count,
                                            std::uint32_t timeoutMs) {
    const platform::IoResult result = mLine.read(buffer, count, timeoutMs);
    count = std::min(count, buffer.size());
    return result;
}

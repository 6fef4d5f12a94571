#include "VirtualTamaDevice.h"

#include <algorithm>
#include <utility>

VirtualTamaDevice::VirtualTamaDevice(std::shared_ptr<VirtualTamaReader> reader) : mReader(std::move(reader)) {}

VirtualTamaDevice::~VirtualTamaDevice() { VirtualTamaDevice::CloseInterface(); }

std::int32_t VirtualTamaDevice::OpenInterface(const char*, std::uint32_t, std::uint32_t) {
    const auto held = mReader->field().lock();
    CloseInterface();
    if (!mReader->isPresent()) return kDeviceFailed;
    mOpen = true;
    mReader->connect(this);
    mReader->watch(*this);
    return kDeviceOk;
}

std::int32_t VirtualTamaDevice::CloseInterface() {
    const auto held = mReader->field().lock();
    if (mOpen) {
        mReader->connect(nullptr);
        mReader->unwatch(*this);
    }
    mOpen = mBroken = mBabbling = false;
    mCount = 0;
    return kDeviceOk;
}

std::int32_t VirtualTamaDevice::WriteBytesUnblocked(const std::uint8_t* data, int len, std::uint32_t* count,
                                                    std::uint32_t) {
    const auto held = mReader->field().lock();
    *count = 0;
    if (!mOpen || mBroken) return kDeviceFailed;
    if (len < 0) return kDeviceBadArgument;
    mReader->receive({data, static_cast<std::size_t>(len)});
    *count = static_cast<std::uint32_t>(len);
    return kDeviceOk;
}

std::int32_t VirtualTamaDevice::ReadBytesUnBlocked(std::uint8_t* buffer, int size, std::uint32_t* count,
                                                   std::uint32_t) {
    const auto held = mReader->field().lock();
    *count = 0;
    if (!mOpen) return kDeviceFailed;
    if (size < 0) return kDeviceBadArgument;
    const auto capacity = static_cast<std::size_t>(size);
    if (mCount != 0 && !mSlots[mFirst].late) {
        const Slot& slot = mSlots[mFirst];
        if (slot.length <= std::min(capacity, kSlotBytes)) std::copy_n(slot.bytes.begin(), slot.length, buffer);
        *count = static_cast<std::uint32_t>(slot.length);
        dropFirst();
        return kDeviceOk;
    }
    if (mBroken) return kDeviceFailed;
    if (mBabbling) {
        for (std::size_t i = 0; i < capacity; ++i)
            buffer[i] = babbleByte(mBabblePosition++);
        *count = static_cast<std::uint32_t>(capacity);
        return kDeviceOk;
    }
    for (std::size_t i = 0; i < mCount; ++i)
        mSlots[(mFirst + i) % kSlots].late = false;
    return kDeviceTimedOut;
}

void VirtualTamaDevice::discardInput() {
    const auto held = mReader->field().lock();
    while (mCount != 0 && !mSlots[mFirst].late)
        dropFirst();
}

void VirtualTamaDevice::dropFirst() {
    mFirst = (mFirst + 1) % kSlots;
    --mCount;
}

/// A host that does not read loses what comes after the eighth frame, as it would with a full driver queue.
void VirtualTamaDevice::onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) {
    if (mCount == kSlots) return;
    Slot& slot = mSlots[(mFirst + mCount++) % kSlots];
    slot.length = frame.size();
    slot.late = delayMs != 0;
    std::copy_n(frame.begin(), std::min(frame.size(), kSlotBytes), slot.bytes.begin());
}

void VirtualTamaDevice::onBabble() {
    mBabbling = true;
    mBabblePosition = 0;
}

void VirtualTamaDevice::onQuiet() { mBabbling = false; }

void VirtualTamaDevice::onVanished() { mBroken = true; }

void VirtualTamaDevice::onReturned() {}

#include "VirtualLine.h"

#include "Clock.h"

#include <algorithm>
#include <utility>

using platform::IoResult;

VirtualLine::VirtualLine(std::shared_ptr<VirtualReader> reader) : mReader(std::move(reader)) {}

VirtualLine::~VirtualLine() { close(); }

bool VirtualLine::open() {
    const auto held = mReader->field().lock();
    close();
    if (!mReader->isPresent()) return false;
    mOpen = true;
    mReader->connect(this);
    mReader->watch(*this);
    return true;
}

void VirtualLine::close() {
    const auto held = mReader->field().lock();
    if (mOpen) {
        mReader->connect(nullptr);
        mReader->unwatch(*this);
    }
    mOpen = mBroken = mBabbling = false;
    mCount = 0;
}

bool VirtualLine::isBroken() const {
    const auto held = mReader->field().lock();
    return mBroken;
}

IoResult VirtualLine::write(std::span<const std::uint8_t> message) {
    const auto held = mReader->field().lock();
    if (!mOpen || mBroken) return IoResult::failed;
    mReader->receive(message);
    return IoResult::done;
}

IoResult VirtualLine::read(std::span<std::uint8_t> buffer, std::size_t& count, std::uint32_t timeoutMs) {
    const IoResult result = take(buffer, count);
    if (result == IoResult::timedOut) platform::Clock::current().pauseMs(timeoutMs);
    return result;
}

IoResult VirtualLine::take(std::span<std::uint8_t> buffer, std::size_t& count) {
    const auto held = mReader->field().lock();
    count = 0;
    if (!mOpen) return IoResult::failed;
    if (mCount != 0 && !mSlots[mFirst].late) {
        const Slot& slot = mSlots[mFirst];
        count = slot.length;
        if (count <= std::min(buffer.size(), kSlotBytes)) std::copy_n(slot.bytes.begin(), count, buffer.begin());
        dropFirst();
        return IoResult::done;
    }
    if (mBroken) return IoResult::failed;
    if (mBabbling) {
        for (std::uint8_t& byte : buffer)
            byte = babbleByte(mBabblePosition++);
        count = buffer.size();
        return IoResult::done;
    }
    for (std::size_t i = 0; i < mCount; ++i)
        mSlots[(mFirst + i) % kSlots].late = false;
    return IoResult::timedOut;
}

void VirtualLine::discard() {
    const auto held = mReader->field().lock();
    while (mCount != 0 && !mSlots[mFirst].late)
        dropFirst();
}

void VirtualLine::dropFirst() {
    mFirst = (mFirst + 1) % kSlots;
    --mCount;
}

/// A host that does not read loses what comes after the eighth frame, as it would with a full driver queue.
void VirtualLine::onFrame(std::span<const std::uint8_t> frame, std::uint32_t delayMs) {
    if (mCount == kSlots) return;
    Slot& slot = mSlots[(mFirst + mCount++) % kSlots];
    slot.length = frame.size();
    slot.late = delayMs != 0;
    std::copy_n(frame.begin(), std::min(frame.size(), kSlotBytes), slot.bytes.begin());
}

void VirtualLine::onBabble() {
    mBabbling = true;
    mBabblePosition = 0;
}

void VirtualLine::onQuiet() { mBabbling = false; }

void VirtualLine::onVanished() { mBroken = true; }

void VirtualLine::onReturned() {}

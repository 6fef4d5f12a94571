#include "SerialPort.h"

#include "Clock.h"

#include <cerrno>
#include <cstring>
#include <new>

using platform::Handshaking;
using platform::IoResult;
using platform::LineSettings;

namespace {

constexpr std::uint32_t kDefaultMask = platform::kLineByteArrived | platform::kLineBreak | platform::kLineError;

}  // namespace

SerialPort::~SerialPort() { SerialPort::close(); }

bool SerialPort::begin() {
    mLastError = mHandle ? kSuccess : kNotOpen;
    return mLastError == kSuccess;
}

std::uint32_t SerialPort::fail(int systemError) {
    mLastError = static_cast<std::uint32_t>(systemError);
    return mLastError;
}

std::uint32_t SerialPort::open(const char* name, std::uint32_t, std::uint32_t, bool overlapped) {
    if (mHandle) return mLastError = kAlreadyOpen;
    mLastError = kSuccess;
    try {
        auto line = std::make_unique<platform::SerialLine>();
        if (const int error = line->open(name); error != 0) return fail(error);
        if (overlapped) mIoEvent = std::make_unique<platform::ManualResetEvent>();
        mHandle = std::move(line);
    } catch (const std::bad_alloc&) {
        return fail(ENOMEM);
    }
    setMask(kDefaultMask);
    setReadTimeouts(0);
    return mLastError;
}

std::uint32_t SerialPort::close() {
    mLastError = kSuccess;
    mIoEvent.reset();
    mHandle.reset();
    return mLastError;
}

std::uint32_t SerialPort::setup(std::uint32_t baudRate, int dataBits, int parity, int stopBits) {
    if (!begin()) return mLastError;
    return fail(mHandle->apply({baudRate, static_cast<std::uint32_t>(dataBits), static_cast<std::uint32_t>(parity),
                                static_cast<std::uint32_t>(stopBits)}));
}

std::uint32_t SerialPort::setEventChar(std::uint8_t character, bool adjustMask) {
    if (!begin()) return mLastError;
    if (adjustMask && setMask(mEventMask | platform::kLineEventCharacter) != kSuccess) return mLastError;
    mHandle->setEventCharacter(character);
    return mLastError;
}

std::uint32_t SerialPort::setMask(std::uint32_t mask) {
    if (begin()) mEventMask = mask;
    return mLastError;
}

std::uint32_t SerialPort::setHandshaking(int mode) {
    if (!begin()) return mLastError;
    if (mode < 0 || mode > 2) return mLastError = kUnknownMode;
    constexpr Handshaking kModes[] = {Handshaking::off, Handshaking::hardware, Handshaking::software};
    return fail(mHandle->setHandshaking(kModes[mode]));
}

std::uint32_t SerialPort::setReadTimeouts(int mode) {
    if (!begin()) return mLastError;
    if (mode != 0 && mode != 1) return mLastError = kUnknownMode;
    mReadsWait = mode == 1;
    return mLastError;
}

bool SerialPort::lineSettings(LineSettings& out) {
    if (begin()) fail(mHandle->settings(out));
    return mLastError == kSuccess;
}

std::int32_t SerialPort::getBaudrate() {
    LineSettings now{};
    return lineSettings(now) ? static_cast<std::int32_t>(now.baudRate) : -1;
}

std::int32_t SerialPort::getDataBits() {
    LineSettings now{};
    return lineSettings(now) ? static_cast<std::int32_t>(now.dataBits) : -1;
}

std::int32_t SerialPort::getParity() {
    LineSettings now{};
    return lineSettings(now) ? static_cast<std::int32_t>(now.parity) : -1;
}

std::int32_t SerialPort::getStopBits() {
    LineSettings now{};
    return lineSettings(now) ? static_cast<std::int32_t>(now.stopBits) : -1;
}

std::int32_t SerialPort::getHandshaking() {
    Handshaking mode = Handshaking::off;
    if (!begin() || fail(mHandle->handshaking(mode)) != kSuccess) return -1;
    switch (mode) {
    case Handshaking::hardware:
        return 1;
    case Handshaking::software:
        return 2;
    case Handshaking::off:
        break;
    }
    return 0;
}

std::uint32_t SerialPort::getEventMask() { return begin() ? mEventMask : 0; }

std::uint8_t SerialPort::getEventChar() { return begin() ? mHandle->eventCharacter() : std::uint8_t{0}; }

std::uint32_t SerialPort::purge() { return begin() ? fail(mHandle->purge()) : mLastError; }

bool SerialPort::beginTransfer(std::uint32_t& count, const SerialOverlapped* overlapped, std::uint32_t timeout) {
    count = 0;
    if (!begin()) return false;
    if (!mIoEvent && (overlapped != nullptr || timeout != kNoLimit)) mLastError = kInvalidFunction;
    return mLastError == kSuccess;
}

std::uint32_t SerialPort::endTransfer(IoResult result, const SerialOverlapped* overlapped) {
    switch (result) {
    case IoResult::done:
        if (overlapped != nullptr && overlapped->event != nullptr) overlapped->event->set();
        break;
    case IoResult::timedOut:
        mLastError = kTimeout;
        break;
    case IoResult::failed:
        fail(mHandle->lastError() != 0 ? mHandle->lastError() : EIO);
        break;
    }
    return mLastError;
}

std::uint32_t SerialPort::waitEvent(SerialOverlapped* overlapped, std::uint32_t timeout) {
    if (!beginTransfer(mEvents, overlapped, timeout)) return mLastError;
    return endTransfer(mHandle->waitEvent(mEventMask, mEvents, timeout), overlapped);
}

std::uint32_t SerialPort::writeString(const char* text, std::uint32_t* written, SerialOverlapped* overlapped,
                                      std::uint32_t timeout) {
    return write(reinterpret_cast<const std::uint8_t*>(text), static_cast<std::uint32_t>(std::strlen(text)), written,
                 overlapped, timeout);
}

std::uint32_t SerialPort::write(const std::uint8_t* data, std::uint32_t len, std::uint32_t* written,
                                SerialOverlapped* overlapped, std::uint32_t timeout) {
    std::uint32_t local = 0;
    std::uint32_t& count = written != nullptr ? *written : local;
    if (!beginTransfer(count, overlapped, timeout)) return mLastError;
    std::size_t moved = 0;
    const IoResult result = mHandle->write({data, len}, moved, timeout);
    count = static_cast<std::uint32_t>(moved);
    return endTransfer(result, overlapped);
}

std::uint32_t SerialPort::read(std::uint8_t* buffer, std::uint32_t len, std::uint32_t* got,
                               SerialOverlapped* overlapped, std::uint32_t timeout) {
    std::uint32_t local = 0;
    std::uint32_t& count = got != nullptr ? *got : local;
    if (!beginTransfer(count, overlapped, timeout)) return mLastError;
    if (mReadsWait) return endTransfer(readAll({buffer, len}, count, timeout), overlapped);
    std::size_t moved = 0;
    const IoResult result = mHandle->read({buffer, len}, moved);
    count = static_cast<std::uint32_t>(moved);
    return endTransfer(result, overlapped);
}

IoResult SerialPort::readAll(std::span<std::uint8_t> buffer, std::uint32_t& got, std::uint32_t timeout) {
    constexpr std::uint32_t kStepMs = 100;
    const std::uint64_t start = platform::Clock::current().nowMs();
    while (got < buffer.size()) {
        if (!mHandle->hasBuffered()) {
            const std::uint64_t elapsed = platform::Clock::current().nowMs() - start;
            if (timeout != kNoLimit && elapsed >= timeout) return IoResult::timedOut;
            const std::uint64_t left = timeout == kNoLimit ? kStepMs : timeout - elapsed;
            const IoResult waited = mHandle->waitReadable(left < kStepMs ? static_cast<std::uint32_t>(left) : kStepMs);
            if (waited == IoResult::failed) return waited;
        }
        std::size_t moved = 0;
        if (mHandle->read(buffer.subspan(got), moved) == IoResult::failed) return IoResult::failed;
        got += static_cast<std::uint32_t>(moved);
    }
    return IoResult::done;
}

std::uint32_t SerialPort::waitForByte(std::uint32_t ms) {
    if (!begin()) return mLastError;
    return endTransfer(mHandle->waitReadable(ms), nullptr);
}

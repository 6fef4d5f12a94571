#include "Qvl14443bfl.h"

#include "LinkWatch.h"

#include <algorithm>
#include <cstring>

Qvl14443bfl::Qvl14443bfl()
    : mIsQvlDevice(std::make_shared<bool>(false)), mDeviceName{},
      mOperationMutex(std::make_shared<std::recursive_mutex>()) {}

Qvl14443bfl::~Qvl14443bfl() = default;

bool Qvl14443bfl::isQvlDevice() { return *mIsQvlDevice; }

void Qvl14443bfl::setDeviceName(const std::uint8_t* name) {
    if (name == nullptr) return;
    const OperationLock lock = lockOperation();
    const std::size_t length = std::min(std::strlen(reinterpret_cast<const char*>(name)), sizeof mDeviceName - 1);
    std::memmove(mDeviceName, name, length);
    std::memset(mDeviceName + length, 0, sizeof mDeviceName - length);
}

std::uint8_t* Qvl14443bfl::getDeviceName() { return mDeviceName; }

bool Qvl14443bfl::watchLink(LinkWatch& watch) {
    const OperationLock lock = lockOperation();
    return mUsers.watches.try_emplace(std::this_thread::get_id(), &watch).second;
}

void Qvl14443bfl::unwatchLink() {
    const OperationLock lock = lockOperation();
    mUsers.watches.erase(std::this_thread::get_id());
}

bool Qvl14443bfl::isReaderLost() {
    const OperationLock lock = lockOperation();
    const LinkWatch* const watch = linkWatch();
    return watch != nullptr && watch->isLost();
}

LinkWatch* Qvl14443bfl::linkWatch() const {
    const auto found = mUsers.watches.find(std::this_thread::get_id());
    return found == mUsers.watches.end() ? nullptr : found->second;
}

bool Qvl14443bfl::mayAsk() const {
    const LinkWatch* const watch = linkWatch();
    return watch == nullptr || watch->mayAsk();
}

void Qvl14443bfl::noteAnswer() const {
    if (LinkWatch* const watch = linkWatch()) watch->answered();
}

void Qvl14443bfl::noteTimeOut() const {
    if (LinkWatch* const watch = linkWatch()) watch->timedOut();
}

void Qvl14443bfl::noteFailure(bool isGone) const {
    if (LinkWatch* const watch = linkWatch()) watch->failed(isGone);
}

void Qvl14443bfl::noteOpened() const {
    if (LinkWatch* const watch = linkWatch()) watch->opened();
}

// A driver with another reader says so itself; of these two kinds there are stand-ins as well.
ReaderTraits Qvl14443bfl::traits() {
    return getBflType() == BflTypeNfcTama ? ReaderTraits{true, false, 0} : ReaderTraits{false, true, 1};
}

// What a driver does not override.

short Qvl14443bfl::interfaceOpen(std::uint32_t, std::uint32_t) { return kBflNotImplemented; }

short Qvl14443bfl::interfaceClose() { return kBflNotImplemented; }

short Qvl14443bfl::pcdConfig() { return kBflNotImplemented; }

short Qvl14443bfl::pcdConfig2(std::uint8_t*, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::pcdGetRICVersion(std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::pcdGetSnr(std::uint8_t*, std::uint16_t&) { return kBflNotImplemented; }

short Qvl14443bfl::pcdGetFwVersion(std::uint8_t*, std::uint16_t&) { return kBflNotImplemented; }

short Qvl14443bfl::pcdRfReset(std::uint16_t) { return kBflNotImplemented; }

short Qvl14443bfl::pcdGetAttrib(std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*) {
    return kBflNotImplemented;
}

short Qvl14443bfl::pcdSetAttrib(std::uint8_t, std::uint8_t) { return kBflNotImplemented; }

short Qvl14443bfl::pcdSetDefaultAttrib() { return kBflNotImplemented; }

short Qvl14443bfl::hostCodeKey(std::uint8_t*, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccRequest(std::uint8_t, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccCascAnticoll(std::uint8_t, std::uint8_t, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccCascSelect(std::uint8_t, std::uint8_t*, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccActivateIdle(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*,
                                    std::uint8_t*, std::uint8_t*) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccActivateIdle(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccActivateIdleLoop(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*,
                                        std::uint8_t, std::uint8_t*, std::uint8_t*) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccActivateIdleLoop(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t*,
                                        std::uint8_t) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccActivateWakeup(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t,
                                      std::uint8_t*, std::uint8_t*) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccActivateWakeup(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t*, std::uint8_t) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccAuthKey(std::uint8_t, std::uint8_t*, std::uint8_t*, std::uint8_t) { return kBflNotImplemented; }

short Qvl14443bfl::piccRead(std::uint8_t, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccWrite(std::uint8_t, std::uint8_t*) { return kBflNotImplemented; }

short Qvl14443bfl::piccValue(std::uint8_t, std::uint8_t, std::uint8_t*, std::uint8_t) { return kBflNotImplemented; }

short Qvl14443bfl::piccExchangeBlock(std::uint8_t*, std::uint16_t, std::uint8_t*, std::uint16_t*, std::uint8_t,
                                     std::uint32_t) {
    return kBflNotImplemented;
}

short Qvl14443bfl::piccHalt() { return kBflNotImplemented; }

short Qvl14443bfl::piccDeselect() { return kBflNotImplemented; }

short Qvl14443bfl::pcdRelay(std::uint8_t*, int, std::uint8_t*&, int&) { return kBflNotImplemented; }

bool Qvl14443bfl::isDeviceGone() { return false; }

short Qvl14443bfl::switchLED(std::uint8_t, std::uint8_t, std::uint8_t) { return kBflNotImplemented; }

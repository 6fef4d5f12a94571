#include "VirtualReader.h"

#include <utility>

std::uint8_t babbleByte(std::uint64_t position) {
    // An extended frame of the greatest length, in which nothing makes sense.
    constexpr std::uint8_t kHead[] = {0x00, 0x00, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02};
    constexpr std::uint64_t kWhole = 0xFFFF + 10;
    const std::uint64_t at = position % kWhole;
    return at < sizeof kHead ? kHead[at] : std::uint8_t{0xA5};
}

VirtualReader::VirtualReader(ReaderOptions options, std::shared_ptr<VirtualField> field, FaultPlan::Suits suits)
    : mOptions(options), mField(field ? std::move(field) : std::make_shared<VirtualField>()), mFaults(suits) {}

VirtualReader::~VirtualReader() = default;

void VirtualReader::joinField() {
    mField->setListener(this);
    mField->setPower(this);
    mField->setFaults(&mFaults);
}

void VirtualReader::leaveField() {
    mField->setListener(nullptr);
    mField->setPower(nullptr);
    mField->setFaults(nullptr);
}

void VirtualReader::connect(ReaderSink* sink) {
    const auto held = mField->lock();
    mSink = sink;
    mHeld.clear();
    onHostChanged();
}

void VirtualReader::watch(ReaderWatcher& watcher) {
    const auto held = mField->lock();
    mWatchers.push_back(&watcher);
}

void VirtualReader::unwatch(ReaderWatcher& watcher) {
    const auto held = mField->lock();
    std::erase(mWatchers, &watcher);
}

void VirtualReader::receive(Bytes bytes) {
    const auto held = mField->lock();
    onBytes(bytes);
}

void VirtualReader::listen(std::function<void(Bytes)> listener) {
    const auto held = mField->lock();
    mListener = std::move(listener);
}

void VirtualReader::noteCommand(Bytes command) {
    ++mCounts[command[0]];
    if (mListener) mListener(command);
}

void VirtualReader::moveTags(const FaultRule& fault) {
    switch (fault.effect) {
    case FaultEffect::tagGone:
        return mField->takeFirstAway();
    case FaultEffect::tagBack:
        return mField->bringBack();
    case FaultEffect::tagBlinks:
        return mField->blinkFirst();
    case FaultEffect::tagSwapped:
        return mField->swapFirst(fault.tag);
    default:
        return;
    }
}

void VirtualReader::dropFallenTag() {
    if (!mFallen.empty()) mField->setPresent(std::exchange(mFallen, {}), false);
}

void VirtualReader::send(Bytes frame, std::uint32_t delayMs) {
    if (mSink && mPresent && !frame.empty()) mSink->onFrame(frame, delayMs);
}

void VirtualReader::sendHeld() {
    for (const auto& frame : std::exchange(mHeld, {}))
        send(frame);
}

std::optional<std::size_t> VirtualReader::bytesUntilPowerLoss() {
    const FaultRule* fault = mFaults.isEmpty() ? nullptr : mFaults.onWrite();
    if (!fault) return std::nullopt;
    for (const VirtualField::Entry& entry : mField->list()) {
        const bool writes = entry.tag->state() == VirtualTag::State::active && entry.tag->memory();
        if (writes && fault->effect == FaultEffect::powerLost) mFallen = entry.name;
    }
    return fault->value;
}

void VirtualReader::addFault(FaultRule rule) {
    const auto held = mField->lock();
    mFaults.add(std::move(rule));
}

std::string VirtualReader::addFault(std::string_view rule) {
    const auto held = mField->lock();
    return mFaults.addRule(rule);
}

std::string VirtualReader::addFaults(std::string_view text) {
    const auto held = mField->lock();
    return mFaults.addText(text);
}

void VirtualReader::clearFaults() {
    const auto held = mField->lock();
    mFaults.clear();
}

void VirtualReader::vanish() {
    const auto held = mField->lock();
    if (!std::exchange(mPresent, false)) return;
    onPowerLost();
    mHeld.clear();
    for (ReaderWatcher* watcher : mWatchers)
        watcher->onVanished();
}

void VirtualReader::comeBack() {
    const auto held = mField->lock();
    if (std::exchange(mPresent, true)) return;
    for (ReaderWatcher* watcher : mWatchers)
        watcher->onReturned();
}

bool VirtualReader::isPresent() const {
    const auto held = mField->lock();
    return mPresent;
}

bool VirtualReader::hasHost() const {
    const auto held = mField->lock();
    return mSink != nullptr;
}

bool VirtualReader::isFieldOn() const {
    const auto held = mField->lock();
    return mField->isOn();
}

std::uint32_t VirtualReader::commandCount(std::uint8_t code) const {
    const auto held = mField->lock();
    return mCounts[code];
}

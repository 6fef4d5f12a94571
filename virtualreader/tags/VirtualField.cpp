#include "VirtualField.h"

#include "TagMemory.h"

#include <algorithm>

namespace {

/// Lays another tag's part over what was heard so far.
void overlay(VirtualField::Collision& heard, const CascadePart& part) {
    const int end = heard.firstCollision < 0 ? 40 : heard.firstCollision;
    for (int bit = 0; bit < end; ++bit) {
        const auto byte = static_cast<std::size_t>(bit / 8);
        if (((heard.bits[byte] ^ part[byte]) >> (bit % 8)) & 1) {
            heard.firstCollision = bit;
            return;
        }
    }
}

}  // namespace

std::string VirtualField::place(std::shared_ptr<VirtualTag> tag, std::string name) {
    const Lock held = lock();
    while (name.empty()) {
        name = "tag" + std::to_string(++mNameCount);
        if (entry(name)) name.clear();
    }
    if (entry(name)) return {};
    if (TagMemory* memory = tag->memory()) memory->setPower(mPower);
    tag->setFaults(mFaults);
    mEntries.push_back({name, std::move(tag), false});
    show(mEntries.back(), true);
    changed();
    return name;
}

bool VirtualField::remove(std::string_view name) {
    const Lock held = lock();
    Entry* found = entry(name);
    if (!found) return false;
    show(*found, false);
    if (TagMemory* memory = found->tag->memory()) memory->setPower(nullptr);
    found->tag->setFaults(nullptr);
    mEntries.erase(mEntries.begin() + (found - mEntries.data()));
    changed();
    return true;
}

void VirtualField::clear() {
    const Lock held = lock();
    while (!mEntries.empty())
        remove(mEntries.back().name);
}

bool VirtualField::setPresent(std::string_view name, bool present) {
    const Lock held = lock();
    Entry* found = entry(name);
    if (!found) return false;
    show(*found, present);
    changed();
    return true;
}

std::vector<VirtualField::Entry> VirtualField::list() const {
    const Lock held = lock();
    return mEntries;
}

std::shared_ptr<VirtualTag> VirtualField::find(std::string_view name) const {
    const Lock held = lock();
    const auto found = std::ranges::find(mEntries, name, &Entry::name);
    return found == mEntries.end() ? nullptr : found->tag;
}

void VirtualField::setOn(bool on) {
    mOn = on;
    for (Entry& each : mEntries) {
        if (on && each.present)
            each.tag->fieldOn();
        else
            each.tag->fieldOff();
    }
}

std::optional<std::uint16_t> VirtualField::request(VirtualTag::Request request) {
    std::optional<std::uint16_t> all;
    for (Entry& each : mEntries) {
        std::uint16_t atqa = 0;
        if (each.tag->request(request, atqa)) all = static_cast<std::uint16_t>(all.value_or(0) | atqa);
    }
    return all;
}

std::optional<VirtualField::Collision> VirtualField::anticollision(int level, const CascadePart& known, int knownBits) {
    std::optional<Collision> heard;
    for (Entry& each : mEntries) {
        CascadePart part;
        if (!each.tag->anticollision(level, known, knownBits, part)) continue;
        if (heard)
            overlay(*heard, part);
        else
            heard = Collision{part, -1};
    }
    return heard;
}

std::optional<std::uint8_t> VirtualField::select(int level, const CascadePart& part) {
    std::optional<std::uint8_t> answer;
    for (Entry& each : mEntries) {
        std::uint8_t sak = 0;
        if (each.tag->select(level, part, sak)) answer = sak;
    }
    return answer;
}

void VirtualField::halt() {
    for (Entry& each : mEntries)
        each.tag->halt();
}

void VirtualField::exchange(std::span<const std::uint8_t> frame, AirAnswer& answer) {
    answer.setSilence();
    for (Entry& each : mEntries) {
        if (each.tag->state() != VirtualTag::State::active) continue;
        each.tag->exchange(frame, answer);
        if (answer.kind() != AirAnswer::Kind::silence) return;
    }
}

bool VirtualField::authenticate(const Authentication& authentication) {
    bool passed = false;
    for (Entry& each : mEntries)
        passed = each.tag->authenticate(authentication) || passed;
    return passed;
}

bool VirtualField::hasSelected() const {
    return std::ranges::any_of(mEntries,
                               [](const Entry& each) { return each.tag->state() == VirtualTag::State::active; });
}

VirtualTag* VirtualField::selected(std::span<const std::uint8_t> uid) {
    for (Entry& each : mEntries) {
        if (each.tag->state() == VirtualTag::State::active && std::ranges::equal(each.tag->uid(), uid))
            return each.tag.get();
    }
    return nullptr;
}

void VirtualField::setListener(Listener* listener) {
    const Lock held = lock();
    mListener = listener;
}

void VirtualField::setPower(WritePower* power) {
    const Lock held = lock();
    mPower = power;
    for (Entry& each : mEntries)
        if (TagMemory* memory = each.tag->memory()) memory->setPower(power);
}

void VirtualField::setFaults(FaultPlan* faults) {
    const Lock held = lock();
    mFaults = faults;
    for (Entry& each : mEntries)
        each.tag->setFaults(faults);
}

void VirtualField::takeFirstAway() {
    if (Entry* first = firstPresent()) show(*first, false);
}

void VirtualField::bringBack() {
    const auto away = std::ranges::find(mEntries, false, &Entry::present);
    if (away != mEntries.end()) show(*away, true);
}

void VirtualField::blinkFirst() {
    Entry* first = firstPresent();
    if (!first) return;
    show(*first, false);
    show(*first, true);
}

void VirtualField::swapFirst(std::string_view name) {
    Entry* first = firstPresent();
    std::shared_ptr<VirtualTag> twin = first && name.empty() ? first->tag->twin() : nullptr;
    if (first) show(*first, false);
    if (twin) place(std::move(twin));
    if (Entry* other = name.empty() ? nullptr : entry(name)) show(*other, true);
}

VirtualField::Entry* VirtualField::entry(std::string_view name) {
    const auto found = std::ranges::find(mEntries, name, &Entry::name);
    return found == mEntries.end() ? nullptr : &*found;
}

VirtualField::Entry* VirtualField::firstPresent() {
    const auto found = std::ranges::find(mEntries, true, &Entry::present);
    return found == mEntries.end() ? nullptr : &*found;
}

void VirtualField::show(Entry& entry, bool present) {
    if (entry.present != present) mPresentCount += present ? 1 : std::size_t(-1);
    entry.present = present;
    if (present && mOn)
        entry.tag->fieldOn();
    else if (!present)
        entry.tag->fieldOff();
}

void VirtualField::changed() {
    if (mListener) mListener->onTagsChanged();
}

#include "AtsFormat.h"

#include <algorithm>

namespace {

constexpr std::uint8_t kLargestFsci = 8;

struct InterfaceByte {
    const char* name;
    std::uint8_t bit;  // of T0
    std::uint8_t Ats::*place;
};

constexpr InterfaceByte kInterfaceBytes[] = {
    {"TA1", 0x10, &Ats::ta1}, {"TB1", 0x20, &Ats::tb1}, {"TC1", 0x40, &Ats::tc1}};

}  // namespace

AtsFault decodeAts(std::span<const std::uint8_t> ats, Ats& out) {
    const std::uint8_t t0 = ats[1];
    out.fsci = std::min<std::uint8_t>(t0 & 0x0F, kLargestFsci);
    std::size_t index = 2;
    for (const InterfaceByte& byte : kInterfaceBytes) {
        if ((t0 & byte.bit) == 0) continue;
        if (index > ats.size()) return {byte.name, index};
        out.*byte.place = index < ats.size() ? ats[index] : std::uint8_t{0};
        ++index;
    }
    out.hasTb1 = (t0 & 0x20) != 0;
    if (ats.size() > index) {
        out.historicalStart = index;
        out.historicalCount = ats.size() - index;
    }
    return {};
}

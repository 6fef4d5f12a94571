// The ATS of a card, as the card layer decodes it: any bytes whose first one is their number.

#include "AtsFormat.h"
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 1 || size > 254) return 0;
    Bytes ats{static_cast<std::uint8_t>(size + 1)};
    ats.insert(ats.end(), data, data + size);
    Ats out;
    const AtsFault fault = decodeAts(ats, out);
    require(fault.interfaceByte != nullptr || out.historicalStart + out.historicalCount <= ats.size());
    require(out.fsci <= 8);
    return 0;
}

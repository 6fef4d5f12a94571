#include "SectorPlace.h"

#include <stdexcept>

void SectorPlace::check(const TagAccess& access) const {
    if ((sector >= 0) == access.app.has_value())
        throw std::invalid_argument("give either SECTOR or an application with --app");
}

void addSectorCount(Options& options, SectorPlace& place, TagAccess& access) {
    const Option count = options.value("--count", place.count, "How many sectors from SECTOR on; 1 by default")
                             .type("N")
                             .range(1, kLastSector + 1);
    addAppOption(options, access).description("All sectors of this application").excludes(count);
}

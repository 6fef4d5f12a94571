#include "SectorPlace.h"

#include "ServiceStatus.h"
#include "Text.h"

#include <string>
#include <vector>

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

Outcome tellSectors(Session& session, int status, const Records& records, const char* what) {
    if (status != kOk) return failWithRecords(session, status, "sector", records.all());
    std::vector<int> sectors;
    for (const OpResultCode& each : records.all())
        sectors.push_back(each.number);
    session.output().put({{"sectors", sectors}, {"set", what}}, named("sector", sectors) + ": " + what);
    return Outcome::done;
}

#include "SectorPlace.h"

#include "ServiceStatus.h"
#include "Text.h"

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

void SectorPlace::check(const TagAccess& access) const {
    if ((sector >= 0) == access.app.has_value())
        throw CLI::ValidationError("give either SECTOR or an application with --app");
}

void addSectorCount(CLI::App& app, SectorPlace& place, TagAccess& access) {
    auto* count = app.add_option("--count", place.count, "How many sectors from SECTOR on; 1 by default")
                      ->type_name("N")
                      ->check(CLI::Range(1, kLastSector + 1));
    addAppOption(app, access)->description("All sectors of this application")->excludes(count);
}

Outcome tellSectors(Session& session, int status, const Records& records, const char* what) {
    if (status != kOk) return failWithRecords(session, status, "sector", records.all());
    std::vector<int> sectors;
    for (const OpResultCode& each : records.all())
        sectors.push_back(each.number);
    session.output().put({{"sectors", sectors}, {"set", what}}, named("sector", sectors) + ": " + what);
    return Outcome::done;
}

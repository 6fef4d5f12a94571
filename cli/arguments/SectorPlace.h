#pragma once

#include "TagAccess.h"

inline constexpr int kLastSector = 39;

/// Sectors that a command changes: a run of the tag's, or all of an application.
struct SectorPlace {
    int sector = -1;
    int count = 1;

    /// @throws std::invalid_argument unless the line says just one of the two.
    void check(const TagAccess& access) const;
};

/// --count and --app.
void addSectorCount(Options& options, SectorPlace& place, TagAccess& access);

#pragma once

#include "Options.h"
#include "qvl/KeyRing.h"

/// --key, --key-b and --keys: keys that may open the sectors of a tag.
void addKeyRingOptions(Options& options, qvl::KeyRing& keys);

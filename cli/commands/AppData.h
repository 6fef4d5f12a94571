#pragma once

#include "Command.h"

// Those of the "app" commands that look at the directory and move data.
Work setUpAppLs(Options& options);
Work setUpAppRead(Options& options);
Work setUpAppWrite(Options& options);

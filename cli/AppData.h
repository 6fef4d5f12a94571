#pragma once

#include "Command.h"

// Those of the "app" commands that look at the directory and move data.
Work setUpAppLs(CLI::App& app);
Work setUpAppRead(CLI::App& app);
Work setUpAppWrite(CLI::App& app);

#pragma once

#include "Outcome.h"
#include "qvl/Error.h"

/// What the host layer has thrown, or the status of one block, in words and with advice.
Problem problemOf(const qvl::Error& error);
Problem problemOf(int status);

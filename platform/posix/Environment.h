#pragma once

#include "Installation.h"

#include <string>

namespace platform {

/// Value of an environment variable; empty if it is not set, or if `raisedRights` forbids to believe it.
std::string trustedVariable(const char* name, bool raisedRights = hasRaisedRights());

/// installationPath() with the installer's file at `installedFile`.
std::string installationPathFrom(const char* installedFile, bool raisedRights);

}  // namespace platform

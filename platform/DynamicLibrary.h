#pragma once

#include <string>

namespace platform {

/// File name of a loadable library: "usbdll" gives the name that a linker of this system would give it.
std::string dynamicLibraryFileName(const char* baseName);

/// Address of `symbol` in the library at `path`, or null. The library stays loaded until the process ends, so that
/// the address stays good.
void* loadSymbol(const char* path, const char* symbol);

}  // namespace platform

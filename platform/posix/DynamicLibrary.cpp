#include "DynamicLibrary.h"

#include <cstring>
#include <dlfcn.h>

namespace platform {

std::string dynamicLibraryFileName(const char* baseName) { return std::string("lib") + baseName + ".so"; }

void* loadSymbol(const char* path, const char* symbol) {
    // A bare name would be searched for along a path that the environment can set.
    if (!std::strchr(path, '/')) return nullptr;
    void* library = ::dlopen(path, RTLD_NOW | RTLD_LOCAL);
    return library ? ::dlsym(library, symbol) : nullptr;
}

}  // namespace platform

#include "FailingMemory.h"

#include <algorithm>
#include <cstdlib>
#include <new>

long gAllowed = -1;
bool gFailsOnce = false;
bool gHasFailed = false;
std::size_t gLargest = 0;

static bool isRefused(std::size_t size) {
    gLargest = std::max(gLargest, size);
    if (gAllowed < 0) return false;
    if (gAllowed-- > 0) return false;
    gAllowed = gFailsOnce ? -1 : 0;
    return gHasFailed = true;
}

extern "C" {
void* __real_malloc(std::size_t size);
void* __real_realloc(void* block, std::size_t size);
void* __wrap_malloc(std::size_t size) { return isRefused(size) ? nullptr : __real_malloc(size); }
void* __wrap_realloc(void* block, std::size_t size) { return isRefused(size) ? nullptr : __real_realloc(block, size); }
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return isRefused(size) ? nullptr : __real_malloc(size > 0 ? size : 1);
}
void* operator new(std::size_t size) {
    if (void* block = operator new(size, std::nothrow)) return block;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return operator new(size, std::nothrow); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

#pragma once

#include <cstdint>

/// Heap blocks that this program has asked for since its start, by `new`, malloc, calloc or realloc.
std::uint64_t allocationCount();

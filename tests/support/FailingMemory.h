#pragma once

#include <cstddef>

/// Memory that runs out on order. Every allocation of the program passes here: malloc and realloc by the linker's wrap,
/// the object allocator by replacement.

extern long gAllowed;         ///< Allocations until they begin to fail; negative for never.
extern bool gFailsOnce;       ///< Only one allocation fails then.
extern bool gHasFailed;       ///< An allocation has failed. Set back by the test.
extern std::size_t gLargest;  ///< Largest size asked for. Set back by the test.

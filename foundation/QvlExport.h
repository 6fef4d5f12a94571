#pragma once

/// Marks what the shared library exports. Everything else stays inside it.
#define QVL_API __attribute__((visibility("default")))
/// Marks a member of an exported class that stays inside all the same.
#define QVL_INTERNAL __attribute__((visibility("hidden")))

typedef unsigned char uchar;

#pragma once

#include "ByteHelpers.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

/// Gives memory back wiped.
template <typename T>
struct WipingAllocator {
    using value_type = T;

    WipingAllocator() = default;
    template <typename U>
    WipingAllocator(const WipingAllocator<U>&) {}

    T* allocate(std::size_t count) { return std::allocator<T>().allocate(count); }
    void deallocate(T* memory, std::size_t count) {
        wipe(memory, count * sizeof(T));
        std::allocator<T>().deallocate(memory, count);
    }
    bool operator==(const WipingAllocator&) const { return true; }
};

/// Bytes that may hold a key, of any number: wiped when they die.
using SecretVector = std::vector<std::uint8_t, WipingAllocator<std::uint8_t>>;

#pragma once

// Counts what the process allocates with new. For one source file of a program: it replaces the
// global operators.

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

inline std::atomic<std::int64_t> allocations = 0;

// Not inlined, so that the compiler sees a pair.
[[gnu::noinline]] void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        std::abort();
    }
    return memory;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

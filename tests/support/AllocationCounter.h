#pragma once
// Counts heap allocations from its construction until stop(). Including this
// header REPLACES the global allocation functions of the whole binary, so
// only one file of a test binary of its own may include it.
#include <atomic>
#include <cstdlib>
#include <new>

namespace test_support {

inline std::atomic<bool> allocation_counting{false};
inline std::atomic<uint64_t> allocation_count{0};

struct AllocationCounter {
    AllocationCounter() { allocation_count = 0, allocation_counting = true; }
    ~AllocationCounter() { allocation_counting = false; }
    uint64_t stop() { return allocation_counting = false, allocation_count.load(); }
};

inline void* counted_malloc(std::size_t size) {
    if (allocation_counting.load(std::memory_order_relaxed)) allocation_count.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size == 0 ? 1 : size);
}

}  // namespace test_support

// Memory from these operator new comes from malloc, so free is the right
// release; g++ cannot see that through the replacement and would warn.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
    if (void* memory = test_support::counted_malloc(size)) return memory;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return test_support::counted_malloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return test_support::counted_malloc(size);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

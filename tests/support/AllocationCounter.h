#pragma once
// Counts heap allocations from its construction until stop(). Including this
// header REPLACES the global allocation functions of the whole binary, so
// only one file of a test binary of its own may include it. The library's
// own array, nothrow and sized forms forward to these two.
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

}  // namespace test_support

// Memory from this operator new comes from malloc, so free is the right
// release; g++ cannot see that through the replacement and would warn.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
#endif
void* operator new(std::size_t size) {
    if (test_support::allocation_counting.load(std::memory_order_relaxed)) test_support::allocation_count++;
    if (void* memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

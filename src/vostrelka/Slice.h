#pragma once
// Views over memory owned elsewhere. Neither view allocates or frees.
#include <cstddef>
#include <cstdint>

namespace vostrelka {

// A mutable buffer view: the transports keep their read, transmit and
// reassembly buffers as Slices over arrays their Alloc class owns.
template <typename T>
struct Slice {
    T* data = nullptr;
    uint64_t size = 0;      // elements in use
    uint64_t capacity = 0;  // elements the storage holds

    Slice() = default;
    Slice(T* data_, uint64_t size_, uint64_t capacity_) : data(data_), size(size_), capacity(capacity_) {}

    bool full() const { return size >= capacity; }
    bool empty() const { return size == 0; }
    uint64_t room() const { return capacity - size; }
    void clear() { size = 0; }
    // Appends one element; false when full.
    bool push_back(const T& value) {
        if (size >= capacity) return false;
        data[size++] = value;
        return true;
    }
    T& operator[](uint64_t index) { return data[index]; }
    const T& operator[](uint64_t index) const { return data[index]; }
    T* begin() { return data; }
    T* end() { return data + size; }
    const T* begin() const { return data; }
    const T* end() const { return data + size; }
};

// A read-only view. An empty view has a null pointer and count 0.
template <typename T>
struct ConstSlice {
    const T* data = nullptr;
    uint64_t size = 0;

    ConstSlice() = default;
    ConstSlice(const T* data_, uint64_t size_) : data(data_), size(size_) {}
    ConstSlice(const Slice<T>& slice) : data(slice.data), size(slice.size) {}  // NOLINT: views convert freely

    bool empty() const { return size == 0; }
    const T& operator[](uint64_t index) const { return data[index]; }
    const T* begin() const { return data; }
    const T* end() const { return data + size; }
};

}  // namespace vostrelka

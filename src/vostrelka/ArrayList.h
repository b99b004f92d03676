#pragma once
// Fixed-capacity list over storage owned by the caller (ArrayList) or by
// itself (ArrayListAlloc). Never allocates; elements are plain data that
// are copied, never destroyed.
#include <cstddef>
#include <cstdint>

namespace vostrelka {

template <typename T>
class ArrayList {
public:
    ArrayList(T* storage, uint64_t capacity_) : capacity(capacity_), size(0), data(storage), overflow(false) {}
    virtual ~ArrayList() = default;
    ArrayList(const ArrayList&) = delete;
    ArrayList& operator=(const ArrayList&) = delete;

    // Appends; on a full list sets `overflow` and returns false.
    bool push_back(const T& value) {
        if (size >= capacity) {
            overflow = true;
            return false;
        }
        data[size++] = value;
        return true;
    }

    // Removes the element at `index`, moving the later ones one place
    // towards the front. An index past the end changes nothing.
    virtual void remove(size_t index) {
        if (index >= size) return;
        size--;
        for (uint64_t i = index; i < size; i++) data[i] = data[i + 1];
    }

    void clear() {
        size = 0;
        overflow = false;
    }
    bool full() const { return size >= capacity; }
    T& operator[](uint64_t index) { return data[index]; }
    const T& operator[](uint64_t index) const { return data[index]; }
    T* begin() { return data; }
    T* end() { return data + size; }
    const T* begin() const { return data; }
    const T* end() const { return data + size; }

    const uint64_t capacity;
    uint64_t size;
    T* const data;
    bool overflow;
};

template <typename T, size_t N>
class ArrayListAlloc : public ArrayList<T> {
public:
    ArrayListAlloc() : ArrayList<T>(storage, N) {}

private:
    T storage[N > 0 ? N : 1]{};
};

}  // namespace vostrelka

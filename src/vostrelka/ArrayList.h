#pragma once
// Fixed-capacity list over storage owned by the caller (ArrayList) or by
// itself (ArrayListAlloc): a Slice that remembers a push that did not fit.
// Never allocates; elements are plain data that are copied, never destroyed.
#include <cstddef>
#include <cstdint>

#include "vostrelka/Slice.h"

namespace vostrelka {

template <typename T>
class ArrayList : public Slice<T> {
public:
    ArrayList(T* storage, uint64_t capacity) : Slice<T>(storage, 0, capacity) {}
    ArrayList(const ArrayList&) = delete;
    ArrayList& operator=(const ArrayList&) = delete;

    // Appends; on a full list sets `overflow` and returns false.
    bool push_back(const T& value) {
        const bool pushed = Slice<T>::push_back(value);
        overflow = overflow || !pushed;
        return pushed;
    }

    // Removes the element at `index`, moving the later ones one place
    // towards the front. An index past the end changes nothing.
    void remove(size_t index) {
        if (index >= this->size) return;
        this->size--;
        for (uint64_t i = index; i < this->size; i++) this->data[i] = this->data[i + 1];
    }

    void clear() {
        Slice<T>::clear();
        overflow = false;
    }

    bool overflow = false;
};

template <typename T, size_t N>
class ArrayListAlloc : public ArrayList<T> {
public:
    ArrayListAlloc() : ArrayList<T>(storage, N) {}

private:
    T storage[N > 0 ? N : 1]{};
};

}  // namespace vostrelka

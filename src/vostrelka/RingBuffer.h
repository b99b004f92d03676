#pragma once
// Circular queue over storage owned by the caller. A push into a full
// buffer overwrites the oldest element; callers that must not lose data
// check room() first.
#include <cassert>
#include <cstdint>

namespace vostrelka {

template <typename T>
class RingBuffer {
public:
    RingBuffer(T* storage, uint64_t capacity) : _data(storage), _capacity(capacity), _size(0), _write(0) {}

    void push(const T& value) {
        _data[_write] = value;
        _write = (_write + 1) % _capacity;
        if (_size < _capacity) _size++;
    }

    // Oldest element; the buffer must not be empty.
    T& front() { return _data[oldest_index()]; }

    T& pop() {
        assert((_size > 0));
        T& oldest = _data[oldest_index()];
        _size--;
        return oldest;
    }

    uint64_t oldest_index() const { return (_write + _capacity - _size) % _capacity; }
    uint64_t size() const { return _size; }
    uint64_t capacity() const { return _capacity; }
    uint64_t room() const { return _capacity - _size; }
    bool empty() const { return _size == 0; }
    void clear() {
        _size = 0;
        _write = 0;
    }

private:
    T* _data;
    uint64_t _capacity;
    uint64_t _size;
    uint64_t _write;
};

}  // namespace vostrelka

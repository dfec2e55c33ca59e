// A number inside a plain record that more than one thread reads or writes.
//
// It holds the plain value, so the record keeps its exact byte layout and can
// still be copied and stored as a block of bytes, while every access through
// the number itself is an atomic load or store. Copying a whole record is not
// atomic: records are copied only while no other thread works on them.
#pragma once

#include <atomic>

namespace kb::platform {

template <typename T>
class SharedWord {
    static_assert(std::atomic_ref<T>::is_always_lock_free);
    static_assert(std::atomic_ref<T>::required_alignment <= alignof(T));

public:
    SharedWord() = default;
    SharedWord(T value) : value_(value) {}

    operator T() const { return std::atomic_ref<T>(value_).load(); }
    SharedWord& operator=(T value) {
        std::atomic_ref<T>(value_).store(value);
        return *this;
    }
    // Adds to the value in one step and returns the new value.
    T operator+=(T amount) { return std::atomic_ref<T>(value_).fetch_add(amount) + amount; }
    T operator-=(T amount) { return std::atomic_ref<T>(value_).fetch_sub(amount) - amount; }

private:
    mutable T value_{};
};

}  // namespace kb::platform

// Fields that one thread writes while others read them without a lock: counters, flags, a current pointer. The accesses
// are single and untorn, as they are on x64 in any case; these names say so where it matters, and keep the compiler and
// ThreadSanitizer from assuming otherwise.
#pragma once

#include <type_traits>

template <class T> T SharedLoad(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <class T> void SharedStore(T &field, std::type_identity_t<T> value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}
template <class T> void SharedAdd(T &field, std::type_identity_t<T> amount) {
    __atomic_fetch_add(&field, amount, __ATOMIC_RELAXED);
}
// Stores `value` unless the field has changed from `expected`.
template <class T> void SharedReplace(T &field, std::type_identity_t<T> expected, std::type_identity_t<T> value) {
    __atomic_compare_exchange_n(&field, &expected, value, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED);
}

// A pointer to something complete: whoever reads the pointer sees what was written before it was published.
template <class T> T *ReadPublished(T *const &field) {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}
template <class T> void Publish(T *&field, T *value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

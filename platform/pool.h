// Owners of pool memory. Every block has a tag, may fail to be had, and has one owner.
#pragma once

#include "platform/tags.h"

#include <cstddef>
#include <type_traits>
#include <utility>

// Placement new; the driver has no other.
struct PlaceInPool {
    void *block;
};
inline void *operator new(std::size_t, PlaceInPool place) noexcept {
    return place.block;
}
inline void operator delete(void *, PlaceInPool) noexcept {}

// A zero-filled block, or null when the pool is exhausted. IRQL: <= DISPATCH_LEVEL for non-paged pool, else APC_LEVEL.
inline void *PoolAllocateZeroed(POOL_TYPE pool, SIZE_T size, ULONG tag) {
    void *block = ExAllocatePoolWithTag(pool, size, tag);
    if (block != nullptr)
        RtlZeroMemory(block, size);
    return block;
}

// The same for `count` elements; null too when the multiplication overflows.
inline void *PoolAllocateZeroedArray(POOL_TYPE pool, SIZE_T count, SIZE_T elementSize, ULONG tag) {
    SIZE_T size = 0;
    if (__builtin_mul_overflow(count, elementSize, &size))
        return nullptr;
    return PoolAllocateZeroed(pool, size, tag);
}

// Owns one block of plain data or bytes; frees it with its tag. Never runs destructors: what lives in it needs none.
template <class T, ULONG Tag> class PoolPointer {
    static_assert(std::is_trivially_destructible_v<T>);

  public:
    PoolPointer() = default;
    explicit PoolPointer(T *block) : block_(block) {}
    PoolPointer(PoolPointer &&other) noexcept : block_(other.Release()) {}
    PoolPointer &operator=(PoolPointer &&other) noexcept {
        Reset(other.Release());
        return *this;
    }
    PoolPointer(const PoolPointer &) = delete;
    PoolPointer &operator=(const PoolPointer &) = delete;
    ~PoolPointer() { Reset(); }

    // One zeroed T, with `extra` further bytes behind it.
    static PoolPointer Allocate(POOL_TYPE pool, SIZE_T extra = 0) {
        return PoolPointer(static_cast<T *>(PoolAllocateZeroed(pool, sizeof(T) + extra, Tag)));
    }
    // `count` zeroed Ts.
    static PoolPointer AllocateArray(POOL_TYPE pool, SIZE_T count) {
        return PoolPointer(static_cast<T *>(PoolAllocateZeroedArray(pool, count, sizeof(T), Tag)));
    }

    void Reset(T *block = nullptr) {
        T *old = std::exchange(block_, block);
        if (old != nullptr)
            ExFreePoolWithTag(old, Tag);
    }
    [[nodiscard]] T *Release() { return std::exchange(block_, nullptr); }
    T *Get() const { return block_; }
    T *operator->() const { return block_; }
    T &operator*() const { return *block_; }
    T &operator[](SIZE_T index) const { return block_[index]; }
    explicit operator bool() const { return block_ != nullptr; }

  private:
    T *block_ = nullptr;
};

// A growable array of plain data in non-paged pool, tag "Auvc". When full it grows to ((count + 1) OR 1) + 1 entries.
template <class T> class GrowableArray {
    static_assert(std::is_trivially_copyable_v<T>);

  public:
    GrowableArray() = default;
    GrowableArray(const GrowableArray &) = delete;
    GrowableArray &operator=(const GrowableArray &) = delete;

    // STATUS_INSUFFICIENT_RESOURCES when the pool is exhausted; the array is then as it was. IRQL: <= DISPATCH_LEVEL.
    NTSTATUS Append(const T &value) {
        if (count_ == capacity_) {
            NTSTATUS status = Reserve(count_ + 1);
            if (!NT_SUCCESS(status))
                return status;
        }
        items_[count_++] = value;
        return STATUS_SUCCESS;
    }

    // Makes room for at least `wanted` entries by the growth rule.
    NTSTATUS Reserve(ULONG wanted) {
        if (wanted <= capacity_)
            return STATUS_SUCCESS;
        ULONG capacity = (wanted | 1) + 1;
        auto grown = PoolPointer<T, pool_tag::Array>::AllocateArray(NonPagedPool, capacity);
        if (!grown)
            return STATUS_INSUFFICIENT_RESOURCES;
        if (count_ != 0)
            RtlCopyMemory(grown.Get(), items_.Get(), count_ * sizeof(T));
        items_ = std::move(grown);
        capacity_ = capacity;
        return STATUS_SUCCESS;
    }

    // Forgets the entries and frees the memory.
    void Clear() {
        items_.Reset();
        count_ = capacity_ = 0;
    }

    ULONG Count() const { return count_; }
    ULONG Capacity() const { return capacity_; }
    T &operator[](ULONG index) { return items_[index]; }
    const T &operator[](ULONG index) const { return items_[index]; }
    T *begin() const { return items_.Get(); }
    T *end() const { return items_.Get() + count_; }

  private:
    PoolPointer<T, pool_tag::Array> items_;
    ULONG count_ = 0;
    ULONG capacity_ = 0;
};

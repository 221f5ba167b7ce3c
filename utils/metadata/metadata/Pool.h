#pragma once
// Fixed-size blocks for the objects every request makes and drops (contents, storages, row
// chunks), kept per thread so that the steady state allocates nothing and takes no lock.
// A block freed on another thread than the one that made it joins that thread's cache.
//
// PoolAllocator<T> plugs the blocks into std::allocate_shared, so that an object and its
// reference counts share one block: `std::allocate_shared<Content>(PoolAllocator<Content>())`.
//
// Thread safety: each thread uses its own cache; nothing is shared.
#include <cstddef>
#include <new>

namespace NSCam {
namespace pool {

// Blocks of one size class. Sizes are rounded up to 16 bytes; the largest pooled size is
// kMaxPooled, larger blocks come from operator new directly.
constexpr size_t kGranule = 16;
constexpr size_t kMaxPooled = 1024;
// Blocks a thread keeps per size class before it gives them back to the heap.
constexpr size_t kKeptPerClass = 256;

void* take(size_t bytes);
void give(void* block, size_t bytes) noexcept;

template <typename T>
struct PoolAllocator {
    using value_type = T;

    PoolAllocator() = default;
    template <typename U>
    PoolAllocator(const PoolAllocator<U>&) {}

    T* allocate(size_t n) {
        static_assert(alignof(T) <= kGranule, "pooled blocks are 16-byte aligned");
        return static_cast<T*>(take(n * sizeof(T)));
    }
    void deallocate(T* p, size_t n) noexcept { give(p, n * sizeof(T)); }

    template <typename U>
    bool operator==(const PoolAllocator<U>&) const {
        return true;
    }
    template <typename U>
    bool operator!=(const PoolAllocator<U>&) const {
        return false;
    }
};

}  // namespace pool
}  // namespace NSCam

#include "AllocationProbe.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {
std::atomic<size_t> gLargest{0};
}

void* operator new(std::size_t n) {
    size_t seen = gLargest.load(std::memory_order_relaxed);
    while (n > seen && !gLargest.compare_exchange_weak(seen, n, std::memory_order_relaxed)) {
    }
    if (void* p = std::malloc(n ? n : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace zorcam_test {

size_t largestAllocation() {
    return gLargest.load(std::memory_order_relaxed);
}
void resetLargestAllocation() {
    gLargest.store(0, std::memory_order_relaxed);
}

}  // namespace zorcam_test

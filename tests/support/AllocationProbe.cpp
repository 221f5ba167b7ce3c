#include "AllocationProbe.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Each block carries its size in front of it, so that the unsized delete can count it back.
constexpr size_t kHeader = alignof(std::max_align_t);

std::atomic<size_t> gLargest{0};
std::atomic<size_t> gHeld{0};
std::atomic<size_t> gPeak{0};
std::atomic<size_t> gBase{0};  // held at the last resetPeakBytes()
std::atomic<size_t> gFailIn{0};

void raise(std::atomic<size_t>& to, size_t value) {
    size_t seen = to.load(std::memory_order_relaxed);
    while (value > seen && !to.compare_exchange_weak(seen, value, std::memory_order_relaxed)) {
    }
}

}  // namespace

void* operator new(std::size_t n) {
    size_t fail = gFailIn.load(std::memory_order_relaxed);
    while (fail != 0 && !gFailIn.compare_exchange_weak(fail, fail - 1, std::memory_order_relaxed)) {
    }
    if (fail == 1) throw std::bad_alloc();
    raise(gLargest, n);
    auto* block = static_cast<unsigned char*>(std::malloc(n + kHeader));
    if (block == nullptr) throw std::bad_alloc();
    *reinterpret_cast<size_t*>(block) = n;
    raise(gPeak, gHeld.fetch_add(n, std::memory_order_relaxed) + n);
    return block + kHeader;
}
void operator delete(void* p) noexcept {
    if (p == nullptr) return;
    auto* block = static_cast<unsigned char*>(p) - kHeader;
    gHeld.fetch_sub(*reinterpret_cast<size_t*>(block), std::memory_order_relaxed);
    std::free(block);
}
void operator delete(void* p, std::size_t) noexcept {
    operator delete(p);
}

namespace zorcam_test {

size_t largestAllocation() {
    return gLargest.load(std::memory_order_relaxed);
}
void resetLargestAllocation() {
    gLargest.store(0, std::memory_order_relaxed);
}
size_t peakBytes() {
    return gPeak.load(std::memory_order_relaxed) - gBase.load(std::memory_order_relaxed);
}
void resetPeakBytes() {
    const size_t held = gHeld.load(std::memory_order_relaxed);
    gBase.store(held, std::memory_order_relaxed);
    gPeak.store(held, std::memory_order_relaxed);
}
void failAllocation(size_t n) {
    gFailIn.store(n, std::memory_order_relaxed);
}

}  // namespace zorcam_test

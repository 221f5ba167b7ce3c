// The per-thread block caches of the reclamation module (declared in Readers.h).
#include "Readers.h"

#include <cstdint>

namespace NSCam {
namespace pool {
namespace {

constexpr size_t kClasses = kMaxPooled / kGranule;

size_t classOf(size_t bytes) {
    return (bytes + kGranule - 1) / kGranule - 1;
}

#if defined(__SANITIZE_ADDRESS__)
// Under AddressSanitizer every block goes back to the heap, so that a use after free of a
// pooled object is still caught.
constexpr bool kPooling = false;
#else
constexpr bool kPooling = true;
#endif

// One thread's spare blocks: per size class, a list threaded through the blocks themselves.
// Trivially constructed and destroyed, so that reaching it is one look at thread-local
// storage with no guard; a separate object frees the blocks when the thread exits.
struct Cache {
    void* head[kClasses];
    uint32_t count[kClasses];
    bool owned;  // the freeing object exists
};
thread_local Cache tCache;

struct CacheOwner {
    ~CacheOwner() {
        Cache& c = tCache;
        readers::markThreadExiting();  // blocks go straight to the heap from now on
        for (void* block : c.head) {
            while (block != nullptr) {
                void* next = *static_cast<void**>(block);
                ::operator delete(block);
                block = next;
            }
        }
    }
};

// The thread's cache, or null when blocks must come from and go to the heap.
Cache* cache(size_t bytes) {
    if (!kPooling || bytes == 0 || bytes > kMaxPooled) return nullptr;
    Cache& c = tCache;
    if (readers::threadExiting()) return nullptr;
    if (!c.owned) {
        thread_local CacheOwner owner;
        c.owned = true;
    }
    return &c;
}

}  // namespace

void* take(size_t bytes) {
    Cache* c = cache(bytes);
    if (c == nullptr) return ::operator new(bytes);
    const size_t k = classOf(bytes);
    if (void* block = c->head[k]) {
        c->head[k] = *static_cast<void**>(block);
        --c->count[k];
        return block;
    }
    return ::operator new((k + 1) * kGranule);
}

void give(void* block, size_t bytes) noexcept {
    if (block == nullptr) return;
    Cache* c = cache(bytes);
    const size_t k = classOf(bytes);
    if (c == nullptr || c->count[k] >= kKeptPerClass) {
        ::operator delete(block);
        return;
    }
    *static_cast<void**>(block) = c->head[k];
    c->head[k] = block;
    ++c->count[k];
}

}  // namespace pool
}  // namespace NSCam

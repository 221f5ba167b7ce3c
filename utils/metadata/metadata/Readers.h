#pragma once
// Reclamation: reading a container without taking its lock, the deferred release that makes
// it safe, and the per-thread block caches that both draw on. One module, one contract.
//
// The contract.
//  1. What a reader without the lock may reach (a library-made storage, a table's
//     directories, chunks, slot indexes and side indexes) is made here and nowhere else: its
//     constructor takes a `Made`, which only this module can create (`emplace`, and the
//     DeferredAllocator for storages). A storage made any other way (a caller's
//     std::make_shared) is never admitted: readers take the container's lock for it.
//  2. A reader reads inside a `Section`, and its first load of what the section protects is
//     an acquire load. A section pins nothing on an exiting thread (`pinned()` false): such a
//     reader takes the lock.
//  3. Whoever drops the last link to something a reader may still be following hands it to
//     `retire`, never releases it at once; what it retires later is released later: releases
//     go in the order of their retires, on any thread (a storage's destruction before the
//     return of its block).
//  4. What was retired is released once every section that was open at the retire has
//     closed; a section open for ever holds back every release, nothing else does.
//
// How. A section records the epoch it began in; what was retired in epoch e is released once
// the epoch has advanced twice, which needs every reader in a section to have seen the newer
// epoch or left. A section is one store to the thread's own record, ordered before the
// section's reads by the other side: whoever scans the records first makes every thread of
// the process pass a full barrier (the kernel's membarrier; where it is missing, each section
// fences itself). retire() puts the item in a fixed ring of batches of the thread's own; a
// full batch is sealed with the epoch and released two epochs later. Nothing is shared between
// readers, so readers of one container on many threads do not slow each other down.
//
// The blocks every request makes and drops (contents, storages, row chunks) come from
// fixed-size classes kept per thread, so that the steady state allocates nothing and takes no
// lock; a block freed on another thread than the one that made it joins that thread's cache.
//
// Thread safety: every function may be called from any thread.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "Sync.h"

// The thread's own state is reached on every section. Where the C library lets a library
// loaded late keep it in the static TLS block (glibc), one instruction reaches it; elsewhere
// (bionic refuses such a library at dlopen) the dynamic model stays.
#if defined(__GLIBC__)
#define ZORCAM_TLS_STATIC __attribute__((tls_model("initial-exec")))
#else
#define ZORCAM_TLS_STATIC
#endif

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

// Plugs the blocks into std::allocate_shared, so that an object and its reference counts share
// one block: `std::allocate_shared<Content>(PoolAllocator<Content>())`. For objects no reader
// without the lock reaches.
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

namespace readers {

// Retired items a thread collects before it tries to release them.
constexpr size_t kBatch = 64;
// Batches in a thread's ring; when every one waits for readers, the oldest moves aside.
constexpr uint32_t kBatches = 8;

// The epoch a thread's section began in (0: the thread is in no section). One cache line
// each, written only by its thread, so that readers never share a line they write.
struct alignas(64) Record {
    std::atomic<uint64_t> epoch{0};
    std::atomic<bool> used{true};
    Record* next = nullptr;  // fixed before the record is published
};

// What every section and retire touches: trivially constructed and destroyed, so that
// reaching it is one look at thread-local storage with no guard.
struct Thread {
    Record* record;       // null until the thread's first section
    int depth;            // sections open
    struct Local* local;  // null until the thread's first section or retire
    bool gone;            // the thread is exiting (see threadExiting)
};
extern thread_local Thread tThread ZORCAM_TLS_STATIC;

// Whether this thread is exiting: from the first teardown of the library's per-thread state on
// (the retired batches, the block caches, the release loop of nested containers, in whatever
// order the thread's destructors run), every per-thread facility takes its plain path:
// sections pin nothing, retired items go to the threads that stay, blocks go to the heap,
// nested containers are released at once. The one flag for all of them.
inline bool threadExiting() {
    return tThread.gone;
}
inline void markThreadExiting() {
    tThread.gone = true;
}
extern std::atomic<uint64_t> gEpoch;
// Whether readers leave their fence to the other side (see Readers.cpp).
extern const bool gAsymmetric;
// The first section of a thread: its record.
Record* enter(Thread& t);

// The first load a section makes of the data it protects must be an acquire load.
class Section {
public:
    Section() : mThread(nullptr) {
        Thread& t = tThread;
        if (__builtin_expect(t.gone, 0)) return;  // an exiting thread reads nothing unlocked
        mThread = &t;
        if (t.depth++ != 0) return;
        Record* r = __builtin_expect(t.record != nullptr, 1) ? t.record : enter(t);
        // Whoever reads this announcement after a process-wide fence also sees that the
        // thread's earlier sections (whose reads come before it) are over.
        r->epoch.store(gEpoch.load(std::memory_order_acquire), std::memory_order_release);
        // The announcement comes before anything the section reads.
        if (gAsymmetric)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        else
            fullFence();
    }
    ~Section() {
        if (mThread == nullptr) return;
        Thread& t = *mThread;
        if (--t.depth == 0) t.record->epoch.store(0, std::memory_order_release);
    }
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    // False on a thread that is exiting: it must take the lock instead.
    bool pinned() const { return mThread != nullptr; }

private:
    Thread* mThread;
};

// Lets go of `item`, by calling `release(item)`, once no reader in a section can still reach
// it. `weight` says how much it may hold (a whole table weighs more than one chunk): a thread
// seals a batch of retired items once they number or weigh kBatch.
void retire(void* item, void (*release)(void*), size_t weight = 1) noexcept;

// Releases what can be released now, on this thread (for tests and for idle moments).
void collect();

template <typename T, size_t Weight>
struct DeferredAllocator;

// The proof that this module made an object: the constructors of what readers without the lock
// may reach take one, and nothing outside the module can make one.
class Made {
    constexpr Made() noexcept {}  // user-provided: `Made{}` is no aggregate initialisation
    template <typename T, typename... Args>
    friend T* emplace(void* memory, Args&&... args);
    template <typename T, size_t Weight>
    friend struct DeferredAllocator;
};

// Builds a T in `memory` (a block of the caches, or of a pool of the caller's) for readers
// without the lock to reach.
template <typename T, typename... Args>
T* emplace(void* memory, Args&&... args) {
    return ::new (memory) T(Made(), std::forward<Args>(args)...);
}

// What a storage-like object must do once the DeferredAllocator made it: mark itself as one
// whose destruction waits for readers, so that they may read it (see the storage).
template <typename T>
struct Admission {
    static void admit(T&, Made) {}
};

// What an object weighs in a batch beyond its allocator's Weight. A type whose objects may
// hold much more than their own block (a storage of thousands of nested containers) says so
// by specialising this, so that a few of them seal a batch and go soon, instead of waiting
// for a batch of dozens to fill while they hold megabytes.
template <typename T>
struct ExtraWeight {
    static size_t of(const T&) { return 0; }
};

// For std::allocate_shared of what readers without a lock may reach (storages): when its last
// reference goes, the object is destroyed, and its pooled block given back, only once no such
// reader can still be looking at it. Whoever drops that reference (a container, an entry, a
// caller's own copy) need not know about readers.
template <typename T, size_t Weight = 1>
struct DeferredAllocator {
    using value_type = T;
    template <typename U>
    struct rebind {
        using other = DeferredAllocator<U, Weight>;
    };

    DeferredAllocator() = default;
    template <typename U>
    DeferredAllocator(const DeferredAllocator<U, Weight>&) {}

    T* allocate(size_t n) { return static_cast<T*>(pool::take(n * sizeof(T))); }
    // The object is destroyed through retire() only: readers may be admitted to it.
    template <typename U, typename... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
        Admission<U>::admit(*p, Made());
    }
    void deallocate(T* p, size_t n) noexcept {
        if (n == 1)
            retire(p, [](void* block) { pool::give(block, sizeof(T)); });
        else
            pool::give(p, n * sizeof(T));  // never handed out: nobody can see it
    }
    template <typename U>
    void destroy(U* p) noexcept {
        retire(
            p, [](void* object) { static_cast<U*>(object)->~U(); },
            Weight + ExtraWeight<U>::of(*p));
    }

    template <typename U>
    bool operator==(const DeferredAllocator<U, Weight>&) const {
        return true;
    }
    template <typename U>
    bool operator!=(const DeferredAllocator<U, Weight>&) const {
        return false;
    }
};

}  // namespace readers
}  // namespace NSCam

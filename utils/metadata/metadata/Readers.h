#pragma once
// Reading a container without taking its lock, and the deferred release that makes it safe.
//
// A reader that takes no lock may still be following pointers into a container's table while
// a writer replaces what they point to. Such a reader announces itself for the time of its
// read (a Section); a writer that drops something such a reader may still reach hands it to
// retire() instead of releasing it, and it is released once every reader that might have
// reached it has left. The scheme counts epochs: a section records the epoch it began in,
// and what was retired in epoch e is released once the epoch has advanced twice, which
// needs every reader in a section to have seen the newer epoch or left.
//
// A section is one store to the thread's own record, ordered before the section's reads by
// the other side: whoever scans the records first makes every thread of the process pass a
// full barrier (the kernel's membarrier; where it is missing, each section fences itself).
// retire() puts the item in a fixed ring of batches of the thread's own; a full batch is
// sealed with the epoch and released two epochs later. Nothing is shared between readers, so
// readers of one container on many threads do not slow each other down.
//
// Thread safety: every function may be called from any thread.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "Pool.h"
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
namespace readers {

// Retired items a thread collects before it tries to release them.
constexpr size_t kBatch = 64;

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
    bool gone;            // the thread is exiting: its Local is destroyed
};
extern thread_local Thread tThread ZORCAM_TLS_STATIC;
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

// What an object weighs in a batch beyond its allocator's Weight. A type whose objects may
// hold much more than their own block (a storage of thousands of nested containers) says so
// by specialising this, so that a few of them seal a batch and go soon, instead of waiting
// for a batch of dozens to fill while they hold megabytes.
template <typename T>
struct ExtraWeight {
    static size_t of(const T&) { return 0; }
};

// For std::allocate_shared of what readers without a lock may reach (contents, storages, row
// chunks): when its last reference goes, the object is destroyed, and its pooled block given
// back, only once no such reader can still be looking at it. Whoever drops that reference (a
// container, an entry, a caller's own copy) need not know about readers.
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
    void deallocate(T* p, size_t n) noexcept {
        if (n == 1)
            retire(p, [](void* block) { pool::give(block, sizeof(T)); });
        else
            pool::give(p, n * sizeof(T));  // never handed out: nobody can see it
    }
    template <typename U>
    void destroy(U* p) noexcept {
        retire(p, [](void* object) { static_cast<U*>(object)->~U(); },
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

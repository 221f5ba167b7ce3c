// Reclamation (the contract is in Readers.h): the process-wide barrier readers leave their fence
// to, the epochs, the ring of retired batches of each thread, and the orphans exited threads
// leave to the others.
#include "Readers.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#if defined(__linux__) && __has_include(<linux/membarrier.h>)
#include <linux/membarrier.h>
#define ZORCAM_HAVE_MEMBARRIER 1
#endif

#include <zorcam/metadata/ThreadSafety.h>

#include "Sync.h"

namespace NSCam {
namespace readers {
namespace {

std::atomic<Record*> gRecords{nullptr};  // grows only: records are reused, never freed

//------------------------------------------------------------------------------------------
// The fence between a reader's announcement and what it reads.
//
// A reader announces its section with a plain store and reads on at once; whoever wants to
// know which readers are in a section (tryAdvance) first makes every running thread of the
// process pass a full barrier (the kernel's membarrier), which orders each reader's
// announcement before its reads as its own fence would. Readers are many and frequent,
// advances are rare: the cost moves to the rare side. Where the kernel does not offer it, or
// under ThreadSanitizer (which cannot see that barrier), readers fence themselves.

bool registerBarrier() {
#if defined(ZORCAM_HAVE_MEMBARRIER) && !defined(ZORCAM_TSAN)
    const long offered = syscall(__NR_membarrier, MEMBARRIER_CMD_QUERY, 0, 0);
    if (offered < 0 || (offered & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return false;
    return syscall(__NR_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) == 0;
#else
    return false;
#endif
}

}  // namespace

// Set once at load; read by every section.
const bool gAsymmetric = registerBarrier();
std::atomic<uint64_t> gEpoch{1};

namespace {

// The other side: every reader's announcement made so far is visible, and ordered before
// what that reader reads next.
void processFence() {
#ifdef ZORCAM_HAVE_MEMBARRIER
    if (gAsymmetric && syscall(__NR_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0) == 0)
        return;
#endif
    fullFence();
}

//------------------------------------------------------------------------------------------
// Epochs

Record* acquireRecord() {
    for (Record* r = gRecords.load(std::memory_order_acquire); r != nullptr; r = r->next) {
        bool used = false;
        if (!r->used.load(std::memory_order_relaxed) &&
            r->used.compare_exchange_strong(used, true, std::memory_order_acquire))
            return r;
    }
    Record* r = new Record;
    Record* head = gRecords.load(std::memory_order_relaxed);
    do {
        r->next = head;
    } while (!gRecords.compare_exchange_weak(head, r, std::memory_order_release,
                                             std::memory_order_relaxed));
    return r;
}

// Advances the epoch when every thread in a section has seen the current one.
uint64_t tryAdvance() {
    uint64_t epoch = gEpoch.load(std::memory_order_acquire);
    processFence();
    for (Record* r = gRecords.load(std::memory_order_acquire); r != nullptr; r = r->next) {
        const uint64_t seen = r->epoch.load(std::memory_order_acquire);
        if (seen != 0 && seen != epoch) return epoch;
    }
    gEpoch.compare_exchange_strong(epoch, epoch + 1, std::memory_order_acq_rel,
                                   std::memory_order_acquire);
    return gEpoch.load(std::memory_order_acquire);
}

// Waits until every reader that is in a section now has left it: what was unreachable before
// the call may then be released at once.
void synchronize() {
    fullFence();
    const uint64_t start = gEpoch.load(std::memory_order_acquire);
    while (tryAdvance() < start + 2) std::this_thread::yield();
}

//------------------------------------------------------------------------------------------
// Retired items: a fixed ring of batches per thread

// One retired item and the function that lets go of it.
struct Retired {
    void* item;
    void (*release)(void*);
};

// Retired items of one thread, releasable once the epoch is two past `epoch`.
struct Batch {
    static constexpr uint32_t kItems = kBatch;
    uint64_t epoch = 0;
    uint64_t seq = 0;  // the order batches were sealed in, which is the order they go in
    uint32_t count = 0;
    uint32_t weight = 0;
    bool sealed = false;
    Retired items[kItems];
};

// A sealed batch the ring had no room for, in a block of its own sized to what it holds (a
// release of a received container of thousands of nested ones spills hundreds of batches of
// a few heavy items each: full-size blocks would weigh more than the items).
struct Spilled {
    uint64_t epoch;
    uint64_t seq;
    uint32_t count;
    std::unique_ptr<Retired[]> items;
};

// Lets go of a batch's items once it was taken out of its ring (its slot is free again:
// releasing may retire more).
void releaseAll(const Retired* items, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) items[i].release(items[i].item);
}

// What threads that have exited could not release yet.
struct Orphans {
    Mutex lock;
    // Held by the one thread that releases orphans. A thread's items depend on each other (a
    // storage's destruction must end before its block goes back), so they are released in the
    // order they were left and never two at once: two threads each taking the items ready for
    // them could return a block while the other still destroys what it held.
    Mutex releasing;
    std::vector<std::pair<uint64_t, Retired>> items ZORCAM_GUARDED_BY(lock);
    std::atomic<size_t> count{0};  // mirrors items.size(), so that an empty list costs no lock
};
Orphans& orphans() {
    static Orphans* const o = new Orphans;  // never destroyed: threads may exit after statics
    return *o;
}

}  // namespace

thread_local Thread tThread ZORCAM_TLS_STATIC;

struct Local {
    Record* record = nullptr;
    Batch batches[kBatches];
    uint32_t open = 0;  // the batch taking retired items
    bool collecting = false;
    std::vector<Spilled> spill;  // sealed batches the ring had no room for, oldest first
    uint64_t sealedBatches = 0;

    ~Local() {
        markThreadExiting();
        tThread.record = nullptr;
        tThread.local = nullptr;
        if (record != nullptr) {
            record->epoch.store(0, std::memory_order_release);
            record->used.store(false, std::memory_order_release);
        }
        if (batches[open].count != 0) stamp(batches[open]);
        // What is left goes to the threads that stay, or, without memory for that, is
        // released once the readers have left.
        try {
            Orphans& o = orphans();
            const MutexLock guard(o.lock);
            size_t total = 0;
            for (const Batch& b : batches) total += b.sealed ? b.count : 0;
            for (const Spilled& b : spill) total += b.count;
            o.items.reserve(o.items.size() + total);  // the one step that may throw
            // In the order they were sealed: what one item needs may be retired after it.
            for (const Spilled& b : spill)
                for (uint32_t i = 0; i < b.count; ++i) o.items.emplace_back(b.epoch, b.items[i]);
            spill.clear();
            for (;;) {
                Batch* next = nullptr;
                for (Batch& b : batches)
                    if (b.sealed && (next == nullptr || b.seq < next->seq)) next = &b;
                if (next == nullptr) break;
                for (uint32_t i = 0; i < next->count; ++i)
                    o.items.emplace_back(next->epoch, next->items[i]);
                next->sealed = false;
                next->count = 0;
            }
            o.count.store(o.items.size(), std::memory_order_relaxed);
        } catch (const std::bad_alloc&) {
            synchronize();
            for (const Spilled& b : spill) releaseAll(b.items.get(), b.count);
            for (;;) {
                Batch* next = nullptr;
                for (Batch& b : batches)
                    if (b.sealed && (next == nullptr || b.seq < next->seq)) next = &b;
                if (next == nullptr) break;
                next->sealed = false;
                releaseAll(next->items, next->count);
            }
        }
    }

    // The epoch after the fence is no earlier than any reader that could still reach what
    // the batch holds: everything in it was unreachable before the fence.
    void stamp(Batch& b) {
        fullFence();
        b.epoch = gEpoch.load(std::memory_order_acquire);
        b.seq = ++sealedBatches;
        b.sealed = true;
    }

    // Takes batch `i` out of the ring into `out` (when given; its slot is free again); its
    // count.
    uint32_t takeOut(uint32_t i, Retired* out) {
        Batch& b = batches[i];
        const uint32_t n = b.count;
        if (out != nullptr)
            for (uint32_t k = 0; k < n; ++k) out[k] = b.items[k];
        b.count = 0;
        b.weight = 0;
        b.sealed = false;
        return n;
    }

    // Seals the open batch and opens a free one. When every batch waits for readers (a
    // release under way retires a long chain of nested containers), the oldest moves to a
    // block of its own on the spill list; without memory for that, it is released once the
    // readers now in a section have left.
    void seal() {
        stamp(batches[open]);
        for (uint32_t step = 1; step < kBatches; ++step) {
            const uint32_t i = (open + step) % kBatches;
            if (!batches[i].sealed) {
                open = i;
                return;
            }
        }
        uint32_t oldest = (open + 1) % kBatches;
        for (uint32_t i = 0; i < kBatches; ++i)
            if (batches[i].seq < batches[oldest].seq) oldest = i;
        try {
            const Batch& b = batches[oldest];
            spill.push_back(Spilled{b.epoch, b.seq, b.count, std::make_unique<Retired[]>(b.count)});
            takeOut(oldest, spill.back().items.get());
        } catch (const std::bad_alloc&) {
            Retired items[Batch::kItems];
            const uint32_t n = takeOut(oldest, items);
            open = oldest;
            synchronize();
            releaseAll(items, n);
            return;
        }
        open = oldest;
    }

    // Releases the spilled batches the readers let go of that were sealed before `before`.
    // They are in the order they were sealed, and epochs never go back: those lead.
    bool collectSpill(uint64_t now, uint64_t before) {
        size_t ready = 0;
        while (ready < spill.size() && spill[ready].epoch + 2 <= now && spill[ready].seq < before)
            ++ready;
        if (ready == 0) return false;
        std::vector<Spilled> taken;
        try {
            taken.reserve(ready);
        } catch (const std::bad_alloc&) {
            return false;  // for a later round
        }
        for (size_t i = 0; i < ready; ++i) taken.push_back(std::move(spill[i]));
        spill.erase(spill.begin(), spill.begin() + static_cast<std::ptrdiff_t>(ready));
        for (const Spilled& b : taken) releaseAll(b.items.get(), b.count);
        return true;
    }

    void add(void* item, void (*release)(void*), size_t weight) {
        Batch& b = batches[open];
        b.items[b.count++] = Retired{item, release};
        b.weight += static_cast<uint32_t>(weight);
        if (b.count < Batch::kItems && b.weight < Batch::kItems) return;
        seal();
        // Releasing may retire many more (a container's nested containers): while it is
        // under way they are sealed in full batches, for the next round.
        if (!collecting) collect();
    }

    // Releases the batches the readers let go of. Releasing may retire more (a storage's
    // chunks, a nested container's storage): the next round takes those, for as long as the
    // readers let the epoch advance, so that a chain of nested containers goes in one call.
    void collect() {
        if (collecting) return;
        collecting = true;
        for (;;) {
            if (batches[open].count != 0) seal();
            tryAdvance();
            const uint64_t now = tryAdvance();
            // Oldest first: what one item needs (a block's storage) may be retired after it.
            // Releasing may spill a batch of the ring that is older than the next one here,
            // so the spill is looked at before each batch of the ring.
            bool released = false;
            for (;;) {
                uint32_t next = kBatches;
                for (uint32_t i = 0; i < kBatches; ++i)
                    if (batches[i].sealed && batches[i].epoch + 2 <= now &&
                        (next == kBatches || batches[i].seq < batches[next].seq))
                        next = i;
                if (!spill.empty() && spill.front().epoch + 2 <= now &&
                    (next == kBatches || spill.front().seq < batches[next].seq)) {
                    released |=
                        collectSpill(now, next == kBatches ? UINT64_MAX : batches[next].seq);
                    continue;
                }
                if (next == kBatches) break;
                Retired items[Batch::kItems];
                const uint32_t n = takeOut(next, items);
                releaseAll(items, n);
                released = true;
            }
            released |= collectOrphans(now);
            if (!released || batches[open].count == 0) break;
        }
        collecting = false;
    }

    static bool collectOrphans(uint64_t now) {
        Orphans& o = orphans();
        if (o.count.load(std::memory_order_relaxed) == 0) return false;
        // Another thread releasing orphans takes these too, in order, later.
        if (!o.releasing.try_lock()) return false;
        const MutexLock releasing(o.releasing, std::adopt_lock);
        std::vector<Retired> ready;
        {
            if (!o.lock.try_lock()) return false;
            const MutexLock guard(o.lock, std::adopt_lock);
            size_t kept = 0;
            for (size_t i = 0; i < o.items.size(); ++i) {
                if (o.items[i].first + 2 <= now) {
                    try {
                        ready.push_back(o.items[i].second);
                        continue;
                    } catch (const std::bad_alloc&) {
                        // Kept for a later round.
                    }
                }
                o.items[kept++] = o.items[i];
            }
            o.items.resize(kept);
            o.count.store(kept, std::memory_order_relaxed);
        }
        releaseAll(ready.data(), static_cast<uint32_t>(ready.size()));
        return !ready.empty();
    }
};

namespace {

Local& local(Thread& t) {
    if (t.local == nullptr) {
        // Made once per thread; destroyed (releasing the record and handing on what is left)
        // when the thread exits.
        thread_local Local l;
        t.local = &l;
    }
    return *t.local;
}

}  // namespace

Record* enter(Thread& t) {
    Local& l = local(t);
    if (l.record == nullptr) l.record = acquireRecord();
    t.record = l.record;
    return t.record;
}

namespace {

void retireItem(void* item, void (*release)(void*), size_t weight) noexcept {
    Thread& t = tThread;
    // While the thread's ring exists, items go into it, also once the thread is exiting (the
    // flag may be set by another facility's teardown first): the ring is handed over whole
    // when it goes, so what was retired into it stays before what comes after.
    if (t.local != nullptr) {
        t.local->add(item, release, weight);
        return;
    }
    if (!t.gone) {
        local(t).add(item, release, weight);
        return;
    }
    // The thread is exiting: its retired items go to the threads that stay.
    try {
        Orphans& o = orphans();
        const MutexLock guard(o.lock);
        fullFence();
        o.items.emplace_back(gEpoch.load(std::memory_order_acquire), Retired{item, release});
        o.count.store(o.items.size(), std::memory_order_relaxed);
    } catch (const std::bad_alloc&) {
        // No memory to defer the release: wait out the readers instead.
        synchronize();
        release(item);
    }
}

}  // namespace

void retire(void* item, void (*release)(void*), size_t weight) noexcept {
    if (item != nullptr) retireItem(item, release, weight);
}

void collect() {
    Thread& t = tThread;
    if (!t.gone) local(t).collect();
}

}  // namespace readers
}  // namespace NSCam

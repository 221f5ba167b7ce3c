#include "Readers.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "Sync.h"

namespace NSCam {
namespace readers {
namespace {

// The epoch a thread's section began in (0: the thread is in no section). One cache line
// each, written only by its thread, so that readers never share a line they write.
struct alignas(64) Record {
    std::atomic<uint64_t> epoch{0};
    std::atomic<bool> used{true};
    Record* next = nullptr;  // fixed before the record is published
};

std::atomic<uint64_t> gEpoch{1};
std::atomic<Record*> gRecords{nullptr};  // grows only: records are reused, never freed

// One retired item: a reference, or something with the function that lets go of it.
struct Item {
    std::shared_ptr<void> reference;
    void* raw = nullptr;
    void (*release)(void*) = nullptr;

    Item(std::shared_ptr<void>&& r) : reference(std::move(r)) {}
    Item(void* p, void (*fn)(void*)) : raw(p), release(fn) {}
    Item(Item&& o) noexcept
        : reference(std::move(o.reference)),
          raw(o.raw),
          release(std::exchange(o.release, nullptr)) {}
    Item& operator=(Item&& o) noexcept {
        if (this != &o) {
            letGo();
            reference = std::move(o.reference);
            raw = o.raw;
            release = std::exchange(o.release, nullptr);
        }
        return *this;
    }
    ~Item() { letGo(); }
    void letGo() {
        if (release != nullptr) std::exchange(release, nullptr)(raw);
        reference.reset();
    }
};

// Items retired together, releasable once the epoch is two past `epoch`.
struct Sealed {
    uint64_t epoch;
    std::vector<Item> items;
};

// What threads that have exited could not release yet.
struct Orphans {
    std::mutex lock;
    std::vector<Sealed> sealed;
    std::atomic<size_t> count{0};  // mirrors sealed.size(), so that an empty list costs no lock
};
Orphans& orphans() {
    static Orphans* const o = new Orphans;  // never destroyed: threads may exit after statics
    return *o;
}

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
    fullFence();
    for (Record* r = gRecords.load(std::memory_order_acquire); r != nullptr; r = r->next) {
        const uint64_t seen = r->epoch.load(std::memory_order_acquire);
        if (seen != 0 && seen != epoch) return epoch;
    }
    gEpoch.compare_exchange_strong(epoch, epoch + 1, std::memory_order_acq_rel,
                                   std::memory_order_acquire);
    return gEpoch.load(std::memory_order_acquire);
}

// Takes the sealed batches whose epoch is two behind `now` out of `sealed` (into `out`),
// keeping the rest in order. Releasing them is the caller's, once `sealed` is whole again:
// releasing may seal new batches onto it.
void takeOld(std::vector<Sealed>& sealed, uint64_t now, std::vector<Sealed>& out) {
    size_t kept = 0;
    for (size_t i = 0; i < sealed.size(); ++i) {
        if (sealed[i].epoch + 2 <= now) {
            try {
                out.push_back(std::move(sealed[i]));
                continue;
            } catch (const std::bad_alloc&) {
                // Kept for a later round.
            }
        }
        if (kept != i) sealed[kept] = std::move(sealed[i]);
        ++kept;
    }
    sealed.resize(kept);
}

// Waits until every reader that is in a section now has left it: what was unreachable before
// the call may then be released at once. Only for when memory to defer a release is lacking.
void synchronize() {
    fullFence();
    const uint64_t start = gEpoch.load(std::memory_order_acquire);
    while (tryAdvance() < start + 2) std::this_thread::yield();
}

// What every section and retire touches, kept apart from the Local so that reaching it is
// one look at thread-local storage with no guard: trivially constructed and destroyed.
struct Thread {
    Record* record;       // null until the thread's first section
    int depth;            // sections open
    struct Local* local;  // null until the thread's first section or retire
    bool gone;            // the thread is exiting: its Local is destroyed
};
thread_local Thread tThread;

struct Local {
    Record* record = nullptr;
    int depth = 0;
    std::vector<Item> bag;  // retired, not yet sealed
    size_t weight = 0;      // of what the bag holds
    std::vector<Sealed> sealed;
    std::vector<Sealed> releasing;          // scratch of collect()
    std::vector<std::vector<Item>> spare;   // emptied batches, kept for the next bags
    bool collecting = false;

    ~Local() {
        tThread.gone = true;
        tThread.record = nullptr;
        tThread.local = nullptr;
        if (record != nullptr) {
            record->epoch.store(0, std::memory_order_release);
            record->used.store(false, std::memory_order_release);
        }
        seal();
        if (sealed.empty()) return;
        try {
            Orphans& o = orphans();
            std::lock_guard<std::mutex> guard(o.lock);
            o.sealed.reserve(o.sealed.size() + sealed.size());
            for (Sealed& s : sealed) o.sealed.push_back(std::move(s));
            o.count.store(o.sealed.size(), std::memory_order_relaxed);
        } catch (const std::bad_alloc&) {
            synchronize();
        }
        sealed.clear();
    }

    // The epoch after the fence is no earlier than any reader that could still reach what
    // the bag holds: everything in it was unreachable before the fence.
    void seal() {
        if (bag.empty()) return;
        try {
            sealed.reserve(sealed.size() + 1);
        } catch (const std::bad_alloc&) {
            synchronize();
            bag.clear();
            weight = 0;
            return;
        }
        fullFence();
        sealed.push_back(Sealed{gEpoch.load(std::memory_order_acquire), std::move(bag)});
        bag = std::vector<Item>();
        weight = 0;
        if (!spare.empty()) {
            bag = std::move(spare.back());
            spare.pop_back();
        }
    }

    void release(std::vector<Sealed>& batches) {
        for (Sealed& batch : batches) {
            batch.items.clear();
            if (spare.size() < 4) {
                try {
                    spare.push_back(std::move(batch.items));
                } catch (const std::bad_alloc&) {
                }
            }
        }
        batches.clear();
    }

    // Releasing may retire more (a storage's contents, a nested container's storage): the
    // next round takes those, for as long as the readers let the epoch advance, so that a
    // chain of nested containers goes in one call and without a call per level.
    void collect() {
        if (collecting) return;
        collecting = true;
        for (;;) {
            seal();
            tryAdvance();
            const uint64_t now = tryAdvance();
            takeOld(sealed, now, releasing);
            Orphans& o = orphans();
            if (o.count.load(std::memory_order_relaxed) != 0) {
                std::unique_lock<std::mutex> guard(o.lock, std::try_to_lock);
                if (guard.owns_lock()) {
                    takeOld(o.sealed, now, releasing);
                    o.count.store(o.sealed.size(), std::memory_order_relaxed);
                }
            }
            const bool dropped = !releasing.empty();
            release(releasing);
            if (!dropped || bag.empty()) break;
        }
        collecting = false;
    }
};

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

Section::Section() : mThread(nullptr) {
    Thread& t = tThread;
    if (t.gone) return;  // an exiting thread reads nothing without locks
    mThread = &t;
    if (t.depth++ != 0) return;
    if (t.record == nullptr) {
        Local& l = local(t);
        if (l.record == nullptr) l.record = acquireRecord();
        t.record = l.record;
    }
    // A release store: whoever reads this announcement also sees that the thread's earlier
    // sections (whose reads come before it) are over.
    t.record->epoch.store(gEpoch.load(std::memory_order_acquire), std::memory_order_release);
    fullFence();  // the announcement is visible before anything the section reads
}

Section::~Section() {
    if (mThread == nullptr) return;
    Thread& t = *static_cast<Thread*>(mThread);
    if (--t.depth == 0) t.record->epoch.store(0, std::memory_order_release);
}

namespace {

void retireItem(Item&& item, size_t weight) noexcept {
    try {
        Thread& t = tThread;
        if (t.gone) {
            // The thread is exiting: its retired items go to the threads that stay.
            Orphans& o = orphans();
            std::lock_guard<std::mutex> guard(o.lock);
            o.sealed.reserve(o.sealed.size() + 1);
            Sealed one{0, {}};
            one.items.reserve(1);
            fullFence();
            one.epoch = gEpoch.load(std::memory_order_acquire);
            one.items.push_back(std::move(item));  // nothing below can throw
            o.sealed.push_back(std::move(one));
            o.count.store(o.sealed.size(), std::memory_order_relaxed);
            return;
        }
        Local& l = local(t);
        if (l.bag.capacity() == 0) l.bag.reserve(kBatch);  // batches stay small blocks
        l.bag.push_back(std::move(item));
        l.weight += weight;
        if (l.collecting) {
            // Releasing may retire many more (a container's nested containers): while it is
            // under way they are sealed in full batches, for the next round, so that a long
            // chain does not make a long list of short ones.
            if (l.bag.size() >= kBatch) l.seal();
        } else if (l.bag.size() >= kBatch || l.weight >= kBatch) {
            l.collect();
        }
    } catch (const std::bad_alloc&) {
        // No memory to defer the release: wait out the readers instead.
        synchronize();
        item.letGo();
    }
}

}  // namespace

void retire(std::shared_ptr<void>&& item) noexcept {
    if (item) retireItem(Item(std::move(item)), 1);
}

void retire(void* item, void (*release)(void*), size_t weight) noexcept {
    if (item != nullptr) retireItem(Item(item, release), weight);
}

void collect() {
    Thread& t = tThread;
    if (!t.gone) local(t).collect();
}

}  // namespace readers
}  // namespace NSCam

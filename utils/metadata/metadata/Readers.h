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
// A section is one store to the thread's own record and one full fence; retire() is a push
// onto a list of the thread's own, drained every kBatch items. Nothing is shared between
// readers, so readers of one container on many threads do not slow each other down.
//
// Thread safety: every function may be called from any thread.
#include <cstddef>
#include <memory>

#include "Pool.h"

namespace NSCam {
namespace readers {

// Retired items a thread collects before it tries to release them.
constexpr size_t kBatch = 64;

// The first load a section makes of the data it protects must be an acquire load.
class Section {
public:
    Section();
    ~Section();
    Section(const Section&) = delete;
    Section& operator=(const Section&) = delete;
    // False on a thread that is exiting: it must take the lock instead.
    bool pinned() const { return mThread != nullptr; }

private:
    void* mThread;  // the thread's record of its sections
};

// Lets go of `item` once no reader in a section can still reach it.
void retire(std::shared_ptr<void>&& item) noexcept;
// The same for something that is let go of by calling `release(item)`. `weight` says how much
// it may hold (a whole table weighs more than one value): a thread's retired items are
// released once they weigh kBatch.
void retire(void* item, void (*release)(void*), size_t weight = 1) noexcept;

// Releases what can be released now, on this thread (for tests and for idle moments).
void collect();

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
        retire(p, [](void* object) { static_cast<U*>(object)->~U(); }, Weight);
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

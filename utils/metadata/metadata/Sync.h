#pragma once
// Small concurrency helpers shared by the library's sources.
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <thread>

#include <time.h>

#include <zorcam/metadata/ThreadSafety.h>

#if defined(__SANITIZE_THREAD__)
#define ZORCAM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZORCAM_TSAN 1
#endif
#endif

namespace NSCam {

// True when `p` is the only owner of what it points to, ordered after everything the former
// other owners did with it before they let go: only then may the caller change it in place or
// hand it to a pool. The owner count is read relaxed; the acquire makes the answer safe to act
// on (the releasing decrement of the count is a release).
template <typename T>
bool soleOwner(const std::shared_ptr<T>& p) {
    if (p.use_count() != 1) return false;
#ifdef ZORCAM_TSAN
    // ThreadSanitizer does not model fences: an increment of the same count acquires alike.
    const std::shared_ptr<T> probe(p);
#else
    std::atomic_thread_fence(std::memory_order_acquire);
#endif
    return true;
}

// Fences: `kOrder` release and acquire for the sequence count of a container (see
// IMetadata::readWithoutLock), seq_cst for the readers' announcements (Readers.cpp).
// ThreadSanitizer does not model fences (and warns on them); there a read-modify-write of one
// word, shared by every fence, stands in, which orders at least as strongly on the hardware
// the tests run on.
#ifdef ZORCAM_TSAN
inline std::atomic<uint32_t>& fenceWord() {
    static std::atomic<uint32_t> word{0};
    return word;
}
#endif
template <std::memory_order kOrder>
inline void fence() {
#ifdef ZORCAM_TSAN
    constexpr std::memory_order rmw =
        kOrder == std::memory_order_seq_cst ? kOrder : std::memory_order_acq_rel;
    fenceWord().fetch_add(0, rmw);
#else
    std::atomic_thread_fence(kOrder);
#endif
}
inline void releaseFence() {
    fence<std::memory_order_release>();
}
inline void acquireFence() {
    fence<std::memory_order_acquire>();
}
inline void fullFence() {
    fence<std::memory_order_seq_cst>();
}

// Bytes that a writer changes in place while readers without the lock may copy them: the
// readers copy under a container's sequence count and throw away what they copied when the
// count moved, as a sequence lock's readers do. The copies go by plain loads and stores
// (element-sized where they can); under ThreadSanitizer, which cannot see the sequence count's
// reasoning, byte by byte with relaxed atomics on both sides, which it can.
inline void copyFixed(void* to, const void* from, size_t n) {
    switch (n) {
        case 1:
            std::memcpy(to, from, 1);
            break;
        case 4:
            std::memcpy(to, from, 4);
            break;
        case 8:
            std::memcpy(to, from, 8);
            break;
        case 16:
            std::memcpy(to, from, 16);
            break;
        default:
            std::memcpy(to, from, n);
            break;
    }
}
// Reads bytes that a writer may be changing (see above).
inline void readRacing(void* to, const void* from, size_t n) {
#ifdef ZORCAM_TSAN
    auto* d = static_cast<uint8_t*>(to);
    auto* s = static_cast<const uint8_t*>(from);
    for (size_t i = 0; i < n; ++i) d[i] = __atomic_load_n(s + i, __ATOMIC_RELAXED);
#else
    copyFixed(to, from, n);
#endif
}
// Writes bytes that readers without the lock may be copying (see above).
inline void writeRacing(void* to, const void* from, size_t n) {
#ifdef ZORCAM_TSAN
    auto* d = static_cast<uint8_t*>(to);
    auto* s = static_cast<const uint8_t*>(from);
    for (size_t i = 0; i < n; ++i) __atomic_store_n(d + i, s[i], __ATOMIC_RELAXED);
#else
    copyFixed(to, from, n);
#endif
}

// One step of waiting for a lock held by another thread, `waited` steps in: a pause of the core
// first (the holder is likely running, a few instructions from letting go), then a yield, then
// a short sleep. Camera threads run at real-time priority, where a thread that only spins or
// yields can keep a lower-priority holder from ever running again.
inline void backOff(unsigned waited) {
    if (waited < 64) {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#elif defined(__aarch64__) || defined(__arm__)
        asm volatile("yield" ::: "memory");
#endif
    } else if (waited < 128) {
        std::this_thread::yield();
    } else {
        const timespec pause = {0, 50 * 1000};  // 50 us
        nanosleep(&pause, nullptr);
    }
}

// A lock of one byte for sections of a few instructions, which waits by backOff.
class ZORCAM_CAPABILITY("spin lock") SpinLock {
public:
    bool try_lock() ZORCAM_TRY_ACQUIRE(true) {
        return !mHeld.load(std::memory_order_relaxed) &&
               !mHeld.exchange(true, std::memory_order_acquire);
    }
    void lock() ZORCAM_ACQUIRE() {
        for (unsigned waited = 0; !try_lock(); ++waited) backOff(waited);
    }
    void unlock() ZORCAM_RELEASE() { mHeld.store(false, std::memory_order_release); }
    // Tells the analysis that the caller holds the lock (taken where it cannot follow).
    void assertHeld() const ZORCAM_ASSERT_CAPABILITY(this) {}

private:
    std::atomic<bool> mHeld{false};
};

}  // namespace NSCam

#pragma once
// Small concurrency helpers shared by the library's sources.
#include <atomic>
#include <cstdint>
#include <memory>

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

}  // namespace NSCam

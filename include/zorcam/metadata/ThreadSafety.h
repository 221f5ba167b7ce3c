#pragma once
// Locks the compiler checks. clang's -Wthread-safety reads these attributes: a member marked
// ZORCAM_GUARDED_BY(mLock) may only be touched while mLock is held, a function marked
// ZORCAM_REQUIRES(m.mLock) only called so; the library's clang build turns every breach into
// an error. Other compilers see nothing.
//
// Mutex is std::mutex (same layout, same behaviour) with the attributes the standard library
// does not carry; MutexLock is the scoped lock the analysis understands (std::lock_guard is
// not annotated, so the analysis would not see what it holds).
#include <mutex>

#if defined(__clang__)
#define ZORCAM_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ZORCAM_THREAD_ATTRIBUTE(x)
#endif

#define ZORCAM_CAPABILITY(name) ZORCAM_THREAD_ATTRIBUTE(capability(name))
#define ZORCAM_SCOPED_CAPABILITY ZORCAM_THREAD_ATTRIBUTE(scoped_lockable)
#define ZORCAM_GUARDED_BY(x) ZORCAM_THREAD_ATTRIBUTE(guarded_by(x))
#define ZORCAM_REQUIRES(...) ZORCAM_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZORCAM_ACQUIRE(...) ZORCAM_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZORCAM_RELEASE(...) ZORCAM_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZORCAM_TRY_ACQUIRE(...) ZORCAM_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZORCAM_ASSERT_CAPABILITY(x) ZORCAM_THREAD_ATTRIBUTE(assert_capability(x))
#define ZORCAM_EXCLUDES(...) ZORCAM_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
// For the few functions whose locking the analysis cannot follow (locks taken in an order
// chosen at run time); each says why where it is used.
#define ZORCAM_NO_THREAD_SAFETY_ANALYSIS ZORCAM_THREAD_ATTRIBUTE(no_thread_safety_analysis)

namespace NSCam {

class ZORCAM_CAPABILITY("mutex") Mutex : public std::mutex {
public:
    void lock() ZORCAM_ACQUIRE() { std::mutex::lock(); }
    void unlock() ZORCAM_RELEASE() { std::mutex::unlock(); }
    bool try_lock() ZORCAM_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
    // Tells the analysis that this thread holds the lock, where it was taken out of its sight
    // (a caller up the stack that runs a callback under it).
    void assertHeld() const ZORCAM_ASSERT_CAPABILITY(this) {}
};

class ZORCAM_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ZORCAM_ACQUIRE(mutex) : mMutex(mutex) { mMutex.lock(); }
    // Takes over a lock the caller holds (after a successful try_lock).
    MutexLock(Mutex& mutex, std::adopt_lock_t) ZORCAM_REQUIRES(mutex) : mMutex(mutex) {}
    ~MutexLock() ZORCAM_RELEASE() { mMutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mMutex;
};

}  // namespace NSCam

#pragma once

// Locks that clang's thread-safety analysis (-Wthread-safety) can follow.
// A field marked LUMIFLUX_GUARDED_BY(m) may only be touched with `m` held, a
// function marked LUMIFLUX_REQUIRES(m) only be called with it held; the
// analysis checks both at compile time. libstdc++'s std::mutex carries no
// such annotations, hence these thin wrappers. Other compilers see plain
// mutexes and scoped locks.

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define LUMIFLUX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define LUMIFLUX_THREAD_ANNOTATION(x)
#endif

#define LUMIFLUX_CAPABILITY(x) LUMIFLUX_THREAD_ANNOTATION(capability(x))
#define LUMIFLUX_SCOPED_CAPABILITY LUMIFLUX_THREAD_ANNOTATION(scoped_lockable)
#define LUMIFLUX_GUARDED_BY(x) LUMIFLUX_THREAD_ANNOTATION(guarded_by(x))
#define LUMIFLUX_PT_GUARDED_BY(x) LUMIFLUX_THREAD_ANNOTATION(pt_guarded_by(x))
#define LUMIFLUX_ACQUIRED_BEFORE(...) LUMIFLUX_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define LUMIFLUX_ACQUIRED_AFTER(...) LUMIFLUX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define LUMIFLUX_REQUIRES(...) LUMIFLUX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define LUMIFLUX_EXCLUDES(...) LUMIFLUX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define LUMIFLUX_ACQUIRE(...) LUMIFLUX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define LUMIFLUX_RELEASE(...) LUMIFLUX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define LUMIFLUX_ASSERT_CAPABILITY(x) LUMIFLUX_THREAD_ANNOTATION(assert_capability(x))
#define LUMIFLUX_NO_THREAD_SAFETY_ANALYSIS LUMIFLUX_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace Tevara::Lumiflux::Internal {

/** A std::mutex the analysis knows as a lock. */
class LUMIFLUX_CAPABILITY("mutex") Mutex {
public:
    void lock() LUMIFLUX_ACQUIRE() { mutex.lock(); }
    void unlock() LUMIFLUX_RELEASE() { mutex.unlock(); }
    /**
     * Tells the analysis that the current thread holds the lock, where it
     * cannot see it (a callback that the holder of the lock runs).
     */
    void assertHeld() const LUMIFLUX_ASSERT_CAPABILITY(this) {}

private:
    std::mutex mutex;
};

/** A std::recursive_mutex the analysis knows as a lock. */
class LUMIFLUX_CAPABILITY("mutex") RecursiveMutex {
public:
    void lock() LUMIFLUX_ACQUIRE() { mutex.lock(); }
    void unlock() LUMIFLUX_RELEASE() { mutex.unlock(); }

private:
    std::recursive_mutex mutex;
};

/**
 * Holds a lock for its scope. unlock() and lock() let it go and take it
 * again within the scope, and let a std::condition_variable_any wait on it.
 */
template <typename M> class LUMIFLUX_SCOPED_CAPABILITY ScopedLock {
public:
    explicit ScopedLock(M& m) LUMIFLUX_ACQUIRE(m) : mutex(m) { mutex.lock(); }
    ~ScopedLock() LUMIFLUX_RELEASE()
    {
        if (held)
            mutex.unlock();
    }
    ScopedLock(const ScopedLock&) = delete;
    ScopedLock& operator=(const ScopedLock&) = delete;

    void lock() LUMIFLUX_ACQUIRE()
    {
        mutex.lock();
        held = true;
    }
    void unlock() LUMIFLUX_RELEASE()
    {
        held = false;
        mutex.unlock();
    }

private:
    M& mutex;
    bool held = true;
};

using MutexLock = ScopedLock<Mutex>;
using RecursiveMutexLock = ScopedLock<RecursiveMutex>;
/** Waits on a MutexLock. */
using ConditionVariable = std::condition_variable_any;

} // namespace Tevara::Lumiflux::Internal

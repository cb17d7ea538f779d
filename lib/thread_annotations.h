// Clang thread-safety annotations and a mutex that carries them.
//
// Contract: every mutex of the daemon is an `annotated_mutex` (or a type marked
// CAPABILITY), every piece of state it protects is marked GUARDED_BY, and
// functions that expect the lock held are marked REQUIRES. A clang build with
// -Wthread-safety then checks each access; other compilers ignore the marks.
#pragma once

#include <mutex>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(x) THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS THREAD_ANNOTATION(no_thread_safety_analysis)

// std::mutex with the annotations (libstdc++'s own carries none).
class CAPABILITY("mutex") annotated_mutex {
  public:
    void lock() ACQUIRE() { m_.lock(); }
    void unlock() RELEASE() { m_.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_.try_lock(); }
    // For std::condition_variable, which needs the plain mutex.
    std::mutex& native() { return m_; }

  private:
    std::mutex m_;
};

// Scoped lock of any CAPABILITY type with lock()/unlock().
template <typename Mutex>
class SCOPED_CAPABILITY scoped_lock {
  public:
    explicit scoped_lock(Mutex& m) ACQUIRE(m) : m_(m) { m_.lock(); }
    ~scoped_lock() RELEASE() { m_.unlock(); }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

  private:
    Mutex& m_;
};

using mutex_lock = scoped_lock<annotated_mutex>;

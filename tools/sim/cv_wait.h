// Condition-variable waits on an annotated_mutex that the caller holds through
// a mutex_lock, so that the state read by the predicate stays under the
// thread-safety analysis.
//
// Contract: the caller holds `mu` on entry and holds it again on return (also
// when the predicate throws); the wait releases it in between, as
// std::condition_variable does. The predicate runs with `mu` held: mark a
// lambda that reads guarded state with REQUIRES(the mutex).
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "thread_annotations.h"

// std::condition_variable::wait_for on the held `mu`: true when `ready` holds.
template <typename Rep, typename Period, typename Pred>
bool cv_wait_for(std::condition_variable& cv, annotated_mutex& mu,
                 std::chrono::duration<Rep, Period> timeout, Pred ready) REQUIRES(mu) {
    // Borrows the lock the caller's mutex_lock owns and hands it back.
    std::unique_lock<std::mutex> lock(mu.native(), std::adopt_lock);
    struct give_back {
        std::unique_lock<std::mutex>& lock;
        ~give_back() { lock.release(); }
    } keep_held{lock};
    return cv.wait_for(lock, timeout, std::move(ready));
}

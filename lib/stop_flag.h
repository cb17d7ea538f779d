// A request to stop, shared by the main thread and the threads it owns.
//
// Contract: request() may be called from any thread (not from a signal
// handler); requested() and wait_for() from any thread. wait_for() sleeps
// without using the CPU and wakes at once when a stop is requested. fd() is
// a descriptor that becomes readable once a stop is requested, for threads
// that wait in poll() on sockets of their own. The object outlives every
// thread that waits on it.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>

#include "thread_annotations.h"

class stop_flag {
  public:
    stop_flag();
    ~stop_flag();
    stop_flag(const stop_flag&) = delete;
    stop_flag& operator=(const stop_flag&) = delete;

    void request();
    bool requested() const { return requested_.load(); }
    // Sleeps for `period` or until a stop is requested; true when requested.
    bool wait_for(std::chrono::milliseconds period);
    int fd() const { return pipe_[0]; }

  private:
    std::atomic<bool> requested_{false};
    annotated_mutex mutex_;
    std::condition_variable cv_;
    int pipe_[2] = {-1, -1};
};

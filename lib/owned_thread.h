// A thread that its owner can wait for with a deadline.
//
// Contract: start() and join_until() are called by the owning thread only. A
// thread that has not ended by the deadline is detached and given up on: it
// must use nothing that its owner destroys.
#pragma once

#include <chrono>
#include <future>
#include <thread>
#include <utility>

class owned_thread {
  public:
    owned_thread() = default;
    owned_thread(const owned_thread&) = delete;
    owned_thread& operator=(const owned_thread&) = delete;
    ~owned_thread() {
        if (thread_.joinable()) thread_.detach();
    }

    template <typename F>
    void start(F body) {
        std::packaged_task<void()> task(std::move(body));
        done_ = task.get_future();
        thread_ = std::thread(std::move(task));
    }
    bool running() const { return thread_.joinable(); }
    // True when the thread's body has returned (it may still be joined), or
    // the thread was never started; waits until `deadline` at most.
    bool done_by(std::chrono::steady_clock::time_point deadline) const {
        return !done_.valid() || done_.wait_until(deadline) == std::future_status::ready;
    }
    // True when the thread ended (and was joined) before `deadline`, or was
    // never started.
    bool join_until(std::chrono::steady_clock::time_point deadline) {
        if (!thread_.joinable()) return true;
        if (done_.wait_until(deadline) != std::future_status::ready) {
            thread_.detach();
            return false;
        }
        thread_.join();
        return true;
    }

  private:
    std::thread thread_;
    std::future<void> done_;
};

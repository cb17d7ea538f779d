// Jobs that run one at a time per key, in the order they were given, while
// jobs of different keys run side by side on a few threads of the queue's
// own: a job that waits holds back only the later jobs of its key.
//
// Contract: submit() from any thread; stop() by the owner, once: it lets the
// jobs queued so far run and waits for them until `deadline` at most. Jobs
// submitted after stop() are dropped.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "owned_thread.h"
#include "thread_annotations.h"

class keyed_queue {
  public:
    explicit keyed_queue(int threads) : max_threads_(threads) {}
    ~keyed_queue() { stop(std::chrono::steady_clock::now()); }
    keyed_queue(const keyed_queue&) = delete;
    keyed_queue& operator=(const keyed_queue&) = delete;

    void submit(const std::string& key, std::function<void()> job) {
        {
            mutex_lock guard(mutex_);
            if (stopping_) return;
            std::deque<std::function<void()>>& jobs = jobs_[key];
            jobs.push_back(std::move(job));
            if (jobs.size() == 1 && !busy_.count(key)) ready_.push_back(key);
            // Another thread when every one has work.
            if (static_cast<int>(threads_.size()) < max_threads_ &&
                idle_ < static_cast<int>(ready_.size())) {
                threads_.push_back(std::make_unique<owned_thread>());
                threads_.back()->start([this] { work(); });
            }
        }
        changed_.notify_one();
    }

    // True when every thread ended before `deadline`.
    bool stop(std::chrono::steady_clock::time_point deadline) {
        std::vector<std::unique_ptr<owned_thread>> threads;
        {
            mutex_lock guard(mutex_);
            stopping_ = true;
            threads.swap(threads_);
        }
        changed_.notify_all();
        bool joined = true;
        for (auto& t : threads) joined = t->join_until(deadline) && joined;
        return joined;
    }

  private:
    void work() {
        mutex_.lock();
        for (;;) {
            ++idle_;
            while (ready_.empty() && !stopping_) changed_.wait(mutex_);
            --idle_;
            if (ready_.empty()) break;  // stopping, and nothing left to run
            const std::string key = std::move(ready_.front());
            ready_.pop_front();
            busy_[key] = true;
            std::function<void()> job = std::move(jobs_[key].front());
            jobs_[key].pop_front();
            mutex_.unlock();
            job();
            mutex_.lock();
            busy_.erase(key);
            if (jobs_[key].empty())
                jobs_.erase(key);
            else
                ready_.push_back(key);
        }
        mutex_.unlock();
    }

    const int max_threads_;
    annotated_mutex mutex_;
    std::condition_variable_any changed_;
    std::map<std::string, std::deque<std::function<void()>>> jobs_ GUARDED_BY(mutex_);
    std::deque<std::string> ready_ GUARDED_BY(mutex_);  // keys with a job and none running
    std::map<std::string, bool> busy_ GUARDED_BY(mutex_);
    std::vector<std::unique_ptr<owned_thread>> threads_ GUARDED_BY(mutex_);
    int idle_ GUARDED_BY(mutex_) = 0;
    bool stopping_ GUARDED_BY(mutex_) = false;
};

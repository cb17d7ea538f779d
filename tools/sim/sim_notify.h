// A stand-in for systemd's notification socket: a datagram socket at a path
// of the caller's choosing (for NOTIFY_SOCKET) that collects every message a
// service sends (READY=1, STATUS=..., WATCHDOG=1, STOPPING=1), for tests.
//
// Contract: the constructor binds the socket and starts one reader thread;
// the destructor stops it and closes the socket (the path is left to the
// caller's temporary folder). All public members may be called from any
// thread.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "thread_annotations.h"

class notify_sim {
  public:
    explicit notify_sim(const std::string& path);
    ~notify_sim();
    notify_sim(const notify_sim&) = delete;
    notify_sim& operator=(const notify_sim&) = delete;

    bool ok() const { return fd_ >= 0; }
    // Every message received so far, in order.
    std::vector<std::string> messages() const;
    // How many messages contain `text`.
    size_t count(const std::string& text) const;
    // Waits until a message contains `text`.
    bool wait(const std::string& text, std::chrono::milliseconds timeout) const;
    // All messages, separated by "--" lines (for failure reports).
    std::string all() const;

  private:
    int fd_ = -1;
    std::atomic<bool> done_{false};
    mutable annotated_mutex mutex_;
    std::vector<std::string> messages_ GUARDED_BY(mutex_);
    std::thread reader_;
};

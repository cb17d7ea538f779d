// A server that answers nothing: it accepts TCP connections on a loopback
// port of its own, keeps them open and never writes, as a database, a
// directory or a Manager that has hung.
#pragma once

#include <atomic>
#include <thread>
#include <vector>

class silent_server {
  public:
    silent_server();
    ~silent_server();
    silent_server(const silent_server&) = delete;
    silent_server& operator=(const silent_server&) = delete;

    int port() const { return port_; }
    // Connections accepted so far.
    int accepted() const { return accepted_; }

  private:
    void run();

    int listener_ = -1;
    int port_ = 0;
    int wake_[2] = {-1, -1};
    std::atomic<int> accepted_{0};
    std::vector<int> open_;  // the accepted connections (the thread's own)
    std::thread thread_;
};

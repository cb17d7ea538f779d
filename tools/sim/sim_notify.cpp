#include "sim_notify.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>

notify_sim::notify_sim(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
    if (fd_ >= 0 && bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd_);
        fd_ = -1;
    }
    if (fd_ < 0) return;
    reader_ = std::thread([this] {
        char buf[4096];
        while (!done_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            ssize_t n = recv(fd_, buf, sizeof buf, 0);
            mutex_lock guard(mutex_);
            if (n > 0) messages_.emplace_back(buf, static_cast<size_t>(n));
        }
    });
}

notify_sim::~notify_sim() {
    done_ = true;
    if (reader_.joinable()) reader_.join();
    if (fd_ >= 0) close(fd_);
}

std::vector<std::string> notify_sim::messages() const {
    mutex_lock guard(mutex_);
    return messages_;
}

size_t notify_sim::count(const std::string& text) const {
    size_t n = 0;
    for (const std::string& m : messages()) n += m.find(text) != std::string::npos;
    return n;
}

bool notify_sim::wait(const std::string& text, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (count(text) == 0) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string notify_sim::all() const {
    std::string out;
    for (const std::string& m : messages()) out += m + "\n--\n";
    return out;
}

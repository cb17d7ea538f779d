#include "support_silent.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "netutil.h"

silent_server::silent_server() {
    listener_ = listen_loopback(0, &port_);
    if (listener_ < 0 || pipe(wake_) != 0) return;
    thread_ = std::thread([this] { run(); });
}

silent_server::~silent_server() {
    if (thread_.joinable()) {
        const char stop = 0;
        (void)!write(wake_[1], &stop, 1);
        thread_.join();
    }
    for (int fd : open_) close(fd);
    for (int fd : {listener_, wake_[0], wake_[1]})
        if (fd >= 0) close(fd);
}

void silent_server::run() {
    for (;;) {
        pollfd p[2] = {{listener_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
        if (poll(p, 2, -1) < 0) continue;
        if (p[1].revents) return;
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        open_.push_back(fd);
        ++accepted_;
    }
}

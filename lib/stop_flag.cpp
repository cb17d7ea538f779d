#include "stop_flag.h"

#include <fcntl.h>
#include <unistd.h>

stop_flag::stop_flag() {
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) pipe_[0] = pipe_[1] = -1;
}

stop_flag::~stop_flag() {
    for (int fd : pipe_)
        if (fd >= 0) close(fd);
}

void stop_flag::request() {
    {
        mutex_lock guard(mutex_);
        if (requested_.exchange(true)) return;
    }
    cv_.notify_all();
    if (pipe_[1] >= 0) {
        char c = 1;
        [[maybe_unused]] ssize_t n = write(pipe_[1], &c, 1);
    }
}

bool stop_flag::wait_for(std::chrono::milliseconds period) {
    std::unique_lock<std::mutex> lock(mutex_.native());
    return cv_.wait_for(lock, period, [this] { return requested_.load(); });
}

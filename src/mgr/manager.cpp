#include "mgr/manager.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "logger.h"

namespace {

// How long the login may take to go out.
constexpr std::chrono::seconds write_wait(1);

int new_socket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

// Waits up to `ms` for the session's wake descriptor: true when it is readable.
bool woken(const mansession& s, int ms) {
    if (s.wake_fd < 0) {
        if (ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(ms));
        return false;
    }
    pollfd p{s.wake_fd, POLLIN, 0};
    return poll(&p, 1, ms) > 0;
}

std::string dotted(const mansession& s) {
    char buf[INET_ADDRSTRLEN];
    return mgr_inet_ntoa(buf, sizeof buf, s.sin.sin_addr);
}

// Closes the session's socket and puts a fresh one in its place (-1 when none
// can be created).
void replace_socket(mansession& s) {
    if (s.fd >= 0) close(s.fd);
    s.fd = new_socket();
    if (s.fd < 0) LOG(L_ERROR, "Unable to create manager socket: %s", strerror(errno));
}

}  // namespace

mansession::~mansession() {
    if (fd >= 0) close(fd);
}

void mansession::reset() {
    if (fd >= 0) close(fd);
    sin = sockaddr_in{};
    fd = -1;
    drop_input();
    connected = 0;
    dead = 0;
    wake_fd = -1;
    hide_secret = false;
    before_wait = nullptr;
    quick_reads = 0;
    connect_timeout_ms = 0;
    answer_by = {};
    user.clear();
    pass.clear();
}

int mgr_init(mansession& s, const char* host, int port, const char* user, const char* passwd) {
    LOG(L_DEBUG, "11");
    s.reset();

    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (!host || !*host || getaddrinfo(host, nullptr, &hints, &res) != 0 || !res) {
        LOG(L_ERROR, "Host: %s not found\n", host ? host : "");
        return -1;
    }
    std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owned(res, &freeaddrinfo);

    LOG(L_DEBUG, "12");
    s.sin.sin_family = AF_INET;
    s.sin.sin_addr = reinterpret_cast<const sockaddr_in*>(res->ai_addr)->sin_addr;
    s.sin.sin_port = htons(static_cast<uint16_t>(port));
    s.fd = new_socket();
    if (s.fd < 0) {
        LOG(L_ERROR, "Unable to create manager socket: %s", strerror(errno));
        return -1;
    }
    LOG(L_DEBUG, "13");

    s.user = user ? user : "";
    s.pass = passwd ? passwd : "";
    LOG(L_DEBUG, "14");
    return 0;
}

int connect_nonb(mansession& s) {
    if (s.fd < 0) {
        // The last replacement could not get a socket: try again now.
        replace_socket(s);
        if (s.fd < 0) return -1;
    }
    // A socket that completed a non-blocking connect before answers a new
    // connect with success even after the manager closed it: ask for its
    // peer instead, so that a used socket is always replaced.
    sockaddr_in peer{};
    socklen_t peerlen = sizeof peer;
    bool used = getpeername(s.fd, reinterpret_cast<sockaddr*>(&peer), &peerlen) == 0;

    int flags = fcntl(s.fd, F_GETFL, 0);
    if (flags < 0) return -1;
    fcntl(s.fd, F_SETFL, flags | O_NONBLOCK);

    if (used || connect(s.fd, reinterpret_cast<const sockaddr*>(&s.sin), sizeof s.sin) < 0) {
        int err = used ? EISCONN : errno;
        if (err == EISCONN || err == ECONNABORTED || err == ECONNREFUSED) {
            LOG(L_DEBUG, "connect_nonb: error %d, closing old fd and grabbing a new one...", err);
            replace_socket(s);
            errno = err;
            return -1;
        }
        if (err != EINPROGRESS) return -1;

        if (s.connect_timeout_ms > 0) {
            // Waits for the connect or the wake descriptor; a connect that
            // did not finish in time is given up with its socket.
            pollfd p[2] = {{s.fd, POLLOUT, 0}, {s.wake_fd, POLLIN, 0}};
            int n;
            do {
                n = poll(p, s.wake_fd >= 0 ? 2 : 1, s.connect_timeout_ms);
            } while (n < 0 && errno == EINTR);
            if (n <= 0 || (p[1].revents & POLLIN)) {
                const int why = n == 0 ? ETIMEDOUT : n < 0 ? errno : EINTR;
                if (n == 0)
                    LOG(L_ERROR, "Manager %s:%d: connect timed out after %d s", dotted(s).c_str(),
                        ntohs(s.sin.sin_port), s.connect_timeout_ms / 1000);
                replace_socket(s);
                errno = why;
                return -1;
            }
        } else {
            // select() cannot watch descriptors beyond FD_SETSIZE.
            if (s.fd >= FD_SETSIZE) {
                errno = EMFILE;
                return -1;
            }
            fd_set rset, wset;
            FD_ZERO(&rset);
            FD_SET(s.fd, &rset);
            wset = rset;
            timeval tv{1, 0};
            int n = select(s.fd + 1, &rset, &wset, nullptr, &tv);
            if (n == 0) {
                errno = ETIMEDOUT;
                return -1;
            }
            if (n < 0) return -1;
            if (!FD_ISSET(s.fd, &rset) && !FD_ISSET(s.fd, &wset)) return -1;
        }
        int error = 0;
        socklen_t len = sizeof error;
        if (getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &error, &len) < 0) return -1;
        fcntl(s.fd, F_SETFL, flags);
        if (error) {
            errno = error;
            return -1;
        }
        return s.fd;
    }
    fcntl(s.fd, F_SETFL, flags);
    return s.fd;
}

int mgr_connect(mansession& s) {
    int fd = connect_nonb(s);
    if (fd == -1) return -1;
    LOG(L_DEBUG, "returning mgr_connect with %d", fd);
    s.fd = fd;
    s.drop_input();
    return fd;
}

int mgr_send(int fd, std::string_view text, std::chrono::steady_clock::time_point deadline,
             int wake_fd) {
    const char* p = text.data();
    size_t len = text.size();
    while (len > 0) {
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
            if (len == 0) break;
        }
        // Full (EAGAIN) or partly written: wait until the socket takes more.
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return -2;
        pollfd w[2] = {{fd, POLLOUT, 0}, {wake_fd, POLLIN, 0}};
        int r;
        do {
            r = poll(w, wake_fd >= 0 ? 2 : 1,
                     static_cast<int>(std::min<long long>(left.count(), 60000)));
        } while (r < 0 && errno == EINTR);
        if (r < 0 || (r > 0 && (w[1].revents & POLLIN))) return -1;
    }
    return 0;
}

int mgr_write(mansession& s, const message& m) {
    std::string text;
    for (int i = 0; i < m.count(); ++i) {
        if (!*m.line(i)) continue;
        text += m.line(i);
        text += "\r\n";
    }
    text += "\r\n";
    if (mgr_send(s.fd, text, std::chrono::steady_clock::now() + write_wait, s.wake_fd) == 0)
        return 0;
    shutdown(s.fd, SHUT_RDWR);
    return -1;
}

int mgr_add_header(message& m, const char* fmt, ...) {
    if (m.count() >= message::max_lines) return 1;
    char small[256];
    va_list ap;
    va_start(ap, fmt);
    va_list again;
    va_copy(again, ap);
    const int n = vsnprintf(small, sizeof small, fmt, ap);
    va_end(ap);
    if (n < 0) {
        va_end(again);
        return 1;
    }
    if (static_cast<size_t>(n) < sizeof small) {
        va_end(again);
        m.add(std::string_view(small, static_cast<size_t>(n)));
        return 0;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    vsnprintf(big.data(), big.size(), fmt, again);
    va_end(again);
    m.add(std::string_view(big.data(), static_cast<size_t>(n)));
    return 0;
}

int mgr_login(mansession& s, const char* events) {
    if (s.connected < 0) return 1;
    s.connected = 0;
    std::string addr = dotted(s);
    LOG(L_DEBUG, "asterisk@%s: Connecting (u=%s, p=%s)", addr.c_str(), s.user.c_str(),
        s.hide_secret ? "(hidden)" : s.pass.c_str());

    message m;
    mgr_add_header(m, "Action: Login");
    mgr_add_header(m, "Username: %s", s.user.c_str());
    mgr_add_header(m, "Secret: %s", s.pass.c_str());
    mgr_add_header(m, "Events: %s", events && *events ? events : "call");

    while (mgr_connect(s) == -1) {
        int err = errno;
        LOG(L_ERROR, "manager@%s: Connect failed, Retrying (%d) %s [%d]", addr.c_str(), 1,
            strerror(err), err);
        if (woken(s, 1000)) return 1;
    }
    mgr_write(s, m);  // a login that did not go out makes the next read fail
    return 0;
}

bool message::add(std::string_view text) {
    if (lines_.size() >= static_cast<size_t>(max_lines)) return false;
    if (text.size() > max_line) text = text.substr(0, max_line);
    entry e{static_cast<uint32_t>(text_.size()), no_name};
    // The name is what stands before the first ": ".
    for (size_t colon = text.find(':'); colon != std::string_view::npos;
         colon = text.find(':', colon + 1)) {
        if (colon + 1 < text.size() && text[colon + 1] == ' ') {
            e.name_len = static_cast<uint32_t>(colon);
            break;
        }
    }
    text_.append(text);
    text_.push_back('\0');
    lines_.push_back(e);
    return true;
}

const char* message::get(std::string_view name) const {
    for (const entry& e : lines_) {
        if (e.name_len != name.size()) continue;
        const char* line = text_.data() + e.start;
        if (strncasecmp(line, name.data(), name.size()) == 0) return line + name.size() + 2;
    }
    return "";
}

namespace {

// Waits for the manager's bytes (without a wait while bytes are there, up to
// 64 receives in a row) and appends them to the buffer: 0, or -1 / -2 as
// mgr_read.
int receive(mansession& s) {
    if (s.fd < 0) return -1;  // no socket to wait on: never block for ever on nothing
    if (s.head == s.tail) {
        s.head = s.tail = 0;
    } else if (mansession::buffer_size - s.tail < message::max_line + 2) {
        memmove(s.buf.get(), s.buf.get() + s.head, s.tail - s.head);
        s.tail -= s.head;
        s.head = 0;
    }
    char* at = s.buf.get() + s.tail;
    const size_t room = mansession::buffer_size - s.tail;
    if (++s.quick_reads < 64) {
        ssize_t n = recv(s.fd, at, room, MSG_DONTWAIT);
        if (n == 0) return -1;
        if (n > 0) {
            s.tail += static_cast<size_t>(n);
            return 0;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) return -1;
    }
    s.quick_reads = 0;
    if (s.before_wait) s.before_wait();
    const bool bounded = s.answer_by != std::chrono::steady_clock::time_point{};
    for (;;) {
        int wait_ms = -1;
        if (bounded) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                s.answer_by - std::chrono::steady_clock::now());
            if (left.count() <= 0) return -2;
            wait_ms = static_cast<int>(std::min<long long>(left.count(), 60000));
        }
        pollfd p[2] = {{s.fd, POLLIN, 0}, {s.wake_fd, POLLIN, 0}};
        int r = poll(p, s.wake_fd >= 0 ? 2 : 1, wait_ms);
        if (r == 0) continue;  // the deadline is looked at again
        if (r > 0 && (p[1].revents & POLLIN)) return -1;
        if (r > 0) break;
        if (r < 0 && errno == EINTR) {
            if (s.dead) return -1;
            continue;
        }
        LOG(L_ERROR, "Select returned error");
        return -1;
    }
    ssize_t n = recv(s.fd, at, room, 0);
    if (n <= 0) return -1;
    s.tail += static_cast<size_t>(n);
    return 0;
}

// Adds one whole line to `m`: true when it ends the message.
bool take_line(message& m, std::string_view line) {
    if (m.in_command) {
        if (line == "--END COMMAND--") {
            LOG(L_DEBUG, "Found END COMMAND");
            m.in_command = false;
        }
        m.add(line);
        return false;
    }
    if (line.empty()) return true;
    // Only an answer's own Response header, its first header, starts a
    // command's output.
    if (line.size() == 17 && strncasecmp(line.data(), "Response: ", 10) == 0 &&
        line.substr(10) == "Follows") {
        bool first = true;
        for (int i = 0; i < m.count() && first; ++i) first = strstr(m.line(i), ": ") == nullptr;
        if (first) {
            LOG(L_DEBUG, "Found Response Follows");
            m.in_command = true;
        }
    }
    m.add(line);
    return false;
}

}  // namespace

int mgr_read(mansession& s, message& m) {
    for (;;) {
        while (s.head < s.tail) {
            char* p = s.buf.get() + s.head;
            const size_t avail = s.tail - s.head;
            const char* nl = static_cast<const char*>(memchr(p, '\n', avail));
            if (s.skipping) {
                if (!nl) {
                    s.head = s.tail;
                    break;
                }
                s.head += static_cast<size_t>(nl - p) + 1;
                s.skipping = false;
                continue;
            }
            size_t len;
            if (nl) {
                len = static_cast<size_t>(nl - p);
                s.head += len + 1;
                if (len > 0 && p[len - 1] == '\r') --len;
            } else if (avail > message::max_line + 1) {
                // No line end in sight: the rest is dropped once it comes.
                len = avail;
                s.head = s.tail;
                s.skipping = true;
            } else {
                break;
            }
            if (len > message::max_line) {
                LOG(L_WARNING, "Manager %s: a line longer than %zu bytes was cut",
                    dotted(s).c_str(), message::max_line);
                len = message::max_line;
            }
            if (take_line(m, std::string_view(p, len))) return 1;
        }
        const int r = receive(s);
        if (r < 0) return r;
    }
}

const char* mgr_inet_ntoa(char* buf, size_t size, in_addr addr) {
    if (!buf || size == 0) return "";
    if (!inet_ntop(AF_INET, &addr, buf, static_cast<socklen_t>(size))) buf[0] = '\0';
    return buf;
}

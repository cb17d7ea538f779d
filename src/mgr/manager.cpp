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

constexpr int write_wait_ms = 100;
constexpr int max_line = 1022;  // a buffered line longer than this without "\n" is dropped

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
    std::memset(inbuf, 0, sizeof inbuf);
    inlen = 0;
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
    return fd;
}

int __mgr_write(int fd, const char* buf, size_t len, int timeoutms) {
    while (len > 0) {
        ssize_t n = send(fd, buf, len, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        if (n > 0) {
            buf += n;
            len -= static_cast<size_t>(n);
            if (len == 0) break;
        }
        // Full (EAGAIN) or partly written: wait until the socket takes more.
        pollfd p{fd, POLLOUT, 0};
        int r;
        do {
            r = poll(&p, 1, timeoutms);
        } while (r < 0 && errno == EINTR);
        if (r <= 0) return -1;
    }
    return 0;
}

int mgr_write(mansession& s, const message& m) {
    if (m.hdrcount == 0) {
        __mgr_write(s.fd, "\r\n", 2, write_wait_ms);
        return 0;
    }
    for (int i = 0; i < m.hdrcount && i <= message::max_headers; ++i) {
        size_t len = strnlen(m.headers[i], message::line_size);
        if (len == 0) continue;
        __mgr_write(s.fd, m.headers[i], len, write_wait_ms);
        __mgr_write(s.fd, "\r\n", 2, write_wait_ms);
    }
    __mgr_write(s.fd, "\r\n", 2, write_wait_ms);
    return 0;
}

int mgr_add_header(message& m, const char* fmt, ...) {
    if (m.hdrcount > message::max_headers - 1) return 1;
    m.touch(m.hdrcount);
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(m.headers[m.hdrcount], sizeof m.headers[m.hdrcount], fmt, ap);
    va_end(ap);
    m.hdrcount++;
    return 0;
}

int mgr_login(mansession& s, const char* events) {
    if (s.connected < 0) return 1;
    s.connected = 0;
    std::string addr = dotted(s);
    LOG(L_DEBUG, "asterisk@%s: Connecting (u=%s, p=%s)", addr.c_str(), s.user.c_str(),
        s.hide_secret ? "(hidden)" : s.pass.c_str());

    auto m = std::make_unique<message>();
    mgr_add_header(*m, "Action: Login");
    mgr_add_header(*m, "Username: %s", s.user.c_str());
    mgr_add_header(*m, "Secret: %s", s.pass.c_str());
    mgr_add_header(*m, "Events: %s", events && *events ? events : "call");

    while (mgr_connect(s) == -1) {
        int err = errno;
        LOG(L_ERROR, "manager@%s: Connect failed, Retrying (%d) %s [%d]", addr.c_str(), 1,
            strerror(err), err);
        if (woken(s, 1000)) return 1;
    }
    mgr_write(s, *m);
    return 0;
}

const char* mgr_get_header(const message& m, const char* name) {
    // The key is "<name>: ", cut to 79 characters.
    if (!name) name = "";
    const size_t namelen = strnlen(name, 80);
    if (namelen > 77) {
        char key[80];
        snprintf(key, sizeof key, "%s: ", name);
        const size_t keylen = strlen(key);
        for (int i = 0; i < std::min(m.hdrcount, message::max_headers); ++i)
            if (strncasecmp(key, m.headers[i], keylen) == 0) return m.headers[i] + keylen;
        return "";
    }
    for (int i = 0; i < std::min(m.hdrcount, message::max_headers); ++i) {
        const char* h = m.headers[i];
        if (strncasecmp(name, h, namelen) == 0 && h[namelen] == ':' && h[namelen + 1] == ' ')
            return h + namelen + 2;
    }
    return "";
}

int mgr_get_input(mansession& s, char* output) {
    if (s.inlen > 0) {
        if (const void* nl = memchr(s.inbuf, '\n', static_cast<size_t>(s.inlen))) {
            int x = static_cast<int>(static_cast<const char*>(nl) - s.inbuf);
            int linelen = (x > 0 && s.inbuf[x - 1] == '\r') ? x - 1 : x;
            memcpy(output, s.inbuf, static_cast<size_t>(linelen));
            output[linelen] = '\0';
            memmove(s.inbuf, s.inbuf + x + 1, static_cast<size_t>(s.inlen - x - 1));
            s.inlen -= x + 1;
            s.inbuf[s.inlen] = '\0';
            return 1;
        }
    }
    if (s.inlen < 0 || s.inlen > max_line) {
        LOG(L_DEBUG, "Warning: Got long line with no end from %s: %s\n", dotted(s).c_str(),
            s.inlen > 0 ? s.inbuf : "");
        s.inlen = 0;
        s.inbuf[0] = '\0';
    }

    if (s.fd < 0) return -1;  // no socket to wait on: never block for ever on nothing
    const size_t room = sizeof s.inbuf - 1 - static_cast<size_t>(s.inlen);
    if (++s.quick_reads < 64) {
        ssize_t n = recv(s.fd, s.inbuf + s.inlen, room, MSG_DONTWAIT);
        if (n == 0) return -1;
        if (n > 0) {
            s.inlen += static_cast<int>(n);
            s.inbuf[s.inlen] = '\0';
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
    ssize_t n = recv(s.fd, s.inbuf + s.inlen, room, 0);
    if (n <= 0) return -1;
    s.inlen += static_cast<int>(n);
    s.inbuf[s.inlen] = '\0';
    return 0;
}

int mgr_read(mansession& s, message& m) {
    for (;;) {
        char* slot = m.headers[m.hdrcount];
        m.touch(m.hdrcount);
        int res = mgr_get_input(s, slot);
        if (strstr(slot, "--END COMMAND--")) {
            LOG(L_DEBUG, "Found END COMMAND");
            m.in_command = 0;
        }
        if (strstr(slot, "Response: Follows")) {
            LOG(L_DEBUG, "Found Response Follows");
            m.in_command = 1;
        }
        if (res == 0) continue;
        if (res < 0) return res;
        if (!m.in_command && slot[0] == '\0') return 1;
        if (m.hdrcount >= message::max_headers) {
            // Kept uncounted in the spare slot; the next empty line ends the message.
            m.in_command = 0;
        } else {
            m.hdrcount++;
        }
    }
}

const char* mgr_inet_ntoa(char* buf, size_t size, in_addr addr) {
    if (!buf || size == 0) return "";
    if (!inet_ntop(AF_INET, &addr, buf, static_cast<socklen_t>(size))) buf[0] = '\0';
    return buf;
}

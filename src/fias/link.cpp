#include "fias/link.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "fias/codec.h"
#include "logger.h"
#include "process.h"

namespace {

constexpr char STX = 0x02;
constexpr char ETX = 0x03;

// `format` filled in with the current local time.
std::string local_time_text(const char* format) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char buf[32] = "";
    strftime(buf, sizeof buf, format, &tmv);
    return buf;
}

constexpr int connect_limit_ms = 5000;
constexpr int send_buffer_bytes = 64 * 1024;

// A connect that gives up after connect_limit_ms.
bool connect_bounded(int sock, const sockaddr_in& sin) {
    int flags = fcntl(sock, F_GETFL, 0);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) return false;
    if (::connect(sock, reinterpret_cast<const sockaddr*>(&sin), sizeof sin) < 0) {
        if (errno != EINPROGRESS) return false;
        pollfd p{sock, POLLOUT, 0};
        int r;
        do {
            r = poll(&p, 1, connect_limit_ms);
        } while (r < 0 && errno == EINTR);
        int error = 0;
        socklen_t len = sizeof error;
        if (r <= 0 || getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &len) < 0 || error)
            return false;
    }
    return fcntl(sock, F_SETFL, flags) == 0;
}

}  // namespace

pms_link::~pms_link() {
    drop();
}

void pms_link::end() {
    mutex_lock guard(write_mutex_);
    ended_ = true;
    pms_connected_ = 0;
    if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
}

int pms_link::socket_fd() const {
    mutex_lock guard(write_mutex_);
    return fd_;
}

bool pms_link::is_open() const {
    return open_;
}

pms_link::state pms_link::current_state() const {
    if (!open_) return state::down;
    return pms_connected_ ? state::active : state::connecting;
}

int pms_link::connect(const std::string& host, int port) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return -1;
    sockaddr_in sin{};
    memcpy(&sin, res->ai_addr, sizeof sin);
    freeaddrinfo(res);
    sin.sin_port = htons(static_cast<uint16_t>(port));

    int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    if (link_end_ ? !connect_bounded(sock, sin)
                  : ::connect(sock, reinterpret_cast<sockaddr*>(&sin), sizeof sin) < 0) {
        close(sock);
        return -1;
    }
    if (link_end_) {
        // A PMS that stops reading holds a writer for 10 s at most, and
        // that is noticed after a modest backlog (records are small).
        const long ms = link_write_limit().count();
        timeval limit{ms / 1000, static_cast<suseconds_t>(ms % 1000 * 1000)};
        setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        int buffer = send_buffer_bytes;
        setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    }
    attach(sock);
    send_raw(local_time_text("LS|DA%y%m%d|TI%H%M%S|").c_str());
    return 0;
}

void pms_link::attach(int fd) {
    drop();
    mutex_lock guard(write_mutex_);
    fd_ = fd;
    ended_ = false;
    open_ = true;
    link_number_++;
    in_record_ = false;
    partial_.clear();
}

void pms_link::drop() {
    mutex_lock guard(write_mutex_);
    open_ = false;
    pms_connected_ = 0;
    if (fd_ < 0) return;
    shutdown(fd_, SHUT_RDWR);
    close(fd_);
    fd_ = -1;
}

int pms_link::send_raw(const char* packet) {
    if (!packet) return -1;
    LOG(L_DEBUG, "Writing packet %s\n", fias_shown(packet).c_str());
    std::string frame;
    frame.reserve(strlen(packet) + 2);
    frame.push_back(STX);
    frame.append(packet);
    frame.push_back(ETX);

    ssize_t n;
    {
        mutex_lock guard(write_mutex_);
        if (fd_ < 0 || (link_end_ && ended_)) return -1;
        do {
            n = send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL);
        } while (n < 0 && errno == EINTR);
        if (n != static_cast<ssize_t>(frame.size()) && link_end_) {
            // Lost: nothing more goes into this link; the reader ends it.
            ended_ = true;
            pms_connected_ = 0;
            shutdown(fd_, SHUT_RDWR);
        }
    }
    return n == static_cast<ssize_t>(frame.size()) ? static_cast<int>(n) : -1;
}

int pms_link::send_packet(const fias_packet_t* p) {
    if (!p) return -1;
    std::string text = fias_packet_to_str(p, fias_codec_options{numbers_});
    if (text.empty()) return -1;
    return send_raw(text.c_str());
}

int pms_link::send_la() {
    return send_raw(local_time_text("LA|DA%y%m%d|TI%H%M%S|").c_str());
}

int pms_link::send_dr() {
    return send_raw(local_time_text("DR|DA%y%m%d|TI%H%M%S|").c_str());
}

int pms_link::init_connection(const char* iftype, fias_record_set optional, bool optional_fields) {
    std::string ld = local_time_text("LD|DA%y%m%d|TI%H%M%S|V#1.01|IF");
    if (iftype) ld.append(iftype, strnlen(iftype, 2));
    ld.append("|");
    send_raw(ld.c_str());

    // Only shut down here: the descriptor stays allocated until the reading
    // thread drops it, so the reader never touches a closed or reused number.
    auto end_link = [this] {
        mutex_lock guard(write_mutex_);
        ended_ = true;
        if (fd_ >= 0) shutdown(fd_, SHUT_RDWR);
    };
    for (const fias_catalogue_row* row = fias_packets; row->num_fields != 0; row++) {
        if (row->packet[0] == 'L') continue;
        if (fias_optional_record(row->packet_code) &&
            !(optional & fias_record_bit(row->packet_code)))
            continue;
        std::string names;
        for (int i = 0; i < row->num_fields; i++)
            if (optional_fields || !row->fields[i].optional) names.append(row->fields[i].name);
        char lr[256];
        snprintf(lr, sizeof lr, "LR|RI%.2s|FL%s|", row->packet, names.c_str());
        write_log(L_DEBUG, __FILE_NAME__, __LINE__, "fias_send_lr", "%s\n", lr);
        if (send_raw(lr) < 0) {
            end_link();
            return -1;
        }
    }
    if (send_la() < 0) {
        end_link();
        return -1;
    }
    return 0;
}

namespace {

// One byte from `sock`: 1, 0 at end of stream, -1 on error (EINTR retried),
// pms_link::idle when nothing came within a second (or a signal interrupted
// the wait), so that the caller can act on pending signals.
int read_byte(int sock, char* c) {
    pollfd pfd{sock, POLLIN, 0};
    int ready = poll(&pfd, 1, 1000);
    if (ready < 0 && errno != EINTR) return -1;
    if (ready <= 0) return pms_link::idle;
    for (;;) {
        ssize_t n = read(sock, c, 1);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return -1;
    }
}

bool is_link_end(const std::string& record) {
    return record.compare(0, 2, "LE") == 0 &&
           (record.size() == 2 || record[2] == '|' || record[2] == ETX);
}

}  // namespace

int pms_link::read_packet(char* packet, int maxlen) {
    if (maxlen < 1) return 0;
    // The main thread is the only one that closes the socket, so the number
    // stays valid while it reads without the write lock.
    const int sock = socket_fd();
    if (sock < 0) return link_end_ ? idle : -1;
    for (;;) {
        if (in_record_ && static_cast<int>(partial_.size()) >= maxlen - 1) {
            in_record_ = false;  // cut; the rest of the record follows as stray bytes
            memcpy(packet, partial_.data(), partial_.size());
            packet[partial_.size()] = '\0';
            return static_cast<int>(partial_.size());
        }
        char c;
        const int n = read_byte(sock, &c);
        if (n == idle) return idle;
        if (n < 0) return -1;
        if (n == 0) {
            if (ended_ || link_end_) return -1;
            sleep(1);
            return idle;
        }
        if (!in_record_) {
            if (quiet_) {
                LOG(L_DEBUG, "Read code %x", static_cast<int>(static_cast<signed char>(c)));
            } else {
                printf("Read code %x\n", static_cast<int>(static_cast<signed char>(c)));
                fflush(stdout);
            }
            if (c != STX) return -2;
            in_record_ = true;
            partial_.clear();
            continue;
        }
        if (c != ETX) {
            partial_.push_back(c);
            continue;
        }
        in_record_ = false;
        const int count = static_cast<int>(partial_.size());
        memcpy(packet, partial_.data(), partial_.size());
        packet[count] = ETX;
        packet[count + 1] = '\0';
        if (link_end_ && is_link_end(partial_)) {
            LOG(L_DEBUG, "Read %s", fias_shown(packet).c_str());
            return -1;  // the PMS ends the link
        }
        return count;
    }
}

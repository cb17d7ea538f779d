#include "fias/link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <thread>
#include <utility>

#include "fias/codec.h"
#include "logger.h"
#include "metrics.h"
#include "process.h"
#include "text.h"

namespace {

constexpr char STX = 0x02;
constexpr char ETX = 0x03;

constexpr auto link_end_connect_limit = std::chrono::seconds(5);
constexpr int send_buffer_bytes = 64 * 1024;

using steady = std::chrono::steady_clock;

// Milliseconds from now to `deadline`, at least 0.
int ms_until(steady::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - steady::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

// Waits for `events` on `fd` until `deadline`: > 0 ready, 0 late, < 0 error.
int poll_until(int fd, short events, steady::time_point deadline) {
    pollfd p{fd, events, 0};
    int r;
    do {
        r = poll(&p, 1, ms_until(deadline));
    } while (r < 0 && errno == EINTR);
    return r;
}

enum class outcome { done, failed, late };

// A connect that gives up at `deadline`.
outcome connect_until(int sock, const sockaddr_in& sin, steady::time_point deadline) {
    int flags = fcntl(sock, F_GETFL, 0);
    if (flags < 0 || fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) return outcome::failed;
    if (::connect(sock, reinterpret_cast<const sockaddr*>(&sin), sizeof sin) < 0) {
        if (errno != EINPROGRESS) return outcome::failed;
        const int r = poll_until(sock, POLLOUT, deadline);
        if (r == 0) return outcome::late;
        int error = 0;
        socklen_t len = sizeof error;
        if (r < 0 || getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &len) < 0 || error)
            return outcome::failed;
    }
    return fcntl(sock, F_SETFL, flags) == 0 ? outcome::done : outcome::failed;
}

// The first IPv4 address of `host` (no time limit).
bool resolve(const std::string& host, sockaddr_in* out) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &res) != 0 || !res) return false;
    memcpy(out, res->ai_addr, sizeof *out);
    freeaddrinfo(res);
    return true;
}

// TCP keep-alive on `sock`: the first probe after `idle` without traffic,
// then every 10 s, and the connection is lost after 3 unanswered probes.
void set_keepalive(int sock, std::chrono::seconds idle) {
    const int on = 1, every = 10, probes = 3;
    // The system takes at most 32767 s.
    const int first = static_cast<int>(std::min<long long>(idle.count(), 32767));
    setsockopt(sock, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPIDLE, &first, sizeof first);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPINTVL, &every, sizeof every);
    setsockopt(sock, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
}

// The record that starts the link, and also checks that it is alive.
std::string link_start_text() {
    return local_time_text(time(nullptr), "LS|DA%y%m%d|TI%H%M%S|");
}

// Whether a record text (ETX or not) is of type `type` ("LA").
bool is_type(const std::string& record, const char* type) {
    return record.compare(0, 2, type) == 0 &&
           (record.size() == 2 || record[2] == '|' || record[2] == ETX);
}

// "3 s", "0.5 s".
std::string seconds_text(std::chrono::milliseconds ms) {
    char text[32];
    snprintf(text, sizeof text, "%g s", static_cast<double>(ms.count()) / 1000);
    return text;
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

bool pms_link::is_open() const {
    return open_;
}

pms_link::state pms_link::current_state() const {
    if (!open_) return state::down;
    return pms_connected_ ? state::active : state::connecting;
}

bool pms_link::resolve_until(const std::string& host, steady::time_point deadline, sockaddr_in* out,
                             bool* late) {
    // An address needs no lookup (and no thread).
    *late = false;
    if (inet_pton(AF_INET, host.c_str(), &out->sin_addr) == 1) {
        out->sin_family = AF_INET;
        return true;
    }
    if (!lookup_.valid() || lookup_host_ != host) {
        // A lookup for another host that is still running ends by itself.
        std::packaged_task<lookup_result()> task([host] {
            lookup_result r;
            r.found = resolve(host, &r.address);
            return r;
        });
        lookup_ = task.get_future();
        lookup_host_ = host;
        std::thread(std::move(task)).detach();
    }
    *late = lookup_.wait_until(deadline) != std::future_status::ready;
    if (*late) return false;
    const lookup_result r = lookup_.get();
    *out = r.address;
    return r.found;
}

int pms_link::connect(const std::string& host, int port) {
    const bool bounded = connect_limit_.count() > 0;
    const steady::time_point deadline = steady::now() + connect_limit_;
    const std::string peer = host + ":" + std::to_string(port);
    sockaddr_in sin{};
    if (bounded) {
        bool late = false;
        if (!resolve_until(host, deadline, &sin, &late)) {
            if (late)
                LOG(L_ERROR, "PMS %s: resolving the name took longer than %s", peer.c_str(),
                    seconds_text(connect_limit_).c_str());
            return -1;
        }
    } else if (!resolve(host, &sin)) {
        return -1;
    }
    sin.sin_port = htons(static_cast<uint16_t>(port));

    int sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (sock < 0) return -1;
    if (keepalive_.count() > 0) set_keepalive(sock, keepalive_);
    outcome made;
    if (bounded)
        made = connect_until(sock, sin, deadline);
    else if (link_end_)
        made = connect_until(sock, sin, steady::now() + link_end_connect_limit);
    else
        made = ::connect(sock, reinterpret_cast<sockaddr*>(&sin), sizeof sin) < 0 ? outcome::failed
                                                                                  : outcome::done;
    if (made == outcome::late && bounded)
        LOG(L_ERROR, "PMS %s: connecting took longer than %s", peer.c_str(),
            seconds_text(connect_limit_).c_str());
    if (made != outcome::done) {
        close(sock);
        return -1;
    }
    std::unique_ptr<tls_session> session;
    if (tls_settings_) {
        tls_result r = tls_handshake(sock, *tls_settings_, deadline);
        if (!r.session) {
            if (r.late)
                LOG(L_ERROR, "PMS %s: the TLS handshake took longer than %s", peer.c_str(),
                    seconds_text(connect_limit_).c_str());
            else
                LOG(L_ERROR, "PMS %s: TLS handshake failed: %s", peer.c_str(), r.error.c_str());
            close(sock);
            return -1;
        }
        session = std::move(r.session);
    }
    if (link_end_ && write_limit_ms_ == 0) {
        // A PMS that stops reading holds a writer for 10 s at most, and
        // that is noticed after a modest backlog (records are small).
        const long ms = link_write_limit().count();
        timeval limit{ms / 1000, static_cast<suseconds_t>(ms % 1000 * 1000)};
        setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    if (link_end_) {
        int buffer = send_buffer_bytes;
        setsockopt(sock, SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    }
    attach(sock, std::move(session), peer);
    send_raw(link_start_text().c_str());
    return 0;
}

void pms_link::attach(int fd) {
    attach(fd, nullptr, "(attached)");
}

void pms_link::attach(int fd, std::unique_ptr<tls_session> tls, const std::string& peer) {
    drop();
    mutex_lock guard(write_mutex_);
    fd_ = fd;
    tls_ = std::move(tls);
    read_fd_ = fd;
    read_tls_ = tls_.get();
    tls_wait_ = POLLIN;
    peer_ = peer;
    ended_ = false;
    open_ = true;
    link_number_++;
    in_record_ = false;
    partial_.clear();
    received_.clear();
    received_at_ = 0;
    last_heard_ = steady::now();
    alive_sent_.reset();
    alive_answer_ = false;
}

void pms_link::drop() {
    mutex_lock guard(write_mutex_);
    open_ = false;
    pms_connected_ = 0;
    if (fd_ < 0) return;
    read_fd_ = -1;
    read_tls_ = nullptr;
    tls_.reset();  // before its socket is closed
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
        if (tls_ || write_limit_ms_ > 0) {
            if (fd_ < 0 || ended_) return -1;
            if (!write_bounded(frame)) return -1;
            metrics::record_sent(packet);
            return static_cast<int>(frame.size());
        }
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
    if (n != static_cast<ssize_t>(frame.size())) return -1;
    metrics::record_sent(packet);
    return static_cast<int>(n);
}

bool pms_link::write_bounded(const std::string& frame) {
    const std::chrono::milliseconds limit(write_limit_ms_.load());
    const steady::time_point deadline = steady::now() + limit;
    size_t done = 0;
    outcome result = outcome::done;
    while (done < frame.size()) {
        short wait = POLLOUT;
        if (tls_) {
            const int n = tls_->write(frame.data(), static_cast<int>(frame.size()), &wait);
            if (n > 0) {
                done = frame.size();
                continue;
            }
            if (n != tls_session::again) {
                result = outcome::failed;
                break;
            }
        } else {
            const ssize_t n =
                send(fd_, frame.data() + done, frame.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n > 0) {
                done += static_cast<size_t>(n);
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            if (n == 0 || (errno != EAGAIN && errno != EWOULDBLOCK)) {
                result = outcome::failed;
                break;
            }
        }
        const int r = poll_until(fd_, wait, deadline);
        if (r <= 0) {
            result = r == 0 ? outcome::late : outcome::failed;
            break;
        }
    }
    if (result == outcome::done) return true;
    if (result == outcome::late)
        LOG(L_ERROR, "PMS %s: a write took longer than %s: the link is taken as down",
            peer_.c_str(), seconds_text(limit).c_str());
    // Lost, and maybe cut inside a frame (over TLS always): nothing more goes
    // into this link; the reader ends it.
    if (result == outcome::late || link_end_ || tls_) {
        ended_ = true;
        pms_connected_ = 0;
        shutdown(fd_, SHUT_RDWR);
    }
    return false;
}

int pms_link::send_packet(const fias_packet_t* p) {
    if (!p) return -1;
    std::string text = fias_packet_to_str(p, fias_codec_options{numbers_});
    if (text.empty()) return -1;
    return send_raw(text.c_str());
}

int pms_link::send_la() {
    return send_raw(local_time_text(time(nullptr), "LA|DA%y%m%d|TI%H%M%S|").c_str());
}

int pms_link::send_dr() {
    return send_raw(local_time_text(time(nullptr), "DR|DA%y%m%d|TI%H%M%S|").c_str());
}

int pms_link::init_connection(const char* iftype, fias_record_set optional,
                              fias_field_set optional_fields) {
    // A packet like every record with a value from outside (the interface
    // type is the configuration's).
    const std::string now = local_time_text(time(nullptr), "%y%m%d%H%M%S");
    fias_packet_ptr ld = fias_create_packet(FIAS_LD);
    for (const auto& [name, text] :
         {std::pair<const char*, std::string>{"DA", now.substr(0, 6)},
          {"TI", now.substr(6)},
          {"V#", "1.01"},
          {"IF", iftype ? std::string(iftype, strnlen(iftype, 2)) : ""}}) {
        fias_value_t v;
        v.str = text;
        fias_set_packet_field(ld.get(), name, &v);
    }
    send_raw(fias_packet_to_str(ld.get()).c_str());

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
            if (!row->fields[i].feature || (optional_fields & row->fields[i].feature))
                names.append(row->fields[i].name);
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

// One byte from `sock`, or from `tls` over it: 1, 0 at end of stream, -1 on
// error (EINTR retried), pms_link::idle when nothing came within a second
// (or a signal interrupted the wait, or only part of a TLS record came), so
// that the caller can act on pending signals. `*wait` is what the TLS
// session waits for.
int read_byte(int sock, tls_session* tls, short* wait, char* c) {
    if (!tls || !tls->pending()) {
        pollfd pfd{sock, tls ? *wait : static_cast<short>(POLLIN), 0};
        int ready = poll(&pfd, 1, 1000);
        if (ready < 0 && errno != EINTR) return -1;
        if (ready <= 0) return pms_link::idle;
    }
    if (tls) {
        *wait = POLLIN;
        const int n = tls->read(c, 1, wait);
        return n == tls_session::again ? pms_link::idle : n;
    }
    for (;;) {
        ssize_t n = read(sock, c, 1);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EINTR) return -1;
    }
}

// Reads what `sock` holds (waiting a second at most) into `out`: its count,
// 0 at the end of the stream, idle, or -1. What is there already is taken
// without waiting: a PMS that answers at once has answered by the time the
// last record's work is done.
int read_some(int sock, std::string& out) {
    out.resize(4096);
    for (bool waited = false;;) {
        const ssize_t n = waited ? read(sock, out.data(), out.size())
                                 : recv(sock, out.data(), out.size(), MSG_DONTWAIT);
        if (n >= 0) {
            out.resize(static_cast<size_t>(n));
            return static_cast<int>(n);
        }
        if (errno == EINTR) continue;
        out.clear();
        if (waited || (errno != EAGAIN && errno != EWOULDBLOCK && errno != ENOTSOCK)) return -1;
        pollfd pfd{sock, POLLIN, 0};
        const int ready = poll(&pfd, 1, 1000);
        if (ready < 0 && errno != EINTR) return -1;
        if (ready <= 0) return pms_link::idle;
        out.resize(4096);
        waited = true;
    }
}

}  // namespace

bool pms_link::watch_silence(std::chrono::seconds alive, std::chrono::seconds wait) {
    if (!open_ || ended_) return false;
    const steady::time_point now = steady::now();
    const auto silent = std::chrono::duration_cast<std::chrono::seconds>(now - last_heard_);
    std::string why;
    if (!active()) {
        if (now - last_heard_ < wait) return false;
        why = "no answer to the link start-up within " + std::to_string(wait.count()) + " s";
    } else if (alive_sent_) {
        if (now - *alive_sent_ < wait) return false;
        why = "silent for " + std::to_string(silent.count()) +
              " s, no answer to the alive check within " + std::to_string(wait.count()) + " s";
    } else {
        if (alive.count() > 0 && now - last_heard_ >= alive) {
            alive_sent_ = now;
            send_raw(link_start_text().c_str());
        }
        return false;
    }
    std::string peer;
    {
        mutex_lock guard(write_mutex_);
        peer = peer_;
    }
    LOG(L_WARNING, "PMS %s: %s: the link is given up", peer.c_str(), why.c_str());
    drop();
    return true;
}

void pms_link::heard() {
    last_heard_ = steady::now();
    alive_answer_ = alive_sent_ && is_type(partial_, "LA");
    alive_sent_.reset();
}

int pms_link::read_packet(char* packet, int maxlen) {
    if (maxlen < 1) return 0;
    // The main thread is the only one that closes the socket, so the number
    // stays valid while it reads without the write lock.
    const int sock = read_fd_;
    tls_session* const tls = read_tls_;
    if (sock < 0) return link_end_ ? idle : -1;
    for (;;) {
        if (in_record_ && static_cast<int>(partial_.size()) >= maxlen - 1) {
            in_record_ = false;  // cut; the rest of the record follows as stray bytes
            heard();
            memcpy(packet, partial_.data(), partial_.size());
            packet[partial_.size()] = '\0';
            return static_cast<int>(partial_.size());
        }
        char c;
        int n = 1;
        if (received_at_ < received_.size()) {
            c = received_[received_at_++];
        } else if (tls) {
            n = read_byte(sock, tls, &tls_wait_, &c);
        } else {
            // What the socket holds is taken at once; the bytes are then
            // handed out one by one.
            n = read_some(sock, received_);
            received_at_ = 0;
            if (n > 0) c = received_[received_at_++];
        }
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
        heard();
        const int count = static_cast<int>(partial_.size());
        memcpy(packet, partial_.data(), partial_.size());
        packet[count] = ETX;
        packet[count + 1] = '\0';
        if (link_end_ && is_type(partial_, "LE")) {
            LOG(L_DEBUG, "Read %s", fias_shown(packet).c_str());
            return -1;  // the PMS ends the link
        }
        return count;
    }
}

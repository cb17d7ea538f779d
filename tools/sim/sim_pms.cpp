#include "sim_pms.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

#include "cv_wait.h"
#include "netutil.h"

namespace {

constexpr char STX = 0x02;
constexpr char ETX = 0x03;

bool starts_with(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The value of field `name` in a record text, or nothing when it is absent or
// not closed by "|".
std::optional<std::string> field_value(const std::string& text, const char* name) {
    size_t at = text.find(std::string("|") + name);
    if (at == std::string::npos) return std::nullopt;
    size_t begin = at + 3;
    size_t end = text.find('|', begin);
    if (end == std::string::npos) return std::nullopt;
    return text.substr(begin, end - begin);
}

std::string local_time_text(const char* format) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    char buf[64] = "";
    strftime(buf, sizeof buf, format, &tmv);
    return buf;
}

}  // namespace

void pms_sim::ctx_free::operator()(SSL_CTX* c) const {
    SSL_CTX_free(c);
}

void pms_sim::ssl_free::operator()(SSL* s) const {
    SSL_free(s);
}

pms_sim::pms_sim() : pms_sim(options{}) {}

pms_sim::pms_sim(options opts) : opts_(std::move(opts)) {}

pms_sim::~pms_sim() {
    stop();
}

bool pms_sim::start() {
    if (thread_.joinable()) return true;
    listen_fd_ = listen_loopback(opts_.port, &port_);
    if (listen_fd_ < 0) return false;
    wake_fd_ = eventfd(0, EFD_CLOEXEC);
    if (wake_fd_ < 0) {
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    {
        mutex_lock guard(mutex_);
        stopping_ = false;  // started again after a stop()
    }
    thread_ = std::thread([this] { run(); });
    return true;
}

void pms_sim::stop() {
    if (thread_.joinable()) {
        {
            mutex_lock guard(mutex_);
            stopping_ = true;
        }
        uint64_t one = 1;
        if (write(wake_fd_, &one, sizeof one) < 0) {
            // The thread also looks at stopping_ after every wake-up.
        }
        thread_.join();
    }
    close_client();
    if (listen_fd_ >= 0) close(listen_fd_);
    if (wake_fd_ >= 0) close(wake_fd_);
    listen_fd_ = wake_fd_ = -1;
    changed_.notify_all();
}

bool pms_sim::serve_tls(const std::string& cert_file, const std::string& key_file) {
    std::unique_ptr<SSL_CTX, ctx_free> ctx(SSL_CTX_new(TLS_server_method()));
    if (!ctx || SSL_CTX_use_certificate_chain_file(ctx.get(), cert_file.c_str()) != 1 ||
        SSL_CTX_use_PrivateKey_file(ctx.get(), key_file.c_str(), SSL_FILETYPE_PEM) != 1)
        return false;
    signal(SIGPIPE, SIG_IGN);  // OpenSSL writes without MSG_NOSIGNAL
    tls_ctx_ = std::move(ctx);
    return true;
}

int pms_sim::tls_failures() const {
    mutex_lock guard(mutex_);
    return tls_failures_;
}

bool pms_sim::tls_accept(int fd) {
    std::unique_ptr<SSL, ssl_free> ssl(SSL_new(tls_ctx_.get()));
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    std::string failure;
    if (!ssl || SSL_set_fd(ssl.get(), fd) != 1) failure = "no session";
    while (failure.empty()) {
        ERR_clear_error();
        const int rc = SSL_accept(ssl.get());
        if (rc == 1) break;
        const int e = SSL_get_error(ssl.get(), rc);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, static_cast<short>(e == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
        if ((e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE)) {
            const unsigned long code = ERR_get_error();
            const char* reason = code ? ERR_reason_error_string(code) : nullptr;
            failure = reason ? reason : "connection closed";
        } else if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            failure = "timed out";
        }
    }
    ERR_clear_error();
    if (!failure.empty()) {
        {
            mutex_lock guard(mutex_);
            tls_failures_++;
        }
        changed_.notify_all();
        note("TLS handshake failed: " + failure);
        return false;
    }
    mutex_lock guard(send_mutex_);
    client_ssl_ = std::move(ssl);
    return true;
}

int pms_sim::tls_receive(std::string& out) {
    mutex_lock guard(send_mutex_);
    char buf[4096];
    for (;;) {
        ERR_clear_error();
        const int n = SSL_read(client_ssl_.get(), buf, sizeof buf);
        if (n > 0) {
            out.append(buf, static_cast<size_t>(n));
            continue;
        }
        const int e = SSL_get_error(client_ssl_.get(), n);
        ERR_clear_error();
        if (e == SSL_ERROR_WANT_READ || e == SSL_ERROR_WANT_WRITE) return 1;
        return e == SSL_ERROR_ZERO_RETURN ? 0 : -1;
    }
}

bool pms_sim::tls_send(const std::string& bytes) {
    for (;;) {
        ERR_clear_error();
        const int n = SSL_write(client_ssl_.get(), bytes.data(), static_cast<int>(bytes.size()));
        if (n > 0) return true;
        const int e = SSL_get_error(client_ssl_.get(), n);
        ERR_clear_error();
        if (e != SSL_ERROR_WANT_READ && e != SSL_ERROR_WANT_WRITE) return false;
        pollfd p{client_fd_, static_cast<short>(e == SSL_ERROR_WANT_WRITE ? POLLOUT : POLLIN), 0};
        if (poll(&p, 1, 5000) <= 0) return false;
    }
}

void pms_sim::set_answer(answer_mode mode, const std::string& refuse_text) {
    mutex_lock guard(mutex_);
    opts_.answer = mode;
    opts_.refuse_text = refuse_text;
}

void pms_sim::set_answer_delay(std::chrono::microseconds delay) {
    mutex_lock guard(mutex_);
    opts_.answer_delay = delay;
}

void pms_sim::set_occupied(std::optional<std::vector<guest>> occupied) {
    mutex_lock guard(mutex_);
    occupied_ = std::move(occupied);
}

namespace {

std::string guest_fields(const pms_sim::guest& g) {
    return "RN" + g.room + "|GN" + g.name + "|GL" + g.lang + "|GSN|";
}

}  // namespace

bool pms_sim::send_guest_change(const guest& g, const std::string& old_room) {
    return send_record("GC|" + guest_fields(g) + (old_room.empty() ? "" : "RO" + old_room + "|"));
}

bool pms_sim::send_night_audit(bool start) {
    return send_record(local_time_text(start ? "NS|DA%y%m%d|TI%H%M%S|" : "NE|DA%y%m%d|TI%H%M%S|"));
}

void pms_sim::run() {
    char buf[4096];
    int client = -1;  // client_fd_, which only this thread changes
    // Delayed answers wake this thread on time: the default slack of the
    // thread's timers (50 us) would be as long as a short delay.
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);
    for (;;) {
        pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {-1, POLLIN, 0}};
        fds[1].fd = client >= 0 ? client : listen_fd_;
        {
            mutex_lock guard(mutex_);
            if (paused_ && client >= 0) fds[1].fd = -1;  // poll ignores it
        }
        timespec wait_ts{};
        const auto wait = send_due_answers();
        if (wait) {
            wait_ts.tv_sec = static_cast<time_t>(wait->count() / 1000000000);
            wait_ts.tv_nsec = static_cast<long>(wait->count() % 1000000000);
        }
        int n = ppoll(fds, 2, wait ? &wait_ts : nullptr, nullptr);
        if (n < 0 && errno != EINTR) break;
        {
            mutex_lock guard(mutex_);
            if (stopping_) break;
        }
        if (n > 0 && (fds[0].revents & POLLIN)) {
            uint64_t count;  // a wake-up for new settings: taken, not kept
            [[maybe_unused]] ssize_t r = read(wake_fd_, &count, sizeof count);
        }
        if (n <= 0 || !fds[1].revents) continue;

        if (client < 0) {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) continue;
            if (tls_ctx_ && !tls_accept(fd)) {
                close(fd);
                continue;
            }
            {
                mutex_lock guard(send_mutex_);
                client_fd_ = fd;
            }
            client = fd;
            collecting_ = ls_answered_ = ld_seen_ = false;
            partial_.clear();
            pending_.clear();
            {
                mutex_lock guard(mutex_);
                connected_ = true;
                link_active_ = false;
                connections_++;
            }
            changed_.notify_all();
            note("client connected");
            continue;
        }

        bool open = true;
        if (tls_ctx_) {
            std::string received;
            open = tls_receive(received) > 0;
            handle_bytes(received.data(), received.size());
        } else {
            ssize_t got = read(client, buf, sizeof buf);
            if (got < 0 && errno == EINTR) continue;
            open = got > 0;
            if (open) handle_bytes(buf, static_cast<size_t>(got));
        }
        if (!open) {
            close_client();
            client = -1;
            pending_.clear();
            note("client disconnected");
        }
    }
}

void pms_sim::close_client() {
    {
        mutex_lock guard(send_mutex_);
        if (client_fd_ < 0) return;
        client_ssl_.reset();
        close(client_fd_);
        client_fd_ = -1;
    }
    {
        mutex_lock guard(mutex_);
        connected_ = false;
        link_active_ = false;
    }
    changed_.notify_all();
}

void pms_sim::handle_bytes(const char* data, size_t len) {
    for (size_t i = 0; i < len; i++) {
        char c = data[i];
        if (c == STX) {
            // A new start also abandons an unfinished frame.
            collecting_ = true;
            partial_.clear();
        } else if (!collecting_) {
            // Bytes between frames are ignored.
        } else if (c == ETX) {
            collecting_ = false;
            handle_frame(partial_);
            partial_.clear();
        } else {
            partial_.push_back(c);
        }
    }
}

void pms_sim::handle_frame(const std::string& text) {
    record(true, text, false);

    answer_mode mode;
    std::string refuse_text;
    std::chrono::microseconds delay;
    std::optional<std::vector<guest>> occupied;
    bool active;
    {
        mutex_lock guard(mutex_);
        if (silent_) return;
        active = link_active_;
        mode = opts_.answer;
        refuse_text = opts_.refuse_text;
        delay = opts_.answer_delay;
        occupied = occupied_;
    }
    if (starts_with(text, "DR") && occupied) {
        send_record(local_time_text("DS|DA%y%m%d|TI%H%M%S|"));
        for (const guest& g : *occupied) send_record("GI|" + guest_fields(g));
        send_record(local_time_text("DE|DA%y%m%d|TI%H%M%S|"));
    }

    if (opts_.play_link) {
        if (starts_with(text, "LS") && active) {
            send_record(local_time_text("LA|DA%y%m%d|TI%H%M%S|"));
        } else if (starts_with(text, "LS")) {
            ls_answered_ = true;
            ld_seen_ = false;
            {
                mutex_lock guard(mutex_);
                link_active_ = false;
            }
            send_record(local_time_text("LS|DA%y%m%d|TI%H%M%S|"));
        } else if (starts_with(text, "LD")) {
            ld_seen_ = true;
        } else if (starts_with(text, "LA") && ld_seen_) {
            send_record(local_time_text("LA|DA%y%m%d|TI%H%M%S|"));
            {
                mutex_lock guard(mutex_);
                link_active_ = true;
            }
            changed_.notify_all();
        }
    }

    // Minibar postings and room status, as the front desk would see them.
    auto value = [&](const char* name) { return field_value(text, name).value_or(""); };
    if (starts_with(text, "PS") && value("PT") == "M")
        note("minibar posting P#" + value("P#") + ": room " + value("RN") + ", article " +
             value("MA") + ", quantity " + value("M#") +
             (value("TA").empty() ? "" : ", amount " + value("TA")));
    else if (starts_with(text, "RE") && !value("RS").empty())
        note("room status: room " + value("RN") + " is " + value("RS") +
             (value("ID").empty() ? "" : " (maid " + value("ID") + ")"));

    if (starts_with(text, "PS") && mode != answer_mode::none) {
        std::string pa =
            "PA|AS" + (mode == answer_mode::ok ? std::string("OK") : refuse_text) + "|";
        for (const char* name : {"RN", "P#", "DA", "TI"}) {
            if (auto v = field_value(text, name)) pa += name + *v + "|";
        }
        if (delay.count() <= 0 && pending_.empty()) {
            send_record(pa);
        } else {
            pending_.push_back({std::chrono::steady_clock::now() + delay, std::move(pa)});
        }
    }
}

std::optional<std::chrono::nanoseconds> pms_sim::send_due_answers() {
    while (!pending_.empty()) {
        const auto left = pending_.front().due - std::chrono::steady_clock::now();
        if (left.count() > 0) return left;
        send_record(pending_.front().text);
        pending_.pop_front();
    }
    return std::nullopt;
}

bool pms_sim::send_record(const std::string& text) {
    return send_bytes(STX + text + ETX, text, false);
}

bool pms_sim::send_raw(const std::string& bytes) {
    return send_bytes(bytes, bytes, true);
}

bool pms_sim::send_bytes(const std::string& bytes, const std::string& text, bool raw) {
    mutex_lock guard(send_mutex_);
    if (client_fd_ < 0) return false;
    if (!(client_ssl_ ? tls_send(bytes) : write_all(client_fd_, bytes))) return false;
    record(false, text, raw);
    return true;
}

void pms_sim::drop_connection() {
    {
        mutex_lock guard(send_mutex_);
        if (client_fd_ < 0) return;
        shutdown(client_fd_, SHUT_RDWR);
    }
    // The simulator's thread sees the end of the stream and closes the socket.
    mutex_lock guard(mutex_);
    cv_wait_for(changed_, mutex_, std::chrono::seconds(5),
                [this]() REQUIRES(mutex_) { return !connected_ || stopping_; });
}

void pms_sim::reset_connection() {
    {
        mutex_lock guard(send_mutex_);
        if (client_fd_ < 0) return;
        linger l{1, 0};  // close() then sends a reset
        setsockopt(client_fd_, SOL_SOCKET, SO_LINGER, &l, sizeof l);
        shutdown(client_fd_, SHUT_RD);
    }
    mutex_lock guard(mutex_);
    cv_wait_for(changed_, mutex_, std::chrono::seconds(5),
                [this]() REQUIRES(mutex_) { return !connected_ || stopping_; });
}

void pms_sim::pause_reading(bool paused) {
    {
        mutex_lock guard(mutex_);
        paused_ = paused;
    }
    // Wake the thread so that it polls with the new setting.
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(wake_fd_, &one, sizeof one);
}

void pms_sim::set_silent(bool silent) {
    mutex_lock guard(mutex_);
    silent_ = silent;
}

void pms_sim::record(bool incoming, const std::string& text, bool raw) {
    frame f{std::chrono::system_clock::now(), time_stamp(), incoming, text, raw};
    {
        mutex_lock guard(mutex_);
        transcript_.push_back(f);
        if (incoming) received_.push_back(text);
    }
    changed_.notify_all();
    if (opts_.on_frame) opts_.on_frame(f);
}

void pms_sim::note(const std::string& text) {
    if (opts_.on_note) opts_.on_note(text);
}

bool pms_sim::connected() const {
    mutex_lock guard(mutex_);
    return connected_;
}

int pms_sim::connections() const {
    mutex_lock guard(mutex_);
    return connections_;
}

bool pms_sim::link_active() const {
    mutex_lock guard(mutex_);
    return link_active_;
}

bool pms_sim::wait_connected(std::chrono::milliseconds timeout) {
    mutex_lock guard(mutex_);
    return cv_wait_for(changed_, mutex_, timeout, [this]() REQUIRES(mutex_) { return connected_; });
}

bool pms_sim::wait_link_active(std::chrono::milliseconds timeout) {
    mutex_lock guard(mutex_);
    return cv_wait_for(changed_, mutex_, timeout,
                       [this]() REQUIRES(mutex_) { return link_active_; });
}

std::vector<pms_sim::frame> pms_sim::transcript() const {
    mutex_lock guard(mutex_);
    return transcript_;
}

std::vector<std::string> pms_sim::frames() const {
    mutex_lock guard(mutex_);
    return received_;
}

std::vector<std::string> pms_sim::frames(const std::string& prefix) const {
    std::vector<std::string> out;
    mutex_lock guard(mutex_);
    for (const std::string& f : received_) {
        if (starts_with(f, prefix)) out.push_back(f);
    }
    return out;
}

size_t pms_sim::count_frames(const std::string& prefix) const {
    return frames(prefix).size();
}

std::map<std::string, pms_sim::posting_count> pms_sim::postings() const {
    std::map<std::string, posting_count> out;
    for (const frame& f : transcript()) {
        auto seq = field_value(f.text, "P#");
        if (!seq) continue;
        if (f.incoming && starts_with(f.text, "PS")) out[*seq].posted++;
        if (!f.incoming && starts_with(f.text, "PA|ASOK")) out[*seq].accepted++;
    }
    return out;
}

std::optional<std::string> pms_sim::wait_for_frame(const std::string& prefix,
                                                   std::chrono::milliseconds timeout, size_t from,
                                                   size_t* index) const {
    std::optional<std::string> found;
    mutex_lock guard(mutex_);
    cv_wait_for(changed_, mutex_, timeout, [&]() REQUIRES(mutex_) {
        for (size_t i = from; i < received_.size(); i++) {
            if (starts_with(received_[i], prefix)) {
                found = received_[i];
                if (index) *index = i;
                return true;
            }
        }
        return false;
    });
    return found;
}

bool pms_sim::wait_for_count(const std::string& prefix, size_t n,
                             std::chrono::milliseconds timeout) const {
    mutex_lock guard(mutex_);
    return cv_wait_for(changed_, mutex_, timeout, [&]() REQUIRES(mutex_) {
        size_t count = 0;
        for (const std::string& f : received_) count += starts_with(f, prefix) ? 1 : 0;
        return count >= n;
    });
}

void pms_sim::clear() {
    mutex_lock guard(mutex_);
    transcript_.clear();
    received_.clear();
}

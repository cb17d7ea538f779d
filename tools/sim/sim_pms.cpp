#include "sim_pms.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
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

void pms_sim::set_answer(answer_mode mode, const std::string& refuse_text) {
    mutex_lock guard(mutex_);
    opts_.answer = mode;
    opts_.refuse_text = refuse_text;
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
    for (;;) {
        pollfd fds[2] = {{wake_fd_, POLLIN, 0}, {-1, POLLIN, 0}};
        fds[1].fd = client >= 0 ? client : listen_fd_;
        {
            mutex_lock guard(mutex_);
            if (paused_ && client >= 0) fds[1].fd = -1;  // poll ignores it
        }
        int n = poll(fds, 2, -1);
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
            {
                mutex_lock guard(send_mutex_);
                client_fd_ = fd;
            }
            client = fd;
            collecting_ = ls_answered_ = ld_seen_ = false;
            partial_.clear();
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

        ssize_t got = read(client, buf, sizeof buf);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            close_client();
            client = -1;
            note("client disconnected");
            continue;
        }
        handle_bytes(buf, static_cast<size_t>(got));
    }
}

void pms_sim::close_client() {
    {
        mutex_lock guard(send_mutex_);
        if (client_fd_ < 0) return;
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
    std::optional<std::vector<guest>> occupied;
    {
        mutex_lock guard(mutex_);
        mode = opts_.answer;
        refuse_text = opts_.refuse_text;
        occupied = occupied_;
    }
    if (starts_with(text, "DR") && occupied) {
        send_record(local_time_text("DS|DA%y%m%d|TI%H%M%S|"));
        for (const guest& g : *occupied) send_record("GI|" + guest_fields(g));
        send_record(local_time_text("DE|DA%y%m%d|TI%H%M%S|"));
    }

    if (opts_.play_link) {
        if (starts_with(text, "LS")) {
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

    if (starts_with(text, "PS") && mode != answer_mode::none) {
        std::string pa =
            "PA|AS" + (mode == answer_mode::ok ? std::string("OK") : refuse_text) + "|";
        for (const char* name : {"RN", "P#", "DA", "TI"}) {
            if (auto v = field_value(text, name)) pa += name + *v + "|";
        }
        send_record(pa);
    }
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
    if (!write_all(client_fd_, bytes)) return false;
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

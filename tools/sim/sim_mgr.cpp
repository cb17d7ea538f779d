#include "sim_mgr.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "cv_wait.h"
#include "netutil.h"

namespace {

const char* const banner = "Asterisk Call Manager/9.0.0\r\n";
const char* const answer_accepted = "Message: Authentication accepted\r\n\r\n";
const char* const answer_failed = "Message: Authentication failed\r\n\r\n";
constexpr int send_wait_ms = 30000;  // a peer that takes nothing for this long is dropped

std::atomic<long> event_counter{0};

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string trim(const std::string& s) {
    size_t b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = s.find_last_not_of(" \t");
    return s.substr(b, e - b + 1);
}

// "YYYY-MM-DD HH:MM:SS" plus `seconds`; the text itself when it is not a date.
std::string add_seconds(const std::string& when, int seconds) {
    struct tm t {};
    if (sscanf(when.c_str(), "%d-%d-%d %d:%d:%d", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour,
               &t.tm_min, &t.tm_sec) != 6)
        return when;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    time_t epoch = timegm(&t) + seconds;
    gmtime_r(&epoch, &t);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &t);
    return buf;
}

std::string now_text() {
    time_t now = time(nullptr);
    struct tm t {};
    localtime_r(&now, &t);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &t);
    return buf;
}

// Whether a login's "Events:" value (absent: every event class) asks for
// the class `wanted`.
bool wants_class(const std::string* events, const char* wanted) {
    if (!events) return true;
    std::string v = lower(trim(*events));
    if (v == "on" || v == "yes" || v == "true" || v == "all") return true;
    size_t pos = 0;
    while (pos <= v.size()) {
        size_t comma = v.find(',', pos);
        if (comma == std::string::npos) comma = v.size();
        if (trim(v.substr(pos, comma - pos)) == wanted) return true;
        pos = comma + 1;
    }
    return false;
}

// The extension an Originate's channel names ("PJSIP/2101" -> "2101",
// "Local/2101@phones" -> "2101").
std::string channel_extension(const std::string& channel) {
    const size_t slash = channel.find('/');
    std::string rest = slash == std::string::npos ? channel : channel.substr(slash + 1);
    return rest.substr(0, rest.find('@'));
}

// \r \n \t \\ (and \<any> as that character) of a script text.
std::string unescape(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '\\' || i + 1 == s.size()) {
            out += s[i];
            continue;
        }
        char c = s[++i];
        out += c == 'r' ? '\r' : c == 'n' ? '\n' : c == 't' ? '\t' : c;
    }
    return out;
}

// Blank-separated words; "..." groups, a backslash takes the next character.
std::vector<std::string> split_words(const std::string& line) {
    std::vector<std::string> words;
    std::string cur;
    bool in_word = false, quoted = false;
    for (size_t i = 0; i < line.size(); ++i) {
        char c = line[i];
        if (c == '\\' && i + 1 < line.size()) {
            cur += line[++i];
            in_word = true;
        } else if (c == '"') {
            quoted = !quoted;
            in_word = true;
        } else if (!quoted && (c == ' ' || c == '\t' || c == '\r' || c == '\n')) {
            if (in_word) words.push_back(cur);
            cur.clear();
            in_word = false;
        } else {
            cur += c;
            in_word = true;
        }
    }
    if (in_word) words.push_back(cur);
    return words;
}

// The text after the first word of `line` (for raw texts, taken literally).
std::string rest_of_line(const std::string& line) {
    size_t b = line.find_first_not_of(" \t");
    size_t e = line.find_first_of(" \t", b);
    if (e == std::string::npos) return "";
    size_t r = e + 1;  // exactly one separator: leading blanks of the text are kept
    std::string rest = line.substr(r);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == '\n')) rest.pop_back();
    return rest;
}

bool parse_int(const std::string& s, long* out) {
    if (s.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno || *end) return false;
    *out = v;
    return true;
}

bool parse_on_off(const std::string& s, bool* out) {
    std::string v = lower(s);
    if (v == "on" || v == "yes" || v == "1" || v == "true") return *out = true, true;
    if (v == "off" || v == "no" || v == "0" || v == "false") return *out = false, true;
    return false;
}

}  // namespace

// ---- events

mgr_cdr_event mgr_cdr_event::make(const std::string& src, const std::string& dst,
                                  const std::string& start, int billsec) {
    long n = ++event_counter;
    char chan[64], uid[64];
    snprintf(chan, sizeof chan, "-%08lx", n);
    snprintf(uid, sizeof uid, "%ld.%ld", static_cast<long>(time(nullptr)), n);
    std::string b = std::to_string(billsec);
    mgr_cdr_event ev;
    ev.headers = {
        {"Event", "Cdr"},
        {"Privilege", "cdr,all"},
        {"AccountCode", ""},
        {"Source", src},
        {"Destination", dst},
        {"DestinationContext", "from-internal"},
        {"CallerID", "\"" + src + "\" <" + src + ">"},
        {"Channel", "SIP/" + src + chan},
        {"DestinationChannel", std::string("SIP/trunk") + chan},
        {"LastApplication", "Dial"},
        {"LastData", "SIP/trunk/" + dst},
        {"StartTime", start},
        {"AnswerTime", billsec > 0 ? start : ""},
        {"EndTime", add_seconds(start, billsec)},
        {"Duration", b},
        {"BillableSeconds", b},
        {"Disposition", billsec > 0 ? "ANSWERED" : "NO ANSWER"},
        {"AMAFlags", "DOCUMENTATION"},
        {"UniqueID", uid},
        {"UserField", ""},
    };
    return ev;
}

mgr_cdr_event& mgr_cdr_event::set(const std::string& name, const std::string& value) {
    for (auto& h : headers) {
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) {
            h.second = value;
            return *this;
        }
    }
    headers.emplace_back(name, value);
    return *this;
}

mgr_cdr_event& mgr_cdr_event::remove(const std::string& name) {
    for (auto it = headers.begin(); it != headers.end(); ++it) {
        if (strcasecmp(it->first.c_str(), name.c_str()) == 0) {
            headers.erase(it);
            break;
        }
    }
    return *this;
}

std::string mgr_cdr_event::get(const std::string& name) const {
    for (const auto& h : headers)
        if (strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
    return "";
}

std::string mgr_cdr_event::text() const {
    std::string t;
    for (const auto& h : headers) t += h.first + ": " + h.second + "\r\n";
    return t + "\r\n";
}

// ---- server

mgr_sim::session::~session() {
    if (fd >= 0) close(fd);
}

mgr_sim::mgr_sim(mgr_sim_options opts) : opts_(std::move(opts)) {}

mgr_sim::~mgr_sim() {
    stop_ = true;
    wake();
    if (thread_.joinable()) thread_.join();
    {
        mutex_lock g(mutex_);
        sessions_.clear();
    }
    if (listen_fd_ >= 0) close(listen_fd_);
    if (wake_fd_ >= 0) close(wake_fd_);
}

bool mgr_sim::start() {
    if (thread_.joinable()) return true;
    listen_fd_ = listen_loopback(opts_.port, &port_);
    if (listen_fd_ < 0) return false;
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0) return false;
    thread_ = std::thread([this] { serve(); });
    return true;
}

void mgr_sim::wake() {
    if (wake_fd_ < 0) return;
    uint64_t one = 1;
    ssize_t r = write(wake_fd_, &one, sizeof one);
    (void)r;
}

void mgr_sim::note(int id, const char* dir, const std::string& text) {
    if (!opts_.transcript) return;
    mutex_lock g(transcript_mutex_);
    opts_.transcript(id, dir, text);
}

void mgr_sim::serve() {
    std::vector<pollfd> fds;
    std::vector<session_ptr> polled;
    while (!stop_) {
        fds.clear();
        polled.clear();
        fds.push_back({wake_fd_, POLLIN, 0});
        fds.push_back({listen_fd_, POLLIN, 0});
        if (reading_) {
            mutex_lock g(mutex_);
            for (const session_ptr& s : sessions_) {
                fds.push_back({s->fd, POLLIN, 0});
                polled.push_back(s);
            }
        }
        int n = poll(fds.data(), fds.size(), poll_timeout_ms());
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[0].revents) {
            uint64_t v;
            ssize_t r = read(wake_fd_, &v, sizeof v);
            (void)r;
        }
        if (stop_) return;
        send_due_events();
        if (n == 0) continue;
        if (fds[1].revents & POLLIN) accept_one();
        for (size_t i = 0; i < polled.size(); ++i)
            if (fds[i + 2].revents) on_readable(polled[i]);
    }
}

void mgr_sim::accept_one() {
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    int fd = accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (fd < 0) return;
    auto s = std::make_shared<session>();
    s->fd = fd;
    {
        mutex_lock g(mutex_);
        s->id = next_id_++;
        sessions_.push_back(s);
    }
    char addr[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &peer.sin_addr, addr, sizeof addr);
    note(s->id, "--",
         "connected from " + std::string(addr) + ":" + std::to_string(ntohs(peer.sin_port)));
    send_to(s, banner);
    changed_.notify_all();
}

void mgr_sim::on_readable(const session_ptr& s) {
    char buf[64 * 1024];
    ssize_t n = recv(s->fd, buf, sizeof buf, 0);
    if (n < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (n <= 0) {
        s->closed = true;
        {
            mutex_lock g(mutex_);
            for (auto it = sessions_.begin(); it != sessions_.end(); ++it) {
                if (*it == s) {
                    sessions_.erase(it);
                    break;
                }
            }
        }
        note(s->id, "--", "closed");
        changed_.notify_all();
        return;
    }
    if (s->closed) return;          // refused: what follows is not answered
    size_t from = s->inbuf.size();  // what came before holds no line end
    s->inbuf.append(buf, static_cast<size_t>(n));
    // An action ends with an empty line; "\r" before "\n" is optional.
    for (;;) {
        size_t nl = s->inbuf.find('\n', from);
        if (nl == std::string::npos) break;
        const size_t start = s->line_start;
        bool empty = nl == start || (nl == start + 1 && s->inbuf[start] == '\r');
        s->line_start = from = nl + 1;
        if (!empty) continue;
        std::string block = s->inbuf.substr(0, s->line_start);
        s->inbuf.erase(0, s->line_start);
        s->line_start = from = 0;
        on_action(s, block);
        if (s->closed) return;
    }
}

void mgr_sim::on_action(const session_ptr& s, const std::string& block) {
    note(s->id, "<-", block);
    // Headers of the action, names in lower case.
    std::vector<std::pair<std::string, std::string>> hdrs;
    size_t pos = 0;
    while (pos < block.size()) {
        size_t nl = block.find('\n', pos);
        std::string line = block.substr(pos, nl - pos);
        pos = nl == std::string::npos ? block.size() : nl + 1;
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        hdrs.emplace_back(lower(trim(line.substr(0, colon))), trim(line.substr(colon + 1)));
    }
    auto find = [&](const char* name) -> const std::string* {
        for (const auto& h : hdrs)
            if (h.first == name) return &h.second;
        return nullptr;
    };
    const std::string* action = find("action");
    const std::string* id = find("actionid");
    std::string action_id = id ? "ActionID: " + *id + "\r\n" : "";
    std::string act = action ? lower(*action) : "";

    if (act == "login") {
        bool ok;
        std::string before;
        {
            mutex_lock g(mutex_);
            ++logins_;
            login_texts_.push_back(block);
            ok = !opts_.refuse;
            if (ok && opts_.check_credentials) {
                const std::string* u = find("username");
                const std::string* p = find("secret");
                ok = u && p && *u == opts_.user && *p == opts_.secret;
            }
            before = before_answer_;
        }
        if (!before.empty()) send_to(s, before);
        if (ok) {
            {
                // Marked before the answer is written, under the write lock: an
                // event sent by another thread can only follow the answer.
                mutex_lock w(s->write_mutex);
                s->cdr_wanted = wants_class(find("events"), "cdr");
                s->call_wanted = wants_class(find("events"), "call");
                s->user_wanted = wants_class(find("events"), "user");
                s->authenticated = true;
                send_locked(s, "Response: Success\r\n" + action_id + answer_accepted, nullptr);
            }
            mutex_lock g(mutex_);
            ++accepted_;
            if (pause_after_login_.exchange(false)) reading_ = false;
        } else {
            send_to(s, "Response: Error\r\n" + action_id + answer_failed);
            s->closed = true;
            shutdown(s->fd, SHUT_RDWR);
        }
        changed_.notify_all();
    } else if (act == "logoff") {
        send_to(s,
                "Response: Goodbye\r\n" + action_id + "Message: Thanks for all the fish.\r\n\r\n");
        s->closed = true;
        shutdown(s->fd, SHUT_RDWR);
    } else if (!s->authenticated) {
        send_to(s, "Response: Error\r\n" + action_id + "Message: Permission denied\r\n\r\n");
    } else if (act == "ping") {
        send_to(s, "Response: Success\r\n" + action_id + "Ping: Pong\r\n\r\n");
    } else if (act.empty()) {
        send_to(s,
                "Response: Error\r\n" + action_id + "Message: Missing action in request\r\n\r\n");
    } else {
        {
            mutex_lock g(mutex_);
            actions_.push_back({s->id, hdrs});
        }
        changed_.notify_all();
        const std::string answer = answer_action(act, action_id, hdrs);
        if (!answer.empty()) send_to(s, answer);
        if (act == "originate" && answer.find("Response: Success") == 0)
            schedule_originate_response(id ? *id : "", hdrs);
    }
}

void mgr_sim::schedule_originate_response(
    const std::string& action_id, const std::vector<std::pair<std::string, std::string>>& hdrs) {
    auto get = [&](const char* name) {
        for (const auto& h : hdrs)
            if (h.first == name) return h.second;
        return std::string();
    };
    const std::string channel = get("channel");
    originate_outcome outcome;
    {
        mutex_lock g(mutex_);
        auto it = originate_outcomes_.find(channel_extension(channel));
        if (it != originate_outcomes_.end()) outcome = it->second;
    }
    if (outcome.kind == originate_outcome::silent) return;
    // As a stock Asterisk reports it (see the header).
    const bool answered = outcome.kind == originate_outcome::answer;
    const char* reason = answered                                       ? "4"
                         : outcome.kind == originate_outcome::busy      ? "5"
                         : outcome.kind == originate_outcome::no_answer ? "3"
                                                                        : "0";
    const long n = ++unique_counter_;
    const std::string caller = get("callerid");
    const std::string text =
        "Event: OriginateResponse\r\nPrivilege: call,all\r\nActionID: " + action_id +
        "\r\nResponse: " + (answered ? "Success" : "Failure") +
        "\r\nChannel: " + (answered ? channel + "-" + std::to_string(n) : channel) +
        "\r\nContext: " + get("context") + "\r\nExten: " + get("exten") + "\r\nReason: " + reason +
        "\r\nUniqueid: " +
        (outcome.kind == originate_outcome::no_channel ? std::string("<unknown>")
                                                       : "1795547467." + std::to_string(n)) +
        "\r\nCallerIDNum: <unknown>\r\nCallerIDName: " + (caller.empty() ? "<unknown>" : caller) +
        "\r\n\r\n";
    {
        mutex_lock g(mutex_);
        delayed_.push_back({std::chrono::steady_clock::now() + outcome.delay, text});
    }
    wake();
}

void mgr_sim::set_originate(const std::string& extension, originate_outcome outcome) {
    mutex_lock g(mutex_);
    originate_outcomes_[extension] = outcome;
}

void mgr_sim::send_due_events() {
    std::vector<std::string> due;
    {
        mutex_lock g(mutex_);
        const auto now = std::chrono::steady_clock::now();
        for (auto it = delayed_.begin(); it != delayed_.end();) {
            if (it->first > now) {
                ++it;
                continue;
            }
            due.push_back(std::move(it->second));
            it = delayed_.erase(it);
        }
    }
    for (const std::string& text : due)
        for (const session_ptr& s : snapshot(false))
            if (s->authenticated && (!opts_.filter || s->call_wanted)) send_to(s, text);
}

int mgr_sim::poll_timeout_ms() const {
    mutex_lock g(mutex_);
    if (delayed_.empty()) return -1;
    auto first = delayed_.front().first;
    for (const auto& d : delayed_) first = std::min(first, d.first);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        first - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<long>(0, left.count() + 1));
}

std::string mgr_sim::answer_action(const std::string& act, const std::string& action_id,
                                   const std::vector<std::pair<std::string, std::string>>& hdrs) {
    auto get = [&](const char* name) {
        for (const auto& h : hdrs)
            if (h.first == name) return h.second;
        return std::string();
    };
    auto answer = [&](const char* response, const std::string& message) {
        return std::string("Response: ") + response + "\r\n" + action_id +
               (message.empty() ? "" : "Message: " + message + "\r\n") + "\r\n";
    };
    mutex_lock g(mutex_);
    if (silent_actions_.count(act)) return "";
    if (auto e = action_errors_.find(act); e != action_errors_.end())
        return answer("Error", e->second);
    const std::pair<std::string, std::string> key{get("family"), get("key")};
    if (act == "dbput") {
        db_[key] = get("val");
        return answer("Success", "Updated database successfully");
    }
    if (act == "dbget") {
        auto it = db_.find(key);
        if (it == db_.end()) return answer("Error", "Database entry not found");
        return "Response: Success\r\n" + action_id +
               "EventList: start\r\nMessage: Result will follow\r\n\r\n"
               "Event: DBGetResponse\r\nFamily: " +
               key.first + "\r\nKey: " + key.second + "\r\nVal: " + it->second + "\r\n" +
               action_id + "\r\nEvent: DBGetComplete\r\n" + action_id +
               "EventList: Complete\r\nListItems: 1\r\n\r\n";
    }
    if (act == "dbdel") {
        if (db_.erase(key) == 0) return answer("Error", "Database entry could not be deleted");
        return answer("Success", "Key deleted successfully");
    }
    if (act == "dbdeltree") {
        // The family's keys, or those under Key when it is given.
        size_t removed = 0;
        for (auto it = db_.begin(); it != db_.end();) {
            const bool under = it->first.first == key.first &&
                               (key.second.empty() || it->first.second == key.second ||
                                it->first.second.rfind(key.second + "/", 0) == 0);
            if (under) {
                it = db_.erase(it);
                ++removed;
            } else {
                ++it;
            }
        }
        if (removed == 0) return answer("Error", "Database entry not found");
        return answer("Success", "Key tree deleted successfully");
    }
    if (act == "mwiupdate") return answer("Success", "");
    if (act == "originate") return answer("Success", "Originate successfully queued");
    return answer("Error", "Invalid/unknown command");
}

std::string mgr_action::get(const std::string& name) const {
    const std::string wanted = lower(name);
    for (const auto& h : headers)
        if (h.first == wanted) return h.second;
    return "";
}

std::vector<mgr_action> mgr_sim::actions() const {
    mutex_lock g(mutex_);
    return actions_;
}

bool mgr_sim::wait_actions(size_t n, std::chrono::milliseconds timeout) const {
    mutex_lock g(mutex_);
    return cv_wait_for(changed_, mutex_, timeout,
                       [&]() REQUIRES(mutex_) { return actions_.size() >= n; });
}

void mgr_sim::set_action_error(const std::string& action, const std::string& message) {
    mutex_lock g(mutex_);
    if (message.empty())
        action_errors_.erase(lower(action));
    else
        action_errors_[lower(action)] = message;
}

void mgr_sim::set_action_silent(const std::string& action, bool silent) {
    mutex_lock g(mutex_);
    if (silent)
        silent_actions_.insert(lower(action));
    else
        silent_actions_.erase(lower(action));
}

void mgr_sim::db_put(const std::string& family, const std::string& key, const std::string& value) {
    mutex_lock g(mutex_);
    db_[{family, key}] = value;
}

std::optional<std::string> mgr_sim::db_get(const std::string& family,
                                           const std::string& key) const {
    mutex_lock g(mutex_);
    auto it = db_.find({family, key});
    if (it == db_.end()) return std::nullopt;
    return it->second;
}

bool mgr_sim::send_to(const session_ptr& s, const std::string& text, const char* what) {
    mutex_lock g(s->write_mutex);
    return send_locked(s, text, what);
}

bool mgr_sim::send_locked(const session_ptr& s, const std::string& text, const char* what) {
    if (s->closed) return false;
    size_t off = 0;
    while (off < text.size()) {
        ssize_t n = send(s->fd, text.data() + off, text.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            off += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{s->fd, POLLOUT, 0};
            if (poll(&p, 1, send_wait_ms) > 0) continue;
        }
        // Gone, or not reading at all: give the session up.
        s->closed = true;
        shutdown(s->fd, SHUT_RDWR);
        wake();
        return false;
    }
    if (!what)
        note(s->id, "->", text);
    else if (*what)
        note(s->id, "->", what);
    return true;
}

std::vector<mgr_sim::session_ptr> mgr_sim::snapshot(bool cdr_only) const {
    std::vector<session_ptr> out;
    mutex_lock g(mutex_);
    for (const session_ptr& s : sessions_) {
        if (s->closed) continue;
        if (cdr_only && (!s->authenticated || (opts_.filter && !s->cdr_wanted))) continue;
        out.push_back(s);
    }
    return out;
}

int mgr_sim::send_cdr(const mgr_cdr_event& ev) {
    int n = 0;
    std::string text = ev.text();
    for (const session_ptr& s : snapshot(true)) n += send_to(s, text) ? 1 : 0;
    return n;
}

int mgr_sim::send_user_event(const std::string& name,
                             const std::vector<std::pair<std::string, std::string>>& headers) {
    // The channel's own headers first, the dialplan's last, as the exchange
    // sends them.
    std::string text =
        "Event: UserEvent\r\nPrivilege: user,all\r\n"
        "Channel: Local/codes@codes-00000004;2\r\nContext: codes\r\n"
        "Uniqueid: " +
        std::to_string(1700000000 + unique_counter_++) + ".1\r\nUserEvent: " + name + "\r\n";
    for (const auto& [header, value] : headers) text += header + ": " + value + "\r\n";
    text += "\r\n";
    bool filter;
    {
        mutex_lock g(mutex_);
        filter = opts_.filter;
    }
    int n = 0;
    for (const session_ptr& s : snapshot(false))
        if (s->authenticated && (!filter || s->user_wanted)) n += send_to(s, text) ? 1 : 0;
    return n;
}

int mgr_sim::send_burst(const mgr_cdr_event& ev, int count) {
    const std::string base = ev.get("UniqueID");
    mgr_cdr_event copy = ev;
    std::string what = "(burst of " + std::to_string(count) + " Cdr events, UniqueID " + base +
                       ".1 to " + base + "." + std::to_string(count) + ")";
    int reached = 0;
    for (const session_ptr& s : snapshot(true)) {
        bool ok = true;
        std::string chunk;
        for (int i = 1; i <= count && ok; ++i) {
            copy.set("UniqueID", base + "." + std::to_string(i));
            chunk += copy.text();
            if (chunk.size() >= 64 * 1024 || i == count) {
                ok = send_to(s, chunk, "");  // noted once below
                chunk.clear();
            }
        }
        if (ok) {
            ++reached;
            note(s->id, "->", what);
        }
    }
    return reached;
}

int mgr_sim::send_raw(const std::string& text) {
    int n = 0;
    for (const session_ptr& s : snapshot(false)) n += send_to(s, text) ? 1 : 0;
    return n;
}

void mgr_sim::drop() {
    std::vector<session_ptr> all;
    {
        mutex_lock g(mutex_);
        all = sessions_;
    }
    for (const session_ptr& s : all) {
        mutex_lock g(s->write_mutex);
        s->closed = true;
        shutdown(s->fd, SHUT_RDWR);
        note(s->id, "--", "dropped");
    }
    wake();
}

void mgr_sim::set_refuse(bool refuse) {
    mutex_lock g(mutex_);
    opts_.refuse = refuse;
}

void mgr_sim::set_filter(bool filter) {
    mutex_lock g(mutex_);
    opts_.filter = filter;
}

void mgr_sim::set_credentials(const std::string& user, const std::string& secret) {
    mutex_lock g(mutex_);
    opts_.check_credentials = true;
    opts_.user = user;
    opts_.secret = secret;
}

void mgr_sim::set_reading(bool reading, bool after_login) {
    if (after_login) {
        pause_after_login_ = !reading;
        return;
    }
    reading_ = reading;
    wake();
}

void mgr_sim::set_before_answer(const std::string& text) {
    mutex_lock g(mutex_);
    before_answer_ = text;
}

int mgr_sim::open_sessions() const {
    mutex_lock g(mutex_);
    int n = 0;
    for (const session_ptr& s : sessions_) n += s->closed ? 0 : 1;
    return n;
}

int mgr_sim::logins() const {
    mutex_lock g(mutex_);
    return logins_;
}

int mgr_sim::accepted_logins() const {
    mutex_lock g(mutex_);
    return accepted_;
}

std::vector<std::string> mgr_sim::login_texts() const {
    mutex_lock g(mutex_);
    return login_texts_;
}

bool mgr_sim::wait_logins(int n, std::chrono::milliseconds timeout) const {
    mutex_lock g(mutex_);
    return cv_wait_for(changed_, mutex_, timeout,
                       [&]() REQUIRES(mutex_) { return accepted_ >= n; });
}

int mgr_sim::run_line(const std::string& line, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return -1;
    };
    std::vector<std::string> w = split_words(line);
    if (w.empty() || w[0][0] == '#') return 0;
    const std::string cmd = lower(w[0]);

    if (cmd == "cdr" || cmd == "burst") {
        size_t at = 1;
        long count = 1;
        if (cmd == "burst" && (w.size() < 2 || !parse_int(w[at++], &count) || count < 1))
            return fail("burst needs a positive count");
        if (w.size() < at + 4) return fail(cmd + " needs SRC DST START BILLSEC");
        std::string start = w[at + 2];
        if (lower(start) == "now") {
            start = now_text();
        } else {
            for (char& c : start)
                if (c == 'T' || c == '_') c = ' ';
        }
        long billsec;
        if (!parse_int(w[at + 3], &billsec) || billsec < 0) return fail("bad BILLSEC");
        mgr_cdr_event ev = mgr_cdr_event::make(w[at], w[at + 1], start, static_cast<int>(billsec));
        for (size_t i = at + 4; i < w.size(); ++i) {
            const std::string& kv = w[i];
            if (kv.size() > 1 && kv[0] == '-') {
                ev.remove(kv.substr(1));
                continue;
            }
            size_t eq = kv.find('=');
            if (eq == std::string::npos || eq == 0) return fail("expected Header=value: " + kv);
            ev.set(kv.substr(0, eq), kv.substr(eq + 1));
        }
        if (cmd == "cdr")
            send_cdr(ev);
        else
            send_burst(ev, static_cast<int>(count));
        return 0;
    }
    if (cmd == "userevent") {
        if (w.size() < 2) return fail("userevent needs NAME");
        std::vector<std::pair<std::string, std::string>> headers;
        for (size_t i = 2; i < w.size(); ++i) {
            size_t eq = w[i].find('=');
            if (eq == std::string::npos || eq == 0) return fail("expected Header=value: " + w[i]);
            headers.emplace_back(w[i].substr(0, eq), w[i].substr(eq + 1));
        }
        send_user_event(w[1], headers);
        return 0;
    }
    if (cmd == "raw") {
        send_raw(unescape(rest_of_line(line)));
        return 0;
    }
    if (cmd == "before-answer") {
        set_before_answer(unescape(rest_of_line(line)));
        return 0;
    }
    if (cmd == "drop") {
        drop();
        return 0;
    }
    if (cmd == "refuse" || cmd == "filter" || cmd == "reading") {
        bool on;
        if (w.size() != 2 || !parse_on_off(w[1], &on)) return fail(cmd + " needs on or off");
        if (cmd == "refuse")
            set_refuse(on);
        else if (cmd == "reading")
            set_reading(on);
        else
            set_filter(on);
        return 0;
    }
    if (cmd == "error") {
        if (w.size() < 3) return fail("error needs ACTION and MESSAGE (or off)");
        std::string message;
        for (size_t i = 2; i < w.size(); ++i) message += (i > 2 ? " " : "") + w[i];
        set_action_error(w[1], w.size() == 3 && lower(w[2]) == "off" ? "" : message);
        return 0;
    }
    if (cmd == "silent") {
        bool on;
        if (w.size() != 3 || !parse_on_off(w[2], &on)) return fail("silent needs ACTION on|off");
        set_action_silent(w[1], on);
        return 0;
    }
    if (cmd == "dbput") {
        if (w.size() != 4) return fail("dbput needs FAMILY KEY VALUE");
        db_put(w[1], w[2], w[3]);
        return 0;
    }
    if (cmd == "wait-login") {
        long n = 1;
        double secs = 10;
        if (w.size() > 1 && (!parse_int(w[1], &n) || n < 1)) return fail("bad login count");
        if (w.size() > 2) {
            char* end = nullptr;
            secs = strtod(w[2].c_str(), &end);
            if (*end || secs < 0) return fail("bad seconds");
        }
        if (!wait_logins(static_cast<int>(n),
                         std::chrono::milliseconds(static_cast<long>(secs * 1000))))
            return fail("no login in time");
        return 0;
    }
    if (cmd == "sleep") {
        char* end = nullptr;
        double secs = w.size() == 2 ? strtod(w[1].c_str(), &end) : -1;
        if (w.size() != 2 || *end || secs < 0) return fail("sleep needs seconds");
        std::this_thread::sleep_for(std::chrono::milliseconds(static_cast<long>(secs * 1000)));
        return 0;
    }
    if (cmd == "originate") {
        // originate EXTEN answer|busy|noanswer|nochannel|silent [DELAY_MS]
        static const std::map<std::string, originate_outcome::kind_t> kinds = {
            {"answer", originate_outcome::answer},
            {"busy", originate_outcome::busy},
            {"noanswer", originate_outcome::no_answer},
            {"nochannel", originate_outcome::no_channel},
            {"silent", originate_outcome::silent}};
        long delay = 100;
        if (w.size() < 3 || !kinds.count(lower(w[2])) ||
            (w.size() > 3 && (!parse_int(w[3], &delay) || delay < 0)))
            return fail("originate needs EXTEN answer|busy|noanswer|nochannel|silent [DELAY_MS]");
        set_originate(w[1], {kinds.at(lower(w[2])), std::chrono::milliseconds(delay)});
        return 0;
    }
    if (cmd == "quit") return 1;
    return fail("unknown command: " + w[0]);
}

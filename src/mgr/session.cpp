#include "mgr/session.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "logger.h"
#include "metrics.h"
#include "process.h"

namespace {

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

constexpr const char* action_id_prefix = "orlanbeck-";

// A header line read from the Manager as a log line may show it: while names
// are hidden, a caller name ('"Name" <number>', or a header "...Name:") is
// "<name>".
std::string shown_header(const char* line) {
    std::string text = line;
    if (!logger_hides_names()) return text;
    const size_t colon = text.find(':');
    if (colon == std::string::npos) return text;
    if (colon >= 4 && strncasecmp(text.c_str() + colon - 4, "Name", 4) == 0)
        return text.substr(0, colon) + ": <name>";
    const size_t open = text.find('"', colon);
    const size_t close = open == std::string::npos ? open : text.find('"', open + 1);
    if (close != std::string::npos && text.find('<', close) != std::string::npos)
        text.replace(open + 1, close - open - 1, "<name>");
    return text;
}
// How long a write may take that has no deadline of its own (the queue
// after a login, send_now()).
constexpr std::chrono::seconds write_wait(5);

std::string action_text(const std::string& name, const std::string& action_id,
                        const std::string& body) {
    return "Action: " + name + "\r\nActionID: " + action_id + "\r\n" + body;
}

std::string body_of(const mgr_session::headers& fields) {
    std::string body;
    for (const auto& [header, value] : fields) body += header + ": " + value + "\r\n";
    body += "\r\n";
    return body;
}

}  // namespace

mgr_session::mgr_session(settings s, states_file& states, notifier& notify)
    : settings_(std::move(s)), states_(states), notify_(notify) {}

mgr_session::~mgr_session() {
    stop(std::chrono::steady_clock::now() + std::chrono::seconds(3));
}

void mgr_session::subscribe(const std::string& event, std::function<void(const message&)> handler) {
    handlers_[lower(event)].push_back(std::move(handler));
}

void mgr_session::subscribe_answers(const std::string& prefix,
                                    std::function<void(const message&)> handler) {
    answer_handlers_.emplace_back(prefix, std::move(handler));
}

bool mgr_session::send_now(const std::string& name, const std::string& action_id,
                           const headers& fields) {
    const std::string text = action_text(name, action_id, body_of(fields));
    mutex_lock writing(write_mutex_);
    int fd;
    {
        mutex_lock guard(mutex_);
        fd = fd_;
    }
    return fd >= 0 &&
           write_whole(fd, text, std::chrono::steady_clock::now() + write_wait, "action " + name);
}

bool mgr_session::write_whole(int fd, const std::string& text,
                              std::chrono::steady_clock::time_point deadline,
                              const std::string& what) {
    const int r = mgr_send(fd, text, deadline, stop_.fd());
    if (r == 0) return true;
    // Whatever part went out must not be followed by another action: the
    // connection ends, the reader sees it and logs in again.
    if (r == -2)
        LOG(L_ERROR, "Manager: the %s could not be written in time: ending the connection",
            what.c_str());
    shutdown(fd, SHUT_RDWR);
    return false;
}

void mgr_session::before_start(std::function<bool(std::string&)> hook) {
    before_start_ = std::move(hook);
}

void mgr_session::before_wait(std::function<void()> hook) {
    before_wait_ = std::move(hook);
}

void mgr_session::after_login(std::function<void()> hook) {
    after_login_ = std::move(hook);
}

void mgr_session::start() {
    if (settings_.actions) replayer_.start([this] { replay(); });
    thread_.start([this] { run(); });
}

bool mgr_session::stop(std::chrono::steady_clock::time_point deadline) {
    stop_.request();
    {
        mutex_lock guard(mutex_);
        replay_wanted_.notify_all();
    }
    const bool replayer = replayer_.join_until(deadline);
    return thread_.join_until(deadline) && replayer;
}

void mgr_session::note_sent(long id, const std::string& name) {
    states_.actions().sent(id);
    names_[id] = name;
    if (names_.size() > static_cast<size_t>(states_file::max_queued_actions))
        names_.erase(names_.begin());
}

mgr_session::answer mgr_session::action(const std::string& room, const std::string& name,
                                        const headers& fields, std::chrono::milliseconds timeout) {
    const std::string body = body_of(fields);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    answer a;
    auto w = std::make_shared<waiter>();
    long id;
    {
        // Queued and written under one lock, so that the queue sent after a
        // login meanwhile holds it exactly once and in order.
        mutex_lock writing(write_mutex_);
        id = states_.actions().queue(room, name, body);
        if (id < 0) {
            a.result = answer::error;
            a.message = "the states file cannot be written";
            return a;
        }
        int fd;
        {
            mutex_lock guard(mutex_);
            fd = fd_;
            if (fd >= 0) {
                note_sent(id, name);
                waiting_[id] = w;
            }
        }
        if (fd < 0) {
            a.result = answer::queued;
            return a;
        }
        if (!write_whole(fd, action_text(name, action_id_prefix + std::to_string(id), body),
                         deadline, "action " + name + " for room " + room)) {
            mutex_lock guard(mutex_);
            waiting_.erase(id);
            unattended_[id] = {room, name};
            a.result = answer::queued;
            return a;
        }
    }
    mutex_lock guard(mutex_);
    while (!w->answered)
        if (answered_.wait_until(mutex_, deadline) == std::cv_status::timeout) break;
    // Unanswered, it stays queued: sent once more after the next login.
    waiting_.erase(id);
    if (!w->answered) unattended_[id] = {room, name};
    if (!w->answered) metrics::manager_action(name, "timeout");
    return w->answered ? w->reply : a;
}

mgr_message_kind classify_message(const message& m) {
    mgr_message_kind k;
    const char* response = mgr_get_header(m, "Response");
    const char* action_id = mgr_get_header(m, "ActionID");
    // An event may carry an ActionID and a Response of its own
    // (OriginateResponse): it is an event all the same.
    k.name = lower(mgr_get_header(m, "Event"));
    if (!k.name.empty()) {
        k.kind = mgr_message_kind::event;
        return k;
    }
    if (*response && strncmp(action_id, action_id_prefix, strlen(action_id_prefix)) == 0) {
        char* end = nullptr;
        k.action = strtol(action_id + strlen(action_id_prefix), &end, 10);
        if (k.action > 0 && *end == '\0') k.kind = mgr_message_kind::answer;
        return k;
    }
    return k;
}

bool mgr_session::deliver(const message& m, const mgr_message_kind& k) {
    if (k.kind != mgr_message_kind::answer) return false;
    const long id = k.action;
    const char* response = mgr_get_header(m, "Response");
    answer a;
    a.result = strcasecmp(response, "Success") == 0 ? answer::success : answer::error;
    a.message = mgr_get_header(m, "Message");
    mutex_lock guard(mutex_);
    states_.actions().done(id);
    const auto named = names_.find(id);
    if (named != names_.end()) {
        metrics::manager_action(named->second, a.result == answer::success ? "success" : "error");
        names_.erase(named);
    }
    if (auto w = waiting_.find(id); w != waiting_.end()) {
        w->second->answered = true;
        w->second->reply = a;
        waiting_.erase(w);
        answered_.notify_all();
    } else if (auto u = unattended_.find(id); u != unattended_.end()) {
        log_action_answer(u->second.first, u->second.second, a, 0);
        unattended_.erase(u);
    }
    return true;
}

void mgr_session::logged_in(mansession& s) {
    {
        mutex_lock guard(mutex_);
        if (settings_.actions) {
            // The replay thread takes the connection over and sends the queue
            // first, while this thread reads on.
            login_fd_ = s.fd;
            replay_wanted_.notify_all();
        } else {
            fd_ = s.fd;
            up_ = true;
        }
    }
}

void mgr_session::replay() {
    for (;;) {
        {
            mutex_lock guard(mutex_);
            while (login_fd_ < 0 && !stop_.requested()) replay_wanted_.wait(mutex_);
            if (stop_.requested()) return;
        }
        mutex_lock writing(write_mutex_);
        int fd;
        std::string addr;
        std::vector<states_file::queued_action> queue;
        {
            mutex_lock guard(mutex_);
            fd = login_fd_;
            login_fd_ = -1;
            if (fd < 0) continue;  // lost again meanwhile
            fd_ = fd;
            up_ = true;
            addr = addr_;
            states_.actions().all(queue);
            auto q = queue.begin();
            while (q != queue.end()) {
                if (q->sent >= 2) {
                    LOG(L_ERROR, "%s: Manager action %s for room %s was never answered: given up",
                        addr.c_str(), q->name.c_str(), q->room.c_str());
                    states_.actions().done(q->id);
                    unattended_.erase(q->id);
                    q = queue.erase(q);
                    continue;
                }
                if (!action_text(q->name, "", q->body).ends_with("\r\n\r\n")) {
                    // Its end was lost in the states file: sent, it would
                    // run into the next action.
                    LOG(L_ERROR, "%s: Manager action %s for room %s is not whole: given up",
                        addr.c_str(), q->name.c_str(), q->room.c_str());
                    states_.actions().done(q->id);
                    unattended_.erase(q->id);
                    q = queue.erase(q);
                    continue;
                }
                if (q->sent == 1)
                    LOG(L_WARNING,
                        "%s: Manager action %s for room %s sent again: its answer was lost with "
                        "the connection",
                        addr.c_str(), q->name.c_str(), q->room.c_str());
                if (!waiting_.count(q->id)) unattended_[q->id] = {q->room, q->name};
                note_sent(q->id, q->name);
                ++q;
            }
        }
        // Written without mutex_: answers and events are read meanwhile.
        for (const states_file::queued_action& q : queue)
            if (!write_whole(fd,
                             action_text(q.name, action_id_prefix + std::to_string(q.id), q.body),
                             std::chrono::steady_clock::now() + write_wait,
                             "action " + q.name + " for room " + q.room))
                break;
    }
}

void mgr_session::connection_lost() {
    // Waits for a write in progress: the socket is closed only afterwards.
    mutex_lock writing(write_mutex_);
    mutex_lock guard(mutex_);
    fd_ = -1;
    login_fd_ = -1;
    up_ = false;
}

bool mgr_session::log_in(mansession& s, const char* addr) {
    for (;;) {
        if (mgr_login(s, settings_.events.c_str()) == 0) {
            if (settings_.login_timeout_s > 0)
                s.answer_by = std::chrono::steady_clock::now() +
                              std::chrono::seconds(settings_.login_timeout_s);
            return true;
        }
        if (stop_.requested()) return false;
        if (!settings_.actions) {
            notify_.stopped(notify_part::capture,
                            settings_.stop_prefix + ": Manager login refused");
            return false;
        }
        const auto period = manager_retry_period();
        LOG(L_ERROR, "%s: Manager login refused: trying again in %ld s", addr,
            static_cast<long>(std::chrono::duration_cast<std::chrono::seconds>(period).count()));
        if (stop_.wait_for(period)) return false;
        s.connected = 0;
    }
}

void mgr_session::run() {
    const settings& c = settings_;
    LOG(L_DEBUG, "1 %s %d %s %s", c.host.c_str(), c.port, c.user.c_str(),
        c.hide_secret ? "(hidden)" : c.secret.c_str());
    std::string why;
    if (before_start_ && !before_start_(why)) {
        notify_.stopped(notify_part::capture, why);
        return;
    }
    auto s = std::make_unique<mansession>();
    if (mgr_init(*s, c.host.c_str(), c.port, c.user.c_str(), c.secret.c_str()) < 0) {
        LOG(L_ERROR, "Error initiating manager. exiting manager thread");
        notify_.stopped(notify_part::capture,
                        c.stop_prefix + ": Manager " + c.host + " cannot be resolved");
        return;
    }
    s->wake_fd = stop_.fd();
    s->hide_secret = c.hide_secret;
    s->before_wait = before_wait_;
    s->connect_timeout_ms = c.connect_timeout_s * 1000;
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, s->sin.sin_addr);
    {
        mutex_lock guard(mutex_);
        addr_ = addr;
    }

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    if (!log_in(*s, addr)) return;
    LOG(L_DEBUG, "3");

    while (!stop_.requested()) {
        msg->clear();
        const int res = mgr_read(*s, *msg);
        if (res >= 1) {
            if (log_wanted(L_DEBUG))
                for (int i = 0; i < msg->count(); ++i)
                    LOG(L_DEBUG, "%s got: %s", addr, shown_header(msg->line(i)).c_str());
            if (s->connected != 0) {
                const mgr_message_kind k = classify_message(*msg);
                if (deliver(*msg, k)) continue;
                if (k.kind == mgr_message_kind::event) {
                    metrics::manager_event(mgr_get_header(*msg, "Event"));
                    auto handlers = handlers_.find(k.name);
                    if (handlers != handlers_.end())
                        for (const auto& handler : handlers->second) handler(*msg);
                    continue;
                }
                const char* id = mgr_get_header(*msg, "ActionID");
                for (const auto& [prefix, handler] : answer_handlers_)
                    if (strncmp(id, prefix.c_str(), prefix.size()) == 0) handler(*msg);
            } else {
                const char* text = mgr_get_header(*msg, "Message");
                if (strcmp(text, "Authentication accepted") == 0) {
                    s->connected = 1;
                    s->answer_by = {};
                    LOG(L_DEBUG, "%s: connected successfully!", addr);
                    logged_in(*s);
                    if (after_login_) after_login_();
                } else if (strcmp(text, "Authentication failed") == 0) {
                    s->connected = -1;
                    s->answer_by = {};
                }
            }
        } else if (res < 0) {
            if (res == -2) {
                // No answer to the login in time: the Manager counts as
                // unreachable, and the connection is made again.
                LOG(L_ERROR, "Manager %s:%d: no answer to the login within %d s", addr, c.port,
                    c.login_timeout_s);
                s->answer_by = {};
                s->drop_input();
            }
            connection_lost();
            if (before_wait_) before_wait_();
            if (stop_.requested()) break;
            LOG(L_ERROR, "%s: Not connected", addr);
            if (!log_in(*s, addr)) break;
        }
    }
    connection_lost();
    if (before_wait_) before_wait_();
}

void log_action_answer(const std::string& room, const std::string& action,
                       const mgr_session::answer& a, int timeout_s) {
    // Asterisk's answer to deleting what is not there: a check-out clears
    // keys that a guest may never have set.
    const bool nothing_to_delete = (strcasecmp(action.c_str(), "DBDel") == 0 ||
                                    strcasecmp(action.c_str(), "DBDelTree") == 0) &&
                                   (a.message == "Database entry could not be deleted" ||
                                    a.message == "Database entry not found");
    switch (a.result) {
        case mgr_session::answer::success:
            break;
        case mgr_session::answer::queued:
            LOG(L_NOTICE, "Manager action %s for room %s queued: the Manager session is down",
                action.c_str(), room.c_str());
            break;
        case mgr_session::answer::timeout:
            LOG(L_ERROR, "Manager action %s for room %s: no answer within %d s", action.c_str(),
                room.c_str(), timeout_s);
            break;
        case mgr_session::answer::error:
            if (nothing_to_delete)
                LOG(L_NOTICE, "Manager action %s for room %s: %s (nothing to delete)",
                    action.c_str(), room.c_str(), a.message.c_str());
            else
                LOG(L_ERROR, "Manager action %s for room %s failed: %s", action.c_str(),
                    room.c_str(), a.message.c_str());
            break;
    }
}

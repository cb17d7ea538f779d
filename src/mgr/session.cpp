#include "mgr/session.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>

#include "logger.h"
#include "process.h"

namespace {

std::string lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

constexpr const char* action_id_prefix = "orlanbeck-";
constexpr int write_wait_ms = 100;

}  // namespace

mgr_session::mgr_session(settings s, notifier& notify) : settings_(std::move(s)), notify_(notify) {}

mgr_session::~mgr_session() {
    stop(std::chrono::steady_clock::now() + std::chrono::seconds(3));
}

void mgr_session::subscribe(const std::string& event, std::function<void(const message&)> handler) {
    handlers_[lower(event)] = std::move(handler);
}

void mgr_session::before_start(std::function<bool(std::string&)> hook) {
    before_start_ = std::move(hook);
}

void mgr_session::before_wait(std::function<void()> hook) {
    before_wait_ = std::move(hook);
}

void mgr_session::start() {
    thread_.start([this] { run(); });
}

bool mgr_session::stop(std::chrono::steady_clock::time_point deadline) {
    stop_.request();
    return thread_.join_until(deadline);
}

bool mgr_session::send_locked(const std::string& text) {
    return fd_ >= 0 && __mgr_write(fd_, text.data(), text.size(), write_wait_ms) == 0;
}

mgr_session::answer mgr_session::action(const std::string& name, const headers& fields,
                                        std::chrono::milliseconds timeout) {
    auto p = std::make_shared<pending>();
    p->name = name;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    mutex_lock guard(mutex_);
    const unsigned long id = ++next_id_;
    const std::string action_id = action_id_prefix + std::to_string(id);
    p->text = "Action: " + name + "\r\nActionID: " + action_id + "\r\n";
    for (const auto& [header, value] : fields) p->text += header + ": " + value + "\r\n";
    p->text += "\r\n";
    waiting_[action_id] = p;
    p->sent = send_locked(p->text);
    while (!p->answered)
        if (answered_.wait_until(mutex_, deadline) == std::cv_status::timeout) break;
    waiting_.erase(action_id);
    return p->reply;
}

bool mgr_session::deliver(const message& m) {
    const char* response = mgr_get_header(m, "Response");
    if (!*response) return false;
    mutex_lock guard(mutex_);
    auto it = waiting_.find(mgr_get_header(m, "ActionID"));
    if (it == waiting_.end()) return false;
    pending& p = *it->second;
    p.answered = true;
    p.reply.result = strcasecmp(response, "Success") == 0 ? answer::success : answer::error;
    p.reply.message = mgr_get_header(m, "Message");
    waiting_.erase(it);
    answered_.notify_all();
    return true;
}

void mgr_session::logged_in(mansession& s, const char* addr) {
    mutex_lock guard(mutex_);
    fd_ = s.fd;
    // In the order they were made: the numbers of their ActionIDs.
    std::vector<std::pair<unsigned long, pending*>> due;
    for (auto& [id, p] : waiting_)
        due.emplace_back(strtoul(id.c_str() + strlen(action_id_prefix), nullptr, 10), p.get());
    std::sort(due.begin(), due.end());
    for (auto& [id, p] : due) {
        if (p->sent)
            LOG(L_WARNING,
                "%s: Manager action %s sent again: its answer was lost with the "
                "connection",
                addr, p->name.c_str());
        p->sent = send_locked(p->text);
    }
}

void mgr_session::connection_lost() {
    mutex_lock guard(mutex_);
    fd_ = -1;
}

bool mgr_session::log_in(mansession& s, const char* addr) {
    for (;;) {
        if (mgr_login(s, settings_.events.c_str()) == 0) return true;
        if (stop_.requested()) return false;
        if (!settings_.retry_refused) {
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
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, s->sin.sin_addr);

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    if (!log_in(*s, addr)) return;
    LOG(L_DEBUG, "3");

    while (!stop_.requested()) {
        msg->clear();
        const int res = mgr_read(*s, *msg);
        if (res >= 1) {
            if (log_wanted(L_DEBUG))
                for (int i = 0; i < msg->hdrcount; ++i)
                    LOG(L_DEBUG, "%s got: %s", addr, msg->headers[i]);
            if (s->connected != 0) {
                if (deliver(*msg)) continue;
                auto handler = handlers_.find(lower(mgr_get_header(*msg, "Event")));
                if (handler != handlers_.end()) handler->second(*msg);
            } else {
                const char* text = mgr_get_header(*msg, "Message");
                if (strcmp(text, "Authentication accepted") == 0) {
                    s->connected = 1;
                    LOG(L_DEBUG, "%s: connected successfully!", addr);
                    logged_in(*s, addr);
                } else if (strcmp(text, "Authentication failed") == 0) {
                    s->connected = -1;
                }
            }
        } else if (res < 0) {
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

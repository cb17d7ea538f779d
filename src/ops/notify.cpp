#include "ops/notify.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "fias/link.h"
#include "states/states.h"

namespace {

using steady = std::chrono::steady_clock;

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(steady::now().time_since_epoch())
        .count();
}

// "10:42" for a moment of today, "2026-11-21 10:42" for an earlier day.
std::string clock_text(time_t when) {
    struct tm then {};
    struct tm today {};
    time_t now = time(nullptr);
    localtime_r(&when, &then);
    localtime_r(&now, &today);
    const bool same_day = then.tm_year == today.tm_year && then.tm_yday == today.tm_yday;
    char text[32];
    strftime(text, sizeof text, same_day ? "%H:%M" : "%Y-%m-%d %H:%M", &then);
    return text;
}

// `text` as printable ASCII: any other byte becomes "?", so that no value
// can end the STATUS line and add an assignment of its own.
std::string printable(std::string text) {
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '?';
    return text;
}

}  // namespace

bool notifier::alive(notify_part part, int64_t now) {
    const int i = static_cast<int>(part);
    if (waiting_[i].load()) return true;
    if (now - beat_[i].load() < std::chrono::nanoseconds(watchdog_).count()) return true;
    mutex_lock guard(mutex_);
    return !stopped_[i].empty();
}

std::string notifier::compose_status() {
    const pms_link::state state = link_->current_state();
    if (static_cast<int>(state) != link_state_) {
        link_state_ = static_cast<int>(state);
        link_since_ = time(nullptr);
        link_seen_ = true;
    }
    const int calls = manager_.load() ? states_->calls().waiting() : -1;
    std::string text;
    mutex_lock guard(mutex_);
    if (state == pms_link::state::active)
        text = "PMS link active since " + clock_text(link_since_);
    else if (unreachable_since_ != 0)
        text = "PMS " + pms_address_ + " unreachable since " + clock_text(unreachable_since_);
    else if (state == pms_link::state::connecting)
        text = "PMS " + pms_address_ + " connected, awaiting its link start since " +
               clock_text(link_since_);
    else if (link_seen_ || !pms_address_.empty())
        text = "PMS link down since " + clock_text(link_since_);
    else
        text = "Starting";
    if (calls >= 0)
        text += ", " + std::to_string(calls) + (calls == 1 ? " call" : " calls") + " waiting";
    if (const int w = wakeups_.load(); w >= 0) text += ", wake-ups waiting: " + std::to_string(w);
    if (!last_record_.empty()) text += ", last record " + last_record_;
    for (const std::string& why : stopped_)
        if (!why.empty()) text += "; " + why;
    return printable(std::move(text));
}

void notifier::send_status(const char* extra) {
    std::string status = compose_status();
    if (!extra && status == sent_status_) return;
    std::string message = extra ? std::string(extra) + "\n" : std::string();
    sd_notify(0, (message + "STATUS=" + status).c_str());
    sent_status_ = std::move(status);
}

void notifier::run() {
    const auto half = std::chrono::duration_cast<std::chrono::milliseconds>(watchdog_ / 2);
    const auto tick = watchdog_.count() > 0 ? std::min(half, std::chrono::milliseconds(1000))
                                            : std::chrono::milliseconds(1000);
    auto next_ping = steady::now();
    for (;;) {
        send_status(nullptr);
        if (watchdog_.count() > 0 && steady::now() >= next_ping) {
            const int64_t now = now_ns();
            if (alive(notify_part::main_loop, now) && alive(notify_part::billing, now))
                sd_notify(0, "WATCHDOG=1");
            next_ping = steady::now() + half;
        }
        if (stop_.wait_for(tick)) return;
    }
}

void notifier::start(const pms_link& link, states_file& states, bool manager) {
    const char* socket = getenv("NOTIFY_SOCKET");
    if (!socket || !*socket) return;
    link_ = &link;
    states_ = &states;
    manager_ = manager;
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) > 0) watchdog_ = std::chrono::microseconds(usec);
    for (auto& b : beat_) b = now_ns();
    enabled_ = true;
}

void notifier::ready() {
    if (!enabled_) return;
    send_status("READY=1");
    thread_.start([this] { run(); });
}

void notifier::finish() {
    if (!enabled_.exchange(false)) return;
    stop_.request();
    thread_.join_until(steady::now() + std::chrono::seconds(1));
    sd_notify(0, "STOPPING=1");
}

void notifier::beat(notify_part part) {
    if (enabled_) beat_[static_cast<int>(part)] = now_ns();
}

void notifier::waiting(notify_part part, bool waiting) {
    if (!enabled_) return;
    beat_[static_cast<int>(part)] = now_ns();
    waiting_[static_cast<int>(part)] = waiting;
}

void notifier::stopped(notify_part part, const std::string& why) {
    mutex_lock guard(mutex_);
    stopped_[static_cast<int>(part)] = why;
}

std::string notifier::stopped_parts() {
    mutex_lock guard(mutex_);
    std::string out;
    for (const std::string& why : stopped_)
        if (!why.empty()) out += (out.empty() ? "" : "; ") + why;
    return out;
}

void notifier::pms_connect(const std::string& host, int port, bool ok) {
    if (!enabled_) return;
    char address[300];
    snprintf(address, sizeof address, "%s:%d", host.c_str(), port);
    mutex_lock guard(mutex_);
    pms_address_ = address;
    if (ok)
        unreachable_since_ = 0;
    else if (unreachable_since_ == 0)
        unreachable_since_ = time(nullptr);
}

void notifier::manager(bool manager) {
    if (enabled_) manager_ = manager;
}

void notifier::record(const char* record) {
    if (!enabled_) return;
    std::string text(record, strnlen(record, 2));
    if (const char* rn = strstr(record, "|RN")) {
        rn += 3;
        constexpr size_t shown_room = 16;  // characters of the room number at most
        text.append(" ").append(rn, std::min(strcspn(rn, "|\x03"), shown_room));
    }
    text.append(" at ").append(clock_text(time(nullptr)));
    mutex_lock guard(mutex_);
    last_record_ = std::move(text);
}

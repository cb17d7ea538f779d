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
#include "owned_thread.h"
#include "states/states.h"
#include "stop_flag.h"
#include "thread_annotations.h"

namespace {

using steady = std::chrono::steady_clock;
constexpr int part_count = 3;

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

struct notifier {
    const pms_link* link = nullptr;
    std::string statesfile;
    std::chrono::microseconds watchdog{0};  // 0: no pings
    std::atomic<int64_t> beat[part_count] = {};
    std::atomic<bool> waiting[part_count] = {};
    std::atomic<bool> manager{false};

    annotated_mutex mutex;
    std::string stopped[part_count] GUARDED_BY(mutex);
    std::string pms_address GUARDED_BY(mutex);
    time_t unreachable_since GUARDED_BY(mutex) = 0;  // 0: the last connect worked
    std::string last_record GUARDED_BY(mutex);

    // The notifier's thread only.
    pms_link::state link_state = pms_link::state::down;
    time_t link_since = time(nullptr);
    bool link_seen = false;  // a connect was tried or the link came up
    std::string sent_status;

    stop_flag stop;
    owned_thread thread;
};

std::atomic<bool> enabled{false};

notifier& self() {
    static notifier n;
    return n;
}

bool alive(notifier& n, notify_part part, int64_t now) EXCLUDES(n.mutex) {
    const int i = static_cast<int>(part);
    if (n.waiting[i].load()) return true;
    if (now - n.beat[i].load() < std::chrono::nanoseconds(n.watchdog).count()) return true;
    mutex_lock guard(n.mutex);
    return !n.stopped[i].empty();
}

std::string compose_status(notifier& n) EXCLUDES(n.mutex) {
    const pms_link::state state = n.link->current_state();
    if (state != n.link_state) {
        n.link_state = state;
        n.link_since = time(nullptr);
        n.link_seen = true;
    }
    const int calls = n.manager.load() ? states_calls_waiting(n.statesfile) : -1;
    std::string text;
    mutex_lock guard(n.mutex);
    if (state == pms_link::state::active)
        text = "PMS link active since " + clock_text(n.link_since);
    else if (n.unreachable_since != 0)
        text = "PMS " + n.pms_address + " unreachable since " + clock_text(n.unreachable_since);
    else if (state == pms_link::state::connecting)
        text = "PMS " + n.pms_address + " connected, awaiting its link start since " +
               clock_text(n.link_since);
    else if (n.link_seen || !n.pms_address.empty())
        text = "PMS link down since " + clock_text(n.link_since);
    else
        text = "Starting";
    if (calls >= 0)
        text += ", " + std::to_string(calls) + (calls == 1 ? " call" : " calls") + " waiting";
    if (!n.last_record.empty()) text += ", last record " + n.last_record;
    for (const std::string& why : n.stopped)
        if (!why.empty()) text += "; " + why;
    return text;
}

void send_status(notifier& n, const char* extra) {
    std::string status = compose_status(n);
    if (!extra && status == n.sent_status) return;
    std::string message = extra ? std::string(extra) + "\n" : std::string();
    sd_notify(0, (message + "STATUS=" + status).c_str());
    n.sent_status = std::move(status);
}

void run(notifier& n) {
    const auto half = std::chrono::duration_cast<std::chrono::milliseconds>(n.watchdog / 2);
    const auto tick = n.watchdog.count() > 0 ? std::min(half, std::chrono::milliseconds(1000))
                                             : std::chrono::milliseconds(1000);
    auto next_ping = steady::now();
    for (;;) {
        send_status(n, nullptr);
        if (n.watchdog.count() > 0 && steady::now() >= next_ping) {
            const int64_t now = now_ns();
            if (alive(n, notify_part::main_loop, now) && alive(n, notify_part::billing, now))
                sd_notify(0, "WATCHDOG=1");
            next_ping = steady::now() + half;
        }
        if (n.stop.wait_for(tick)) return;
    }
}

}  // namespace

void notify_start(const pms_link& link, const std::string& statesfile, bool manager) {
    const char* socket = getenv("NOTIFY_SOCKET");
    if (!socket || !*socket) return;
    notifier& n = self();
    n.link = &link;
    n.statesfile = statesfile;
    n.manager = manager;
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) > 0) n.watchdog = std::chrono::microseconds(usec);
    for (auto& b : n.beat) b = now_ns();
    enabled = true;
}

void notify_ready() {
    if (!enabled) return;
    notifier& n = self();
    send_status(n, "READY=1");
    n.thread.start([&n] { run(n); });
}

void notify_finish() {
    if (!enabled.exchange(false)) return;
    notifier& n = self();
    n.stop.request();
    n.thread.join_until(steady::now() + std::chrono::seconds(1));
    sd_notify(0, "STOPPING=1");
}

void notify_beat(notify_part part) {
    if (enabled) self().beat[static_cast<int>(part)] = now_ns();
}

void notify_waiting(notify_part part, bool waiting) {
    if (!enabled) return;
    notifier& n = self();
    n.beat[static_cast<int>(part)] = now_ns();
    n.waiting[static_cast<int>(part)] = waiting;
}

void notify_stopped(notify_part part, const std::string& why) {
    if (!enabled) return;
    notifier& n = self();
    mutex_lock guard(n.mutex);
    n.stopped[static_cast<int>(part)] = why;
}

void notify_running(notify_part part) {
    notify_stopped(part, "");
}

void notify_pms_connect(const std::string& host, int port, bool ok) {
    if (!enabled) return;
    notifier& n = self();
    char address[300];
    snprintf(address, sizeof address, "%s:%d", host.c_str(), port);
    mutex_lock guard(n.mutex);
    n.pms_address = address;
    if (ok)
        n.unreachable_since = 0;
    else if (n.unreachable_since == 0)
        n.unreachable_since = time(nullptr);
}

void notify_manager(bool manager) {
    if (enabled) self().manager = manager;
}

void notify_record(const char* record) {
    if (!enabled) return;
    std::string text(record, strnlen(record, 2));
    if (const char* rn = strstr(record, "|RN")) {
        rn += 3;
        text.append(" ").append(rn, strcspn(rn, "|\x03"));
    }
    text.append(" at ").append(clock_text(time(nullptr)));
    notifier& n = self();
    mutex_lock guard(n.mutex);
    n.last_record = std::move(text);
}

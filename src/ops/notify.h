// Reports to systemd through its notification socket when the daemon runs
// under a unit of Type=notify: READY once it has started, a one-line STATUS
// that `systemctl status` shows, STOPPING when it stops, and, with
// WatchdogSec=, WATCHDOG pings while the main loop and the billing thread
// make progress.
//
// Contract:
//  - main makes one notifier and hands it to the threads it watches.
//  - Nothing happens unless NOTIFY_SOCKET is set when start() runs: every
//    other call is then a cheap no-op, and no thread is started.
//  - start(), ready() and finish() are called by the main thread; the rest
//    by any thread. finish() (or the destructor) ends the notifier's thread;
//    the link and states file given to start() outlive it.
//  - A watched part (the main loop, the billing thread) is alive while it
//    beats at least once per watchdog period (WATCHDOG_USEC), while it waits
//    in a call that ends by itself (waiting), or once it has been
//    reported stopped by design (stopped): a thread that the
//    configured behaviour ends or blocks keeps the pings going and is named
//    in STATUS instead. A watched part that does none of these stops the
//    pings, and systemd restarts the daemon.
//  - The notifier's thread pings at half the watchdog period, and sends
//    STATUS whenever its text changes (looked at every second at least).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>

#include "owned_thread.h"
#include "stop_flag.h"
#include "thread_annotations.h"

class pms_link;
class states_file;

enum class notify_part { main_loop, billing, capture };  // capture is not watched

class notifier {
  public:
    notifier() = default;
    ~notifier() { finish(); }
    notifier(const notifier&) = delete;
    notifier& operator=(const notifier&) = delete;

    // Reads NOTIFY_SOCKET and WATCHDOG_USEC. `link` is the process's PMS
    // link; `manager` whether calls are cached from the Manager (STATUS then
    // counts the calls of `states` waiting to be posted).
    void start(const pms_link& link, states_file& states, bool manager);
    // Start-up is done: READY=1 with the first STATUS; the thread starts.
    void ready();
    // The daemon stops: STOPPING=1; the thread ends.
    void finish();

    // `part` made progress.
    void beat(notify_part part);
    // `part` waits in a call that ends by itself (connecting): alive meanwhile.
    void waiting(notify_part part, bool waiting);
    // `part` was ended or blocked by the configured behaviour; `why` goes into
    // STATUS ("billing stopped: ..."). running() takes that back (a part
    // started again).
    void stopped(notify_part part, const std::string& why);
    void running(notify_part part) { stopped(part, ""); }
    // Why parts stopped ("" when none did), whether or not systemd listens.
    std::string stopped_parts() EXCLUDES(mutex_);

    // The main loop's news for STATUS: the result of connecting to the PMS, a
    // Manager setting that changed, and each record read.
    void pms_connect(const std::string& host, int port, bool ok);
    void manager(bool manager);
    void record(const char* record);
    // The wake-up bookings not yet ended ([wakeup] call; -1: no count shown).
    void wakeups(int waiting) { wakeups_ = waiting; }

  private:
    static constexpr int part_count = 3;
    bool alive(notify_part part, int64_t now) EXCLUDES(mutex_);
    std::string compose_status() EXCLUDES(mutex_);
    void send_status(const char* extra);
    void run();

    std::atomic<bool> enabled_{false};
    const pms_link* link_ = nullptr;
    states_file* states_ = nullptr;
    std::chrono::microseconds watchdog_{0};  // 0: no pings
    std::atomic<int64_t> beat_[part_count] = {};
    std::atomic<bool> waiting_[part_count] = {};
    std::atomic<bool> manager_{false};
    std::atomic<int> wakeups_{-1};

    annotated_mutex mutex_;
    std::string stopped_[part_count] GUARDED_BY(mutex_);
    std::string pms_address_ GUARDED_BY(mutex_);
    time_t unreachable_since_ GUARDED_BY(mutex_) = 0;  // 0: the last connect worked
    std::string last_record_ GUARDED_BY(mutex_);

    // The notifier's thread only.
    int link_state_ = 0;  // pms_link::state
    time_t link_since_ = time(nullptr);
    bool link_seen_ = false;  // a connect was tried or the link came up
    std::string sent_status_;

    stop_flag stop_;
    owned_thread thread_;
};

// Reports to systemd through its notification socket when the daemon runs
// under a unit of Type=notify: READY once it has started, a one-line STATUS
// that `systemctl status` shows, STOPPING when it stops, and, with
// WatchdogSec=, WATCHDOG pings while the main loop and the billing thread
// make progress.
//
// Contract:
//  - Nothing happens unless NOTIFY_SOCKET is set when notify_start() runs:
//    every other function is then a cheap no-op, and no thread is started.
//  - notify_start(), notify_ready() and notify_finish() are called by the
//    main thread; the rest by any thread. notify_finish() ends the
//    notifier's thread; the link given to notify_start() outlives it.
//  - A watched part (the main loop, the billing thread) is alive while it
//    beats at least once per watchdog period (WATCHDOG_USEC), while it waits
//    in a call that ends by itself (notify_waiting), or once it has been
//    reported stopped by design (notify_stopped): a thread that the
//    configured behaviour ends or blocks keeps the pings going and is named
//    in STATUS instead. A watched part that does none of these stops the
//    pings, and systemd restarts the daemon.
//  - The notifier's thread pings at half the watchdog period, and sends
//    STATUS whenever its text changes (looked at every second at least).
#pragma once

#include <string>

class pms_link;

enum class notify_part { main_loop, billing, capture };  // capture is not watched

// Reads NOTIFY_SOCKET and WATCHDOG_USEC. `link` is the process's PMS link;
// `manager` whether calls are cached from the Manager (STATUS then counts
// the calls of `statesfile` waiting to be posted).
void notify_start(const pms_link& link, const std::string& statesfile, bool manager);
// Start-up is done: READY=1 with the first STATUS; the notifier's thread
// starts.
void notify_ready();
// The daemon stops: STOPPING=1; the notifier's thread ends.
void notify_finish();

// `part` made progress.
void notify_beat(notify_part part);
// `part` waits in a call that ends by itself (connecting): alive meanwhile.
void notify_waiting(notify_part part, bool waiting);
// `part` was ended or blocked by the configured behaviour; `why` goes into
// STATUS ("billing stopped: ..."). notify_running() takes that back (a part
// started again).
void notify_stopped(notify_part part, const std::string& why);
void notify_running(notify_part part);

// The main loop's news for STATUS: the result of connecting to the PMS, a
// Manager setting that changed, and each record read.
void notify_pms_connect(const std::string& host, int port, bool ok);
void notify_manager(bool manager);
void notify_record(const char* record);

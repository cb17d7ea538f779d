// Daemon support: deferred signal handling and detaching with a locked pid file.
//
// Contract:
//  - signal_set_handler() is called before any thread exists; the catcher it
//    installs only counts deliveries (async-signal-safe) and may run in any
//    thread. Fault signals (SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS)
//    run their handler at once instead.
//  - signal_handle_all() runs, in the calling thread (the main thread), the
//    handler of every signal counted since its last call, once per signal.
//  - daemon_init() detaches (fork + new session unless started by init or
//    inetd), moves to "/", sets the umask to 022, redirects 0-2 to /dev/null
//    and locks the pid file, then empties it and writes the pid. A pid file
//    path that is a symbolic link is refused; a file locked by another
//    process is left as it is. Descriptors that this program opened for itself (all of them
//    close-on-exec) survive; every descriptor inherited from the parent
//    (never close-on-exec, since exec drops those) is closed. The pid file
//    descriptor stays open so that its lock lasts as long as the process.
#pragma once

#include <csignal>
#include <functional>

using signal_handler_t = void (*)(int);

// handler may be SIG_DFL or SIG_IGN. Returns 0, or -1 when the system refuses.
int signal_set_handler(int signo, int flags, signal_handler_t handler);

// `handler` runs later, in signal_handle_all(), for each `signo` counted.
// Returns 0, or -1 when the system refuses.
int signal_set_deferred(int signo, std::function<void(int)> handler);

// The fault signal `signo` ends the process at once, in whatever thread it
// hits: "Caught signal N. Exiting." (NOTICE) goes to the log file, the pid
// file is removed, and the process exits with status 0, or, with
// `by_signal`, ends by the signal itself so that a supervisor sees the crash.
int signal_set_fault_exit(int signo, bool by_signal);

void signal_handle_all();

// Returns 0 on success, -1 on failure. name: absolute pid file path, or a name
// turned into /var/run/<name>.pid (superuser) or /tmp/<name>.pid (others).
int daemon_init(const char* name);

// Writes and locks the pid file at the absolute `path` as daemon_init() does,
// without detaching. Returns 0, or -1 (a file locked by another process, a
// symbolic link, a relative path).
int daemon_write_pid_file(const char* path);

// Removes the pid file, if one was written. Returns 0.
int daemon_close();

// Removes the pid file with async-signal-safe calls only (no lock, no
// allocation): the path of a fault-signal handler.
void daemon_close_async_safe();

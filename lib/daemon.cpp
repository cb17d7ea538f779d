#include "daemon.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "logger.h"
#include "thread_annotations.h"

namespace {

constexpr int kSignals = 65;

struct signal_entry {
    struct sigaction action;
    int flags;
    signal_handler_t handler;
    std::function<void(int)> deferred;
    std::atomic<int> received;
};
static_assert(std::atomic<int>::is_always_lock_free, "the catcher needs a lock-free counter");

signal_entry signal_table[kSignals];

void signal_catcher(int signo) {
    if (signo >= 0 && signo < kSignals) signal_table[signo].received.fetch_add(1);
}

bool is_fault_signal(int signo) {
    return signo == SIGILL || signo == SIGABRT || signo == SIGBUS || signo == SIGFPE ||
           signo == SIGSEGV || signo == SIGSYS;
}

// Whether a fault signal ends the process by itself (signal_set_fault_exit).
volatile sig_atomic_t fault_by_signal[kSignals] = {};

annotated_mutex daemon_mutex;
// A fixed buffer, so that a fault-signal handler can read it without a lock.
char pidfile_path[PATH_MAX] GUARDED_BY(daemon_mutex) = "";
int pidfile_fd GUARDED_BY(daemon_mutex) = -1;  // open for the life of the process

void remove_pidfile_locked() REQUIRES(daemon_mutex) {
    if (!pidfile_path[0]) return;
    unlink(pidfile_path);
    pidfile_path[0] = '\0';
    if (pidfile_fd >= 0) {
        close(pidfile_fd);
        pidfile_fd = -1;
    }
}

int write_pidfile(const char* name) {
    std::string path;
    if (name[0] == '/') {
        path = name;
    } else {
        char buf[PATH_MAX + 1];
        int n = snprintf(buf, sizeof buf, "%s%c%s%s", getuid() == 0 ? "/var/run" : "/tmp", '/',
                         name, ".pid");
        if (n < 0 || n >= PATH_MAX) {
            errno = ENAMETOOLONG;
            return -1;
        }
        path = buf;
    }
    if (path.size() >= PATH_MAX) {
        errno = ENAMETOOLONG;
        return -1;
    }

    mutex_lock guard(daemon_mutex);
    // Never through a symbolic link, and never cut before the lock is ours:
    // a second daemon leaves a locked file exactly as it is.
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0) return -1;
    struct flock lk {};
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &lk) < 0) {
        close(fd);
        return -1;
    }
    if (pidfile_fd >= 0) close(pidfile_fd);
    pidfile_fd = fd;
    snprintf(pidfile_path, sizeof pidfile_path, "%s", path.c_str());

    char text[32];
    int len = snprintf(text, sizeof text, "%d\n", static_cast<int>(getpid()));
    if (ftruncate(fd, 0) != 0 || pwrite(fd, text, len, 0) != len) {
        remove_pidfile_locked();
        return -1;
    }
    return 0;
}

// Only async-signal-safe calls.
void fault_exit(int signo) {
    char text[32] = "Caught signal ";
    size_t n = strlen(text);
    if (signo >= 10) text[n++] = static_cast<char>('0' + signo / 10 % 10);
    text[n++] = static_cast<char>('0' + signo % 10);
    memcpy(text + n, ". Exiting.", sizeof ". Exiting.");
    write_log_async_safe(L_NOTICE, __FILE_NAME__, __LINE__, "sig_term", text);
    daemon_close_async_safe();
    if (signo > 0 && signo < kSignals && fault_by_signal[signo]) {
        signal(signo, SIG_DFL);
        raise(signo);
    }
    _exit(0);
}

int install(int signo, int flags, signal_handler_t handler, std::function<void(int)> deferred) {
    if (signo < 0 || signo >= kSignals) return -1;
    signal_entry& e = signal_table[signo];
    e.deferred = std::move(deferred);
    memset(&e.action, 0, sizeof e.action);
    sigemptyset(&e.action.sa_mask);
    sigaddset(&e.action.sa_mask, signo);
    e.action.sa_flags = flags;
    e.flags = flags;
    e.handler = handler;
    e.received = 0;

    if (!e.deferred && (handler == SIG_DFL || handler == SIG_IGN || is_fault_signal(signo))) {
        e.action.sa_handler = handler;
    } else {
        e.action.sa_handler = signal_catcher;
    }
    return sigaction(signo, &e.action, nullptr);
}

}  // namespace

int signal_set_handler(int signo, int flags, signal_handler_t handler) {
    return install(signo, flags, handler, nullptr);
}

int signal_set_deferred(int signo, std::function<void(int)> handler) {
    if (is_fault_signal(signo) || !handler) return -1;
    return install(signo, 0, nullptr, std::move(handler));
}

int signal_set_fault_exit(int signo, bool by_signal) {
    if (signo < 0 || signo >= kSignals || !is_fault_signal(signo)) return -1;
    fault_by_signal[signo] = by_signal;
    return install(signo, 0, fault_exit, nullptr);
}

void signal_handle_all() {
    for (int signo = 0; signo < kSignals; ++signo) {
        signal_entry& e = signal_table[signo];
        // Taken before the handler runs: a signal that arrives meanwhile (in
        // another thread) is acted upon at the next call, not lost.
        if (e.received.exchange(0) == 0) continue;
        sigset_t old;
        pthread_sigmask(SIG_BLOCK, &e.action.sa_mask, &old);
        if (e.deferred)
            e.deferred(signo);
        else if (e.handler != SIG_DFL && e.handler != SIG_IGN && e.handler)
            e.handler(signo);
        pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
}

int daemon_init(const char* name) {
    int socktype;
    socklen_t optlen = sizeof socktype;
    bool from_inetd = getsockopt(0, SOL_SOCKET, SO_TYPE, &socktype, &optlen) == 0;
    bool from_init = getppid() == 1;

    if (!from_init && !from_inetd) {
        pid_t pid = fork();
        if (pid < 0) return -1;
        if (pid > 0) {
            // Leaves without running destructors: open database connections
            // are the child's now, and closing them here could undo its work.
            fflush(nullptr);
            _exit(0);
        }
        setsid();
    }
    if (chdir("/") < 0) return -1;
    // Nothing the daemon creates is writable by its group or by others.
    umask(S_IWGRP | S_IWOTH);

    long limit = sysconf(_SC_OPEN_MAX);
    if (limit <= 0) limit = 1024;
    // Only descriptors inherited from the parent are closed: everything this
    // program opens for itself (configured database files included) is
    // close-on-exec and must stay open.
    for (int fd = from_inetd ? 3 : 0; fd < limit; ++fd) {
        int fl = fcntl(fd, F_GETFD);
        if (fl < 0 || (fl & FD_CLOEXEC)) continue;
        close(fd);
    }
    if (!from_inetd) {
        int fd = open("/dev/null", O_RDWR);
        if (fd != 0) {
            if (fd >= 0) close(fd);
            return -1;
        }
        dup2(0, 1);
        dup2(0, 2);
    }

    if (!name) return 0;
    return write_pidfile(name);
}

int daemon_write_pid_file(const char* path) {
    if (!path || path[0] != '/') {
        errno = EINVAL;
        return -1;
    }
    return write_pidfile(path);
}

int daemon_close() {
    mutex_lock guard(daemon_mutex);
    remove_pidfile_locked();
    return 0;
}

void daemon_close_async_safe() NO_THREAD_SAFETY_ANALYSIS {
    if (pidfile_path[0]) unlink(pidfile_path);
}

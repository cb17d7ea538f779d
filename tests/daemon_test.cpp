// Daemon support: deferred and immediate signal handlers, detaching, and the
// locked pid file.
#include "daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

#include "support.h"

namespace {

// ---- signals ---------------------------------------------------------------

std::atomic<int> calls[65];
std::atomic<bool> blocked_while_running{false};
std::vector<int> order;  // main thread only

void counting_handler(int signo) {
    calls[signo].fetch_add(1);
    sigset_t cur;
    pthread_sigmask(SIG_BLOCK, nullptr, &cur);
    blocked_while_running = sigismember(&cur, signo) == 1;
}

void ordering_handler(int signo) {
    order.push_back(signo);
}

struct sigaction installed(int signo) {
    struct sigaction sa {};
    sigaction(signo, nullptr, &sa);
    return sa;
}

class Signals : public ::testing::Test {
  protected:
    void SetUp() override {
        for (auto& c : calls) c = 0;
        order.clear();
    }
    void TearDown() override {
        for (int signo :
             {SIGHUP, SIGUSR1, SIGUSR2, SIGTERM, SIGSYS, SIGABRT, SIGILL, SIGBUS, SIGFPE, SIGSEGV})
            signal_set_handler(signo, 0, SIG_DFL);
    }
};

TEST_F(Signals, DeferredHandlerRunsOnceForSeveralDeliveries) {
    ASSERT_EQ(signal_set_handler(SIGHUP, 0, counting_handler), 0);
    struct sigaction sa = installed(SIGHUP);
    EXPECT_NE(sa.sa_handler, counting_handler);  // a catcher that only counts
    EXPECT_EQ(sa.sa_flags & SA_RESTART, 0);
    EXPECT_EQ(sigismember(&sa.sa_mask, SIGHUP), 1);

    raise(SIGHUP);
    raise(SIGHUP);
    EXPECT_EQ(calls[SIGHUP], 0);
    signal_handle_all();
    EXPECT_EQ(calls[SIGHUP], 1);
    EXPECT_TRUE(blocked_while_running);
    sigset_t cur;
    pthread_sigmask(SIG_BLOCK, nullptr, &cur);
    EXPECT_EQ(sigismember(&cur, SIGHUP), 0);  // the old mask is back

    signal_handle_all();
    EXPECT_EQ(calls[SIGHUP], 1);
    raise(SIGHUP);
    signal_handle_all();
    EXPECT_EQ(calls[SIGHUP], 2);

    ASSERT_EQ(signal_set_handler(SIGUSR1, SA_RESTART, counting_handler), 0);
    EXPECT_NE(installed(SIGUSR1).sa_flags & SA_RESTART, 0);
}

TEST_F(Signals, PendingHandlersRunInSignalNumberOrder) {
    for (int signo : {SIGUSR2, SIGTERM, SIGHUP, SIGUSR1})
        ASSERT_EQ(signal_set_handler(signo, 0, ordering_handler), 0);
    raise(SIGTERM);
    raise(SIGUSR2);
    raise(SIGHUP);
    raise(SIGUSR1);
    EXPECT_TRUE(order.empty());
    signal_handle_all();
    EXPECT_EQ(order, (std::vector<int>{SIGHUP, SIGUSR1, SIGUSR2, SIGTERM}));
}

TEST_F(Signals, FaultSignalsRunTheirHandlerAtOnce) {
    for (int signo : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
        ASSERT_EQ(signal_set_handler(signo, 0, counting_handler), 0) << signo;
        EXPECT_EQ(installed(signo).sa_handler, counting_handler) << signo;
    }
    raise(SIGSYS);
    EXPECT_EQ(calls[SIGSYS], 1);
    signal_handle_all();
    EXPECT_EQ(calls[SIGSYS], 1);
}

TEST_F(Signals, DefaultIgnoreAndRefusedSignals) {
    ASSERT_EQ(signal_set_handler(SIGUSR1, 0, SIG_IGN), 0);
    EXPECT_EQ(installed(SIGUSR1).sa_handler, SIG_IGN);
    raise(SIGUSR1);  // ignored: the process lives on
    signal_handle_all();
    ASSERT_EQ(signal_set_handler(SIGUSR1, 0, SIG_DFL), 0);
    EXPECT_EQ(installed(SIGUSR1).sa_handler, SIG_DFL);

    EXPECT_EQ(signal_set_handler(SIGKILL, 0, counting_handler), -1);
    EXPECT_EQ(signal_set_handler(SIGSTOP, 0, counting_handler), -1);
    EXPECT_EQ(signal_set_handler(65, 0, counting_handler), -1);
    EXPECT_EQ(signal_set_handler(-1, 0, counting_handler), -1);
}

// ---- daemon_init -----------------------------------------------------------

// What a detached test daemon reports about itself right after daemon_init().
struct daemon_report {
    int rc;
    pid_t pid;
    pid_t sid;
    int cwd_is_root;
    int old_umask_cleared;  // umask was 0 after daemon_init
    int std_to_null;        // descriptors 0-2 are /dev/null
    int inherited_closed;   // a descriptor without close-on-exec is gone
    int own_kept;           // a close-on-exec descriptor is still open
    char pidfile[PATH_MAX + 1];
};

struct close_report {
    int rc;
    int pidfile_empty;
};

bool read_full(int fd, void* buf, size_t len, int timeout_ms = 10000) {
    char* p = static_cast<char*>(buf);
    while (len > 0) {
        struct pollfd pfd {
            fd, POLLIN, 0
        };
        if (poll(&pfd, 1, timeout_ms) <= 0) return false;
        ssize_t n = read(fd, p, len);
        if (n <= 0) return false;
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

bool same_file(int fd, const struct stat& st) {
    struct stat fst;
    return fstat(fd, &fst) == 0 && fst.st_dev == st.st_dev && fst.st_ino == st.st_ino;
}

// A daemon made by daemon_init() in a child of this test. It reports through
// close-on-exec pipes (which daemon_init leaves open) and waits for orders:
// 'c' = daemon_close() and end, 'q' = end at once.
class test_daemon {
  public:
    // name: as for daemon_init (null = no pid file); as_uid: run as that
    // user (-1 = stay).
    bool start(const char* name, uid_t as_uid = static_cast<uid_t>(-1)) {
        int rep[2], cmd[2];
        if (pipe2(rep, O_CLOEXEC) < 0 || pipe2(cmd, O_CLOEXEC) < 0) return false;
        fflush(nullptr);
        pid_t first = fork();
        if (first < 0) return false;
        if (first == 0) {
            close(rep[0]);
            close(cmd[1]);
            run(name, as_uid, rep[1], cmd[0]);
        }
        close(rep[1]);
        close(cmd[0]);
        report_fd_ = rep[0];
        cmd_fd_ = cmd[1];
        // The first child leaves as soon as the daemon is detached.
        int st = 0;
        if (waitpid(first, &st, 0) != first) return false;
        first_status_ = st;
        if (WIFEXITED(st) && WEXITSTATUS(st) == 3) return false;  // setuid refused
        if (!read_full(report_fd_, &report_, sizeof report_)) return false;
        started_ = true;
        return true;
    }

    // daemon_close() in the daemon; its result.
    close_report close_and_end() {
        close_report cr{-99, 0};
        if (!started_) return cr;
        if (write(cmd_fd_, "c", 1) == 1) read_full(report_fd_, &cr, sizeof cr);
        wait_gone();
        started_ = false;
        return cr;
    }

    void end() {
        if (!started_) return;
        if (write(cmd_fd_, "q", 1) == 1) wait_gone();
        started_ = false;
    }

    ~test_daemon() {
        end();
        if (report_fd_ >= 0) close(report_fd_);
        if (cmd_fd_ >= 0) close(cmd_fd_);
    }

    const daemon_report& report() const { return report_; }
    int first_status() const { return first_status_; }

  private:
    [[noreturn]] static void run(const char* name, uid_t as_uid, int rep, int cmd) {
        // Standard input must not look like an inetd socket.
        int null_fd = open("/dev/null", O_RDONLY);
        dup2(null_fd, 0);
        close(null_fd);
        if (as_uid != static_cast<uid_t>(-1) && setuid(as_uid) != 0) _exit(3);
        int inherited = open("/dev/zero", O_RDONLY);
        int own = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        struct stat null_st, zero_st;
        stat("/dev/null", &null_st);
        stat("/dev/zero", &zero_st);

        daemon_report r{};
        r.rc = daemon_init(name);
        // From here on this is the detached daemon (or this child, on failure).
        r.pid = getpid();
        r.sid = getsid(0);
        char cwd[PATH_MAX];
        r.cwd_is_root = getcwd(cwd, sizeof cwd) && strcmp(cwd, "/") == 0;
        r.old_umask_cleared = umask(022) == 0;
        r.std_to_null = same_file(0, null_st) && same_file(1, null_st) && same_file(2, null_st);
        // The descriptor number may have been taken again by then, but not
        // for /dev/zero.
        r.inherited_closed = !same_file(inherited, zero_st);
        r.own_kept = same_file(own, zero_st);
        snprintf(r.pidfile, sizeof r.pidfile, "%s", daemon_pidfile().c_str());
        if (write(rep, &r, sizeof r) != static_cast<ssize_t>(sizeof r)) _exit(4);

        char todo = 'q';
        if (read(cmd, &todo, 1) != 1) todo = 'c';
        if (todo == 'c') {
            close_report cr{};
            cr.rc = daemon_close();
            cr.pidfile_empty = daemon_pidfile().empty();
            if (write(rep, &cr, sizeof cr) != static_cast<ssize_t>(sizeof cr)) _exit(5);
        }
        _exit(0);
    }

    // The daemon is not our child: wait until it no longer exists or is a zombie.
    void wait_gone() {
        pid_t pid = report_.pid;
        wait_until([pid] {
            if (kill(pid, 0) != 0) return true;
            std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
            size_t p = stat.rfind(')');
            return p == std::string::npos || (p + 2 < stat.size() && stat[p + 2] == 'Z');
        });
    }

    int report_fd_ = -1;
    int cmd_fd_ = -1;
    bool started_ = false;
    int first_status_ = -1;
    daemon_report report_{};
};

// The pid of the process holding a write lock on `path`, 0 for none.
pid_t lock_holder(const std::string& path) {
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    struct flock lk {};
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    pid_t holder = 0;
    if (fcntl(fd, F_GETLK, &lk) == 0 && lk.l_type == F_WRLCK) holder = lk.l_pid;
    close(fd);
    return holder;
}

TEST(DaemonInit, DetachesAndWritesALockedPidFile) {
    temp_dir dir;
    std::string path = dir.file("test.pid");
    test_daemon d;
    ASSERT_TRUE(d.start(path.c_str()));
    const daemon_report& r = d.report();
    EXPECT_TRUE(WIFEXITED(d.first_status()) && WEXITSTATUS(d.first_status()) == 0);
    EXPECT_EQ(r.rc, 0);
    EXPECT_NE(r.pid, getpid());
    EXPECT_EQ(r.sid, r.pid);  // a session of its own
    EXPECT_TRUE(r.cwd_is_root);
    EXPECT_TRUE(r.old_umask_cleared);
    EXPECT_TRUE(r.std_to_null);
    EXPECT_TRUE(r.inherited_closed);
    EXPECT_TRUE(r.own_kept);
    EXPECT_EQ(std::string(r.pidfile), path);

    EXPECT_EQ(read_file(path), std::to_string(r.pid) + "\n");
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_EQ(lock_holder(path), r.pid);

    // A second daemon on the same pid file fails and leaves it alone.
    test_daemon second;
    ASSERT_TRUE(second.start(path.c_str()));
    EXPECT_EQ(second.report().rc, -1);
    EXPECT_EQ(std::string(second.report().pidfile), "");
    second.end();
    EXPECT_EQ(read_file(path), std::to_string(r.pid) + "\n");
    EXPECT_EQ(lock_holder(path), r.pid);

    close_report cr = d.close_and_end();
    EXPECT_EQ(cr.rc, 0);
    EXPECT_TRUE(cr.pidfile_empty);
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(DaemonInit, ExistingPidFileIsOverwrittenFromItsStartWithoutTruncation) {
    temp_dir dir;
    std::string path = dir.file("old.pid");
    const std::string old_text = "12345678901234567890\nold tail\n";
    write_file(path, old_text);
    test_daemon d;
    ASSERT_TRUE(d.start(path.c_str()));
    ASSERT_EQ(d.report().rc, 0);
    std::string head = std::to_string(d.report().pid) + "\n";
    EXPECT_EQ(read_file(path), head + old_text.substr(head.size()));
    EXPECT_EQ(lock_holder(path), d.report().pid);
    d.close_and_end();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(DaemonInit, RelativeNameGoesToTheRunDirectoryOfTheUser) {
    std::string name = "orlanbeck-daemon-test-" + std::to_string(getpid());
    std::string expected = (getuid() == 0 ? "/var/run/" : "/tmp/") + name + ".pid";
    {
        test_daemon d;
        ASSERT_TRUE(d.start(name.c_str()));
        EXPECT_EQ(d.report().rc, 0);
        EXPECT_EQ(std::string(d.report().pidfile), expected);
        EXPECT_EQ(read_file(expected), std::to_string(d.report().pid) + "\n");
        d.close_and_end();
        EXPECT_NE(access(expected.c_str(), F_OK), 0);
    }
    if (getuid() != 0) return;

    // The superuser's check of the other branch: the same name as another user.
    std::string as_user = "/tmp/" + name + ".pid";
    test_daemon d;
    bool started = d.start(name.c_str(), 65534);
    if (WIFEXITED(d.first_status()) && WEXITSTATUS(d.first_status()) == 3)
        GTEST_SKIP() << "cannot change the user id here";
    ASSERT_TRUE(started);
    EXPECT_EQ(d.report().rc, 0);
    EXPECT_EQ(std::string(d.report().pidfile), as_user);
    EXPECT_EQ(read_file(as_user), std::to_string(d.report().pid) + "\n");
    d.close_and_end();
    EXPECT_NE(access(as_user.c_str(), F_OK), 0);
}

TEST(DaemonInit, NoNameMeansNoPidFileAndOverlongNamesFail) {
    test_daemon plain;
    ASSERT_TRUE(plain.start(nullptr));
    EXPECT_EQ(plain.report().rc, 0);
    EXPECT_EQ(std::string(plain.report().pidfile), "");
    EXPECT_TRUE(plain.report().std_to_null);
    close_report cr = plain.close_and_end();
    EXPECT_EQ(cr.rc, 0);

    std::string long_name(PATH_MAX, 'n');
    test_daemon rel;
    ASSERT_TRUE(rel.start(long_name.c_str()));
    EXPECT_EQ(rel.report().rc, -1);
    rel.end();

    test_daemon abs;
    ASSERT_TRUE(abs.start(("/" + long_name).c_str()));
    EXPECT_EQ(abs.report().rc, -1);
    abs.end();
}

}  // namespace

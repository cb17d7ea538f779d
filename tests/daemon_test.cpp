// Daemon support: deferred and immediate signal handlers, detaching, and the
// locked pid file.
#include "daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <utility>

#include "support.h"

namespace {

std::vector<int> ran;  // the signals whose handler ran, in order

void record(int signo) {
    ran.push_back(signo);
}

TEST(Signals, HandlersRunLaterOncePerSignalInNumberOrderButFaultHandlersAtOnce) {
    ran.clear();
    ran.reserve(16);  // no allocation inside a signal handler
    const int deferred[] = {SIGTERM, SIGHUP, SIGUSR1},
              faults[] = {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS};
    for (int signo : deferred) EXPECT_EQ(signal_set_handler(signo, 0, record), 0);
    for (int signo : {SIGTERM, SIGHUP, SIGUSR1, SIGHUP}) raise(signo);
    EXPECT_TRUE(ran.empty());
    signal_handle_all();
    EXPECT_EQ(ran, (std::vector<int>{SIGHUP, SIGUSR1, SIGTERM}));
    signal_handle_all();
    raise(SIGHUP);
    signal_handle_all();
    EXPECT_EQ(ran, (std::vector<int>{SIGHUP, SIGUSR1, SIGTERM, SIGHUP}));

    ran.clear();
    for (int signo : faults) EXPECT_EQ(signal_set_handler(signo, 0, record), 0) << signo;
    for (int signo : faults) raise(signo);
    EXPECT_EQ(ran, std::vector<int>(std::begin(faults), std::end(faults)));
    signal_handle_all();
    EXPECT_EQ(ran.size(), std::size(faults));
    for (int signo : {SIGKILL, SIGSTOP, 65, -1})
        EXPECT_EQ(signal_set_handler(signo, 0, record), -1) << signo;
    for (int signo : deferred) signal_set_handler(signo, 0, SIG_DFL);
    for (int signo : faults) signal_set_handler(signo, 0, SIG_DFL);
}

bool same_file(int fd, const char* path) {
    struct stat a, b;
    return fstat(fd, &a) == 0 && stat(path, &b) == 0 && a.st_dev == b.st_dev &&
           a.st_ino == b.st_ino;
}

// A daemon made by daemon_init(path) in a child of this test. It reports
// through close-on-exec pipes (which daemon_init leaves open); on stop() it
// calls daemon_close() and ends.
struct test_daemon {
    struct report {
        int rc = -99;
        pid_t pid = 0;
        char pidfile[256] = "", wrong[128] = "";  // wrong: the steps of detaching not made
    } r;
    int status = -1, rep = -1, cmd = -1;  // status: of the child that daemon_init leaves
    bool started = false;

    explicit test_daemon(const std::string& path) {
        int a[2], b[2];
        if (pipe2(a, O_CLOEXEC) < 0 || pipe2(b, O_CLOEXEC) < 0) return;
        fflush(nullptr);
        pid_t child = fork();
        if (child == 0) run(path.c_str(), a[1], b[0]);
        close(a[1]);
        close(b[0]);
        rep = a[0];
        cmd = b[1];
        waitpid(child, &status, 0);
        started = read(rep, &r, sizeof r) == sizeof r;
    }
    ~test_daemon() {
        stop();
        close(rep);
        close(cmd);
    }
    void stop() {
        char done;
        if (started && (write(cmd, "x", 1) != 1 || read(rep, &done, 1) != 1))
            ADD_FAILURE() << "the daemon did not answer";
        started = false;
    }

    [[noreturn]] static void run(const char* path, int rep, int cmd) {
        dup2(open("/dev/null", O_RDONLY), 0);  // 0 must not look like an inetd socket
        int inherited = open("/dev/zero", O_RDONLY), own = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        report r;
        r.rc = daemon_init(path);
        r.pid = getpid();
        std::string wrong;
        char cwd[PATH_MAX];
        if (getsid(0) != r.pid) wrong += "session ";
        if (!getcwd(cwd, sizeof cwd) || strcmp(cwd, "/") != 0) wrong += "cwd ";
        if (umask(022) != 0) wrong += "umask ";
        for (int fd : {0, 1, 2})
            if (!same_file(fd, "/dev/null")) wrong += "std" + std::to_string(fd) + " ";
        // The number may have been taken again, but not for /dev/zero.
        if (same_file(inherited, "/dev/zero")) wrong += "inherited-kept ";
        if (!same_file(own, "/dev/zero")) wrong += "own-closed ";
        snprintf(r.wrong, sizeof r.wrong, "%s", wrong.c_str());
        snprintf(r.pidfile, sizeof r.pidfile, "%s", daemon_pidfile().c_str());
        char c;
        if (write(rep, &r, sizeof r) == sizeof r && read(cmd, &c, 1) == 1) {
            daemon_close();
            if (write(rep, "d", 1) != 1) _exit(4);
        }
        _exit(0);
    }
};

TEST(DaemonInit, DetachesAndWritesALockedPidFileThatCloseRemoves) {
    temp_dir dir;
    const std::string path = dir.file("test.pid"), old = "12345678901234567890\nold tail\n";
    write_file(path, old);  // longer than a pid: overwritten from its start, not cut
    test_daemon d(path);
    ASSERT_TRUE(d.started);
    EXPECT_EQ(d.status, 0);
    EXPECT_EQ(d.r.rc, 0);
    EXPECT_NE(d.r.pid, getpid());
    EXPECT_STREQ(d.r.wrong, "");
    EXPECT_STREQ(d.r.pidfile, path.c_str());
    const std::string head = std::to_string(d.r.pid) + "\n", text = head + old.substr(head.size());
    EXPECT_EQ(read_file(path), text);
    EXPECT_EQ(lock_holder(path), d.r.pid);

    // A second daemon on the same file fails and leaves it alone, also on its close.
    test_daemon second(path);
    ASSERT_TRUE(second.started);
    EXPECT_EQ(second.r.rc, -1);
    EXPECT_STREQ(second.r.pidfile, "");
    second.stop();
    EXPECT_EQ(read_file(path), text);
    EXPECT_EQ(lock_holder(path), d.r.pid);

    d.stop();
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

}  // namespace

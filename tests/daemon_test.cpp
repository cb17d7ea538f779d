// Daemon support: deferred and immediate signal handlers, and the locked pid
// file. (Detaching: tests/cli_test.cpp, on the daemon itself.)
#include "daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

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

// daemon_init(path) in a child of this test (which reaps the daemon made, as
// the subreaper of its descendants). The daemon, once its own close-on-exec
// descriptor is seen to survive, waits for SIGTERM, then closes and ends;
// when daemon_init fails it ends with status 3 at once. The exit status of
// the child that daemon_init leaves is returned.
int make_daemon(const std::string& path) {
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        signal(SIGTERM, [](int) {
            daemon_close_async_safe();
            _exit(0);
        });
        int own = open("/dev/zero", O_RDONLY | O_CLOEXEC);
        if (daemon_init(path.c_str()) != 0) _exit(3);
        if (fcntl(own, F_GETFD) < 0) _exit(4);
        for (;;) pause();
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

TEST(DaemonInit, LocksThenRewritesThePidFileThatASecondDaemonLeavesAloneAndCloseRemoves) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    temp_dir dir;
    const std::string path = dir.file("test.pid");
    write_file(path, "12345678901234567890\nold tail\n");  // a stale, longer file
    EXPECT_EQ(0, make_daemon(path));
    pid_t pid = 0;
    ASSERT_TRUE(wait_until([&] { return (pid = lock_holder(path)) > 0; }));
    const std::string text = std::to_string(pid) + "\n";
    EXPECT_TRUE(wait_until([&] { return read_file(path) == text; })) << read_file(path);
    struct stat st {};
    ASSERT_EQ(0, stat(path.c_str(), &st));
    EXPECT_EQ(0644u, st.st_mode & 07777);

    // A second daemon on the same file fails and leaves it alone.
    EXPECT_EQ(0, make_daemon(path));
    int status = 0;
    pid_t second = waitpid(-1, &status, 0);
    EXPECT_NE(pid, second);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_EQ(text, read_file(path));
    EXPECT_EQ(pid, lock_holder(path));

    kill(pid, SIGTERM);
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(access(path.c_str(), F_OK), 0);

    // A pid file path that is a symbolic link is refused, its target untouched.
    const std::string target = dir.file("target");
    write_file(target, "keep\n");
    ASSERT_EQ(0, symlink(target.c_str(), path.c_str()));
    EXPECT_EQ(0, make_daemon(path));
    EXPECT_GT(waitpid(-1, &status, 0), 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_EQ("keep\n", read_file(target));
}

}  // namespace

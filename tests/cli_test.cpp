// The daemon binary from the outside: options, usage text, start-up failures,
// foreground logging, the states file, and daemon mode with reload and
// shutdown by signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/stat.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "db/sqlite.h"
#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

namespace {

std::string usage_text(const std::string& argv0) {
    return "\n"
           "Orlanbeck: middle layer FIAS application.\n\n"
           "Usage:\n" +
           argv0 +
           " [options]\n\n"
           "Where options are:\n"
           "\t-c <path>, --config=<path>\tuse custom config file \n"
           "\t-f, --foreground \t\trun in foreground mode\n"
           "\t-d, --log-to-console\t\tlog to console (requires -f)\n"
           "\t-h, --help\t\t\tshow this text\n"
           "\n\n";
}




// A unique name for a link to the binary, so that a daemon's pid file is
// this test's own.
std::string unique_name() {
    static std::atomic<int> n{0};
    return "orlanbeck-cli-" + std::to_string(getpid()) + "-" + std::to_string(++n);
}

std::string pidfile_for(const std::string& name) {
    return (getuid() == 0 ? "/var/run/" : "/tmp/") + name + ".pid";
}

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

class CommandLine : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        // Detached daemons become our children, so that their end can be
        // waited for and their exit status read.
        prctl(PR_SET_CHILD_SUBREAPER, 1);
    }

    // A sanitizer build of the daemon writes its reports into the test's
    // folder (its standard error is /dev/null once detached).
    void SetUp() override {
        for (const char* var : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
            const char* old = getenv(var);
            saved_env_.emplace_back(var, old ? std::optional<std::string>(old) : std::nullopt);
            std::string value = old && *old ? std::string(old) + ":" : "";
            setenv(var, (value + "log_path=" + dir_.file("sanitizer")).c_str(), 1);
        }
    }

    void TearDown() override {
        if (daemon_pid_ > 0) {
            kill(daemon_pid_, SIGKILL);
            waitpid(daemon_pid_, nullptr, 0);
        }
        if (!pidfile_.empty()) unlink(pidfile_.c_str());
        for (const auto& [var, value] : saved_env_) {
            if (value)
                setenv(var.c_str(), value->c_str(), 1);
            else
                unsetenv(var.c_str());
        }
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path())) {
            if (entry.path().filename().string().rfind("sanitizer", 0) == 0)
                ADD_FAILURE() << "sanitizer report of the daemon:\n"
                              << read_file(entry.path().string());
        }
    }

    std::string conf() const { return dir_.file("orlanbeck.conf"); }
    std::string states() const { return dir_.file("states.db"); }

    // A configuration with everything in the temporary folder and a PMS
    // address where nobody listens.
    std::string config_text(const std::string& logfile, int level,
                            const std::string& extra = "") const {
        return "[pms]\nhost = 127.0.0.1\nport = " + std::to_string(pms_port_) +
               "\nstatesfile = " + states() + "\n[logger]\nlog_level = " + std::to_string(level) +
               "\nlog_file = " + logfile + "\n" + extra;
    }

    // Runs the binary with `args` to its end; its output.
    std::string run_to_end(const std::vector<std::string>& args, int* status,
                           const std::string& argv0 = orlanbeck_binary()) {
        child_process p;
        std::vector<std::string> argv{argv0};
        argv.insert(argv.end(), args.begin(), args.end());
        EXPECT_TRUE(p.start(argv));
        *status = p.wait_exit(std::chrono::seconds(30));
        p.stop();
        return p.output();
    }

    std::string make_link() {
        std::string name = unique_name();
        std::string link = dir_.file(name);
        EXPECT_EQ(symlink(orlanbeck_binary().c_str(), link.c_str()), 0);
        pidfile_ = pidfile_for(name);
        return link;
    }

    // The daemon's pid, once its pid file is written and locked.
    pid_t wait_daemon() {
        pid_t pid = 0;
        wait_until(
            [&] {
                std::string text = read_file(pidfile_);
                if (text.empty() || text.back() != '\n') return false;
                pid = std::stoi(text);
                return lock_holder(pidfile_) == pid;
            },
            std::chrono::seconds(20));
        daemon_pid_ = pid;
        return pid;
    }

    // Waits for the daemon to end; its exit status, or -1.
    int wait_daemon_exit() {
        int st = 0;
        bool done = wait_until([&] { return waitpid(daemon_pid_, &st, WNOHANG) == daemon_pid_; },
                               std::chrono::seconds(20));
        if (!done) return -1;
        daemon_pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    bool wait_file_has(const std::string& path, const std::string& text) {
        return wait_until([&] { return read_file(path).find(text) != std::string::npos; },
                          std::chrono::seconds(20));
    }

    temp_dir dir_;
    int pms_port_ = pick_free_port();
    pid_t daemon_pid_ = -1;
    std::string pidfile_;
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_env_;
};

TEST_F(CommandLine, UsageTextForHelpBadOptionsAndConsoleWithoutForeground) {
    write_file(conf(), config_text(dir_.file("log"), 5));
    const std::vector<std::vector<std::string>> cases = {
        {"-h"},
        {"--help"},
        {"-d"},
        {"-d", "-c", conf()},
        {"-x"},
        {"--no-such-option"},
        {"-c"},
        {"--config"},
        {"-f", "-c"},
        {"-c", conf(), "-h"},
        {"--log-to-console", "-s"},
    };
    for (const std::vector<std::string>& args : cases) {
        int status = -2;
        std::string out = run_to_end(args, &status);
        EXPECT_EQ(out, usage_text(orlanbeck_binary())) << args[0];
        EXPECT_EQ(status, 0) << args[0];
    }
    // argv[0] as given.
    std::string link = dir_.file("another-name");
    ASSERT_EQ(symlink(orlanbeck_binary().c_str(), link.c_str()), 0);
    int status = -2;
    EXPECT_EQ(run_to_end({"--help"}, &status, link), usage_text(link));
    EXPECT_EQ(status, 0);
    EXPECT_NE(access(dir_.file("log").c_str(), F_OK), 0);
}

TEST_F(CommandLine, MissingConfigurationFileEndsWithZero) {
    std::string missing = dir_.file("missing.conf");
    for (const std::vector<std::string>& args : {std::vector<std::string>{"-c", missing},
                                                 {"-s", "-c", missing},
                                                 {"-f", "-d", "--config=" + missing},
                                                 {"-c", conf(), "-c", missing}}) {
        int status = -2;
        std::string out = run_to_end(args, &status);
        EXPECT_EQ(out, "\nUnable to open configuration file " + missing + ". Exiting...\n\n");
        EXPECT_EQ(status, 0);
    }
}

TEST_F(CommandLine, ForegroundWithConsoleLogCreatesTheStatesFile) {
    std::string logfile = dir_.file("unused.log");
    write_file(conf(), config_text(logfile, 5,
                                   "[bad]\ndbdriver = sqlite\ndatabase = " +
                                       dir_.file("no/such/dir/bad.db") + "\n"));
    std::string link = make_link();
    child_process p;
    ASSERT_TRUE(p.start({link, "-f", "-d", "-s", "-c", conf()}));
    const std::string pid = std::to_string(p.pid());

    // Before the logger is set up: standard error, errors only.
    ASSERT_TRUE(p.wait_output("Please check settings"));
    EXPECT_TRUE(has_line_like(p.output(), kStamp + ":  ERROR[" + pid +
                                              "]: registry.cpp:@ in load_dbdriver: Can not "
                                              "connect to DB bad of sqlite. Please check settings"))
        << p.output();
    EXPECT_NE(p.output().find("Please check settings\n\n"), std::string::npos);
    // After it: the console, in the line format, here from the first look for
    // the rooms table.
    ASSERT_TRUE(p.wait_output("no such table: rooms"));
    EXPECT_TRUE(has_line_like(p.output(), kStamp + ":  ERROR[" + pid +
                                              "]: sqlite.cpp:@ in sq_query: Sqlite query error: "
                                              "no such table: rooms, ext.errcode 1"))
        << p.output();

    ASSERT_TRUE(wait_until([&] {
        return access(states().c_str(), F_OK) == 0 &&
               sqlite_rows(states(),
                           "select count(*) from sqlite_master where name = "
                           "'idx_cdrcache_c_from_start'")[0][0] == "1";
    }));
    temp_dir ref;
    ASSERT_TRUE(sqlite_exec(ref.file("ref.db"), std::string(sql_create_rooms) + ";" +
                                                    sql_create_table + sql_create_table_index));
    EXPECT_EQ(sqlite_schema(states()), sqlite_schema(ref.file("ref.db")));
    EXPECT_NE(sqlite_schema(states()).find("CREATE TABLE rooms (room varchar(8), ci_date date, "
                                           "citime time, calls integer, primary key(room))"),
              std::string::npos)
        << sqlite_schema(states());

    // No daemon: no pid file, no log file, no signal handlers (SIGTERM kills).
    EXPECT_TRUE(p.running());
    EXPECT_NE(access(pidfile_.c_str(), F_OK), 0);
    EXPECT_NE(access(logfile.c_str(), F_OK), 0);
    p.signal(SIGTERM);
    int signo = 0;
    EXPECT_EQ(p.wait_exit(std::chrono::seconds(10), &signo), -1);
    EXPECT_EQ(signo, SIGTERM);
    EXPECT_EQ(p.output().find("Caught signal"), std::string::npos);
}

TEST_F(CommandLine, ForegroundWithoutConsoleLogsToTheFile) {
    std::string logfile = dir_.file("orlanbeck.log");
    write_file(conf(), config_text(logfile, 5));
    child_process p;
    ASSERT_TRUE(p.start({orlanbeck_binary(), "-f", "-c", conf()}));
    ASSERT_TRUE(wait_file_has(logfile, "no such table: cdrcache"));
    EXPECT_TRUE(has_line_like(read_file(logfile),
                              kStamp + ":  ERROR[" + std::to_string(p.pid()) +
                                  "]: sqlite.cpp:@ in sq_query: Sqlite query error: no such "
                                  "table: rooms, ext.errcode 1"))
        << read_file(logfile);
    EXPECT_EQ(p.output().find("no such table"), std::string::npos) << p.output();
    p.stop();
}

TEST_F(CommandLine, UnopenableStatesFileEndsWithOne) {
    std::string unopenable = dir_.file("a-directory");
    ASSERT_EQ(mkdir(unopenable.c_str(), 0700), 0);
    write_file(conf(), "[pms]\nhost = 127.0.0.1\nport = " + std::to_string(pms_port_) +
                           "\nstatesfile = " + unopenable + "\n");
    child_process p;
    ASSERT_TRUE(p.start({orlanbeck_binary(), "-f", "-d", "-c", conf()}));
    EXPECT_EQ(p.wait_exit(std::chrono::seconds(20)), 1);
    p.stop();
    EXPECT_TRUE(has_line_like(p.output(), kStamp + ":  ERROR[" + std::to_string(p.pid()) +
                                              "]: main.cpp:@ in main: Unable to open states "
                                              "file " +
                                              unopenable))
        << p.output();
}

TEST_F(CommandLine, DaemonReloadsOnHangupAndEndsOnTerm) {
    const std::string log1 = dir_.file("first.log"), log2 = dir_.file("second.log"),
                      log3 = dir_.file("third.log");
    write_file(conf(), config_text(log1, 5));
    std::string link = make_link();
    int status = -2;
    std::string out = run_to_end({"-c", conf()}, &status, link);
    EXPECT_EQ(status, 0);  // the parent leaves at once
    EXPECT_EQ(out, "");

    pid_t pid = wait_daemon();
    ASSERT_GT(pid, 0) << read_file(pidfile_);
    EXPECT_EQ(read_file(pidfile_), std::to_string(pid) + "\n");
    const std::string tag = "[" + std::to_string(pid) + "]: ";
    ASSERT_TRUE(wait_file_has(log1, "ERROR" + tag + "sqlite.cpp"));
    ASSERT_TRUE(wait_until([&] { return access(states().c_str(), F_OK) == 0; }));

    // Level 1 and another log file: the announcement still goes to the first.
    write_file(conf(), config_text(log2, 1));
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_file_has(log1, "NOTICE" + tag + "main.cpp"));
    EXPECT_TRUE(has_line_like(read_file(log1),
                              kStamp + ":  NOTICE[" + std::to_string(pid) +
                                  "]: main.cpp:@ in sig_hup: Hangup. Reloading configuration."))
        << read_file(log1);

    // At level 1 the next announcement is not written, but the errors of the
    // load are.
    write_file(conf(), config_text(log3, 5,
                                   "[bad]\ndbdriver = sqlite\ndatabase = " +
                                       dir_.file("no/such/dir/bad.db") + "\n"));
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_file_has(log2, "Can not connect to DB bad of sqlite"));
    std::string second = read_file(log2);
    EXPECT_EQ(second.find("Hangup"), std::string::npos) << second;
    for (const char* level : {"DEBUG[", "EVENT[", "NOTICE[", "WARNING["})
        EXPECT_EQ(second.find(level), std::string::npos) << level << "\n" << second;

    kill(pid, SIGTERM);
    EXPECT_EQ(wait_daemon_exit(), 0);
    EXPECT_TRUE(
        has_line_like(read_file(log3), kStamp + ":  NOTICE[" + std::to_string(pid) +
                                           "]: main.cpp:@ in sig_term: Caught signal 15. Exiting."))
        << read_file(log3);
    EXPECT_NE(access(pidfile_.c_str(), F_OK), 0);
}

TEST_F(CommandLine, DaemonWithARelativeConfigurationStopsPromptlyOnAQuietLink) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    pms_port_ = pms.port();
    const std::string log = dir_.file("daemon.log");
    write_file(conf(), config_text(log, 5, "[rooms]\nroom1 = 101\n"));
    std::string link = make_link();

    // Started from the configuration's folder with a relative path: the
    // detached daemon works in "/" and still finds the file for its rooms.
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    int status = -2;
    run_to_end({"-c", "orlanbeck.conf"}, &status, link);
    ASSERT_EQ(chdir(cwd), 0);
    EXPECT_EQ(status, 0);
    pid_t pid = wait_daemon();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(pms.wait_link_active(std::chrono::seconds(20))) << read_file(log);
    EXPECT_TRUE(wait_until([&] {
        return sqlite_rows(states(), "select room from rooms") ==
               std::vector<std::vector<std::string>>{{"101"}};
    }));

    // Nothing arrives on the link; the signal is acted upon all the same.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    auto sent = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_daemon_exit(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, std::chrono::seconds(4));
    EXPECT_NE(read_file(log).find("Caught signal 15. Exiting."), std::string::npos);
}

TEST_F(CommandLine, HangupWithoutConfigurationFileEndsTheDaemon) {
    const std::string logfile = dir_.file("orlanbeck.log");
    write_file(conf(), config_text(logfile, 5));
    std::string link = make_link();
    int status = -2;
    run_to_end({"--config=" + conf()}, &status, link);
    EXPECT_EQ(status, 0);
    pid_t pid = wait_daemon();
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(wait_until([&] { return access(states().c_str(), F_OK) == 0; }));

    ASSERT_EQ(unlink(conf().c_str()), 0);
    kill(pid, SIGHUP);
    EXPECT_EQ(wait_daemon_exit(), 0);
    std::string log = read_file(logfile);
    EXPECT_NE(log.find("Hangup. Reloading configuration."), std::string::npos) << log;
    EXPECT_NE(log.find("in sig_hup: Unable to open configuration file " + conf() + ". Exiting..."),
              std::string::npos)
        << log;
}

TEST_F(CommandLine, InterruptAndQuitEndTheDaemonLikeTerm) {
    for (int signo : {SIGINT, SIGQUIT}) {
        const std::string logfile = dir_.file("log-" + std::to_string(signo));
        write_file(conf(), config_text(logfile, 5));
        std::string link = make_link();
        int status = -2;
        run_to_end({"-c", conf()}, &status, link);
        EXPECT_EQ(status, 0);
        pid_t pid = wait_daemon();
        ASSERT_GT(pid, 0);
        ASSERT_TRUE(wait_until([&] { return access(states().c_str(), F_OK) == 0; }));
        // Ignored signals do nothing.
        kill(pid, SIGUSR1);
        kill(pid, SIGUSR2);
        kill(pid, signo);
        EXPECT_EQ(wait_daemon_exit(), 0);
        EXPECT_NE(read_file(logfile).find("Caught signal " + std::to_string(signo) + ". Exiting."),
                  std::string::npos)
            << read_file(logfile);
        EXPECT_NE(access(pidfile_.c_str(), F_OK), 0);
    }
}

}  // namespace

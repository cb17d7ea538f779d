// The daemon binary from the outside: options, usage text, start-up failures,
// console logging, the states file, and daemon mode with reload and shutdown
// by signals.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "netutil.h"
#include "sim_pms.h"
#include "support.h"

namespace {

using namespace std::chrono_literals;
using args_t = std::vector<std::string>;

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

// The states file as the daemon creates it.
const std::string kStatesSchema =
    "CREATE TABLE rooms (room varchar(8), ci_date date, citime time, calls integer, primary "
    "key(room));\n"
    "CREATE TABLE `cdrcache` (       `accountcode` varchar(20) NOT NULL default '',       "
    "`src` varchar(80) NOT NULL default '',       `dst` varchar(80) NOT NULL default '',     "
    "  `dcontext` varchar(80) NOT NULL default '',       `clid` varchar(80) NOT NULL default "
    "'',       `channel` varchar(80) NOT NULL default '',       `dstchannel` varchar(80) NOT "
    "NULL default '',       `lastapp` varchar(80) NOT NULL default '',       `lastdata` "
    "varchar(80) NOT NULL default '',       `start` datetime NOT NULL default '0000-00-00 "
    "00:00:00',       `answer` datetime NOT NULL default '0000-00-00 00:00:00',       `end` "
    "datetime NOT NULL default '0000-00-00 00:00:00',       `duration` int(11) NOT NULL "
    "default '0',       `billsec` int(11) NOT NULL default '0',       `disposition` "
    "varchar(45) NOT NULL default '',       `amaflags` int(11) NOT NULL default '',       "
    "`c_from` varchar(80) NOT NULL default '',       `c_to` varchar(80) NOT NULL default '', "
    "      `cost` varchar(20) NOT NULL default '',       `callclass` int(11) NOT NULL "
    "default '0',       `faxdata` varchar(255) NOT NULL default '',       `userfield` "
    "varchar(255) NOT NULL default '',       `uniqueid` varchar(32) NOT NULL default '');\n"
    "CREATE INDEX `idx_cdrcache_c_from_start` ON `cdrcache` (`c_from`,`start`);\n";


class CommandLine : public ::testing::Test {
  protected:
    // Detached daemons become our children, so that their exit status can be read.
    static void SetUpTestSuite() { prctl(PR_SET_CHILD_SUBREAPER, 1); }

    // A sanitizer build of the daemon writes its reports into the test's
    // folder (its standard error is /dev/null once detached).
    void SetUp() override {
        for (const char* var : {"ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"}) {
            const char* old = getenv(var);
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
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
            if (entry.path().filename().string().rfind("sanitizer", 0) == 0)
                ADD_FAILURE() << "sanitizer report of the daemon:\n" << read_file(entry.path());
    }

    std::string conf() const { return dir_.file("orlanbeck.conf"); }
    std::string states() const { return dir_.file("states.db"); }
    std::string log() const { return read_file(dir_.file("orlanbeck.log")); }
    size_t log_count(const std::string& text) const {
        std::string all = log();
        size_t n = 0;
        for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++n;
        return n;
    }

    // A configuration with everything in the temporary folder.
    void write_conf(int level, const std::string& extra = "") const {
        write_file(conf(), "[pms]\nhost = 127.0.0.1\nport = " + std::to_string(pms_port_) +
                               "\nstatesfile = " + states() +
                               "\n[logger]\nlog_level = " + std::to_string(level) +
                               "\nlog_file = " + dir_.file("orlanbeck.log") + "\n" + extra);
    }

    // Runs a program to its end; its output.
    std::string run_to_end(const args_t& argv, int* status) {
        child_process p;
        EXPECT_TRUE(p.start(argv));
        *status = p.wait_exit(30s);
        p.stop();
        return p.output();
    }

    // A link to the binary under a name of this test's own, and so its pid file.
    std::string make_link() {
        std::string name = "orlanbeck-cli-" + std::to_string(getpid());
        std::string link = dir_.file(name);
        EXPECT_EQ(symlink(orlanbeck_binary().c_str(), link.c_str()), 0);
        pidfile_ = (getuid() == 0 ? "/var/run/" : "/tmp/") + name + ".pid";
        return link;
    }

    // Starts a daemon; its pid once its pid file is written and locked.
    pid_t start_daemon(const std::string& config_arg) {
        int status = -2;
        EXPECT_EQ(run_to_end({make_link(), "-c", config_arg}, &status), "");
        EXPECT_EQ(status, 0);  // the parent leaves at once
        wait_until(
            [&] {
                std::string text = read_file(pidfile_);
                daemon_pid_ = text.empty() || text.back() != '\n' ? 0 : std::stoi(text);
                return daemon_pid_ > 0 && lock_holder(pidfile_) == daemon_pid_;
            },
            20s);
        return daemon_pid_;
    }

    // Waits for the daemon to end; its exit status, or -1.
    int wait_daemon_exit() {
        int st = 0;
        if (!wait_until([&] { return waitpid(daemon_pid_, &st, WNOHANG) == daemon_pid_; }, 20s))
            return -1;
        daemon_pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }

    temp_dir dir_;
    int pms_port_ = pick_free_port();
    pid_t daemon_pid_ = -1;
    std::string pidfile_;
};

TEST_F(CommandLine, UsageTextForHelpBadOptionsAndConsoleWithoutForeground) {
    write_conf(5);
    const std::string bin = dir_.file("another-name");  // argv[0] as given
    ASSERT_EQ(symlink(orlanbeck_binary().c_str(), bin.c_str()), 0);
    for (const args_t& argv : std::vector<args_t>{{bin, "-h"},
                                                  {bin, "--help"},
                                                  {bin, "-d", "-c", conf()},
                                                  {bin, "--log-to-console", "-s"},
                                                  {bin, "-x"},
                                                  {bin, "--no-such-option"},
                                                  {bin, "-c"},
                                                  {bin, "--config"},
                                                  {bin, "-c", conf(), "-h"}}) {
        int status = -2;
        EXPECT_EQ(run_to_end(argv, &status), usage_text(bin)) << argv[1] << argv.size();
        EXPECT_EQ(status, 0) << argv[1] << argv.size();
    }
    EXPECT_EQ(log(), "");
}

TEST_F(CommandLine, MissingConfigurationFileEndsWithZero) {
    const std::string bin = orlanbeck_binary(), missing = dir_.file("missing.conf");
    for (const args_t& argv : std::vector<args_t>{{bin, "-c", missing},
                                                  {bin, "-f", "-d", "--config=" + missing},
                                                  {bin, "-c", conf(), "-c", missing}}) {
        int status = -2;
        EXPECT_EQ(run_to_end(argv, &status),
                  "\nUnable to open configuration file " + missing + ". Exiting...\n\n");
        EXPECT_EQ(status, 0);
    }
}

TEST_F(CommandLine, ForegroundWithConsoleLogCreatesTheStatesFile) {
    write_conf(5);
    child_process p;
    ASSERT_TRUE(p.start({make_link(), "-f", "-d", "-s", "-c", conf()}));
    ASSERT_TRUE(p.wait_output("no such table: cdrcache"));
    EXPECT_TRUE(has_line_like(p.output(), kStamp + ":  ERROR[" + std::to_string(p.pid()) +
                                              "]: sqlite.cpp:@ in sq_query: Sqlite query error: "
                                              "no such table: rooms, ext.errcode 1"))
        << p.output();
    ASSERT_TRUE(wait_until([&] {
        return access(states().c_str(), F_OK) == 0 &&
               sqlite_schema(states()).find("CREATE INDEX") != std::string::npos;
    }));
    EXPECT_EQ(sqlite_schema(states()), kStatesSchema);
    // No daemon: no pid file, and no log file.
    EXPECT_TRUE(p.running());
    EXPECT_NE(access(pidfile_.c_str(), F_OK), 0);
    EXPECT_EQ(log(), "");
}

TEST_F(CommandLine, UnopenableStatesFileEndsWithOne) {
    ASSERT_EQ(mkdir(states().c_str(), 0700), 0);
    write_conf(5);
    child_process p;
    ASSERT_TRUE(p.start({orlanbeck_binary(), "-f", "-d", "-c", conf()}));
    EXPECT_EQ(p.wait_exit(20s), 1);
    EXPECT_TRUE(has_line_like(p.output(), kStamp + ":  ERROR[" + std::to_string(p.pid()) +
                                              "]: main.cpp:@ in main: Unable to open states "
                                              "file " +
                                              states()))
        << p.output();
}

TEST_F(CommandLine, DaemonReloadsOnHangupAndEndsWhenTheFileIsGone) {
    write_conf(5);
    pid_t pid = start_daemon(conf());
    ASSERT_GT(pid, 0) << read_file(pidfile_);
    EXPECT_EQ(read_file(pidfile_), std::to_string(pid) + "\n");
    ASSERT_TRUE(wait_until([&] { return log_count("sqlite.cpp") > 0; }, 20s));

    // The first reload is announced; at level 1 the next one is not, but the
    // errors of its load are.
    const std::string bad =
        "[bad]\ndbdriver = sqlite\ndatabase = " + dir_.file("no/such/dir/bad.db") + "\n";
    write_conf(1, bad);
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return log_count("Can not connect to DB bad") == 1; }, 20s));
    write_conf(5, bad);
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return log_count("Can not connect to DB bad") == 2; }, 20s));
    EXPECT_TRUE(has_line_like(log(), kStamp + ":  NOTICE[" + std::to_string(pid) +
                                         "]: main.cpp:@ in sig_hup: Hangup. Reloading "
                                         "configuration."));
    EXPECT_EQ(log_count("Hangup"), 1u) << log();

    ASSERT_EQ(unlink(conf().c_str()), 0);
    kill(pid, SIGHUP);
    EXPECT_EQ(wait_daemon_exit(), 0);
    EXPECT_EQ(log_count("in sig_hup: Unable to open configuration file " + conf() + ". Exiting..."),
              1u)
        << log();
}

TEST_F(CommandLine, DaemonWithARelativeConfigurationStopsPromptlyOnAQuietLink) {
    pms_sim pms;
    ASSERT_TRUE(pms.start());
    pms_port_ = pms.port();
    write_conf(5, "[rooms]\nroom1 = 101\n");

    // Started from the configuration's folder with a relative path: the
    // detached daemon works in "/" and still finds the file for its rooms.
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    ASSERT_EQ(chdir(dir_.path().c_str()), 0);
    pid_t pid = start_daemon("orlanbeck.conf");
    ASSERT_EQ(chdir(cwd), 0);
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(pms.wait_link_active(20s)) << log();
    EXPECT_TRUE(wait_until([&] {
        return sqlite_rows(states(), "select room from rooms") ==
               std::vector<std::vector<std::string>>{{"101"}};
    }));

    // Nothing arrives on the link; the signal is acted upon all the same.
    std::this_thread::sleep_for(1500ms);
    auto sent = std::chrono::steady_clock::now();
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_daemon_exit(), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - sent, 4s);
    EXPECT_EQ(log_count("Caught signal 15. Exiting."), 1u);
    EXPECT_NE(access(pidfile_.c_str(), F_OK), 0);
}

}  // namespace

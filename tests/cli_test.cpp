// The daemon binary from the outside: options, the configuration check,
// start-up failures, and daemon mode with its pid file, reload and shutdown.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "netutil.h"
#include "support_daemon.h"

namespace {

using namespace std::chrono_literals;
using args_t = std::vector<std::string>;

// Whether a line of `text` is a log line of `level` ending in `message`.
bool logged(const std::string& text, const std::string& level, const std::string& message) {
    for (const std::string& line : lines_of(text))
        if (line.find(" " + level + "[") != std::string::npos && line.ends_with(message))
            return true;
    return false;
}

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
            setenv(var, (value + "log_path=" + run.dir().file("sanitizer")).c_str(), 1);
        }
    }
    void TearDown() override {
        if (daemon_pid_ > 0) kill(daemon_pid_, SIGKILL), waitpid(daemon_pid_, nullptr, 0);
        if (!pidfile_.empty()) unlink(pidfile_.c_str());
        for (const auto& entry : std::filesystem::directory_iterator(run.dir().path()))
            if (entry.path().filename().string().starts_with("sanitizer"))
                ADD_FAILURE() << "sanitizer report of the daemon:\n" << read_file(entry.path());
    }

    std::string log() const { return read_file(run.dir().file("orlanbeck.log")); }
    size_t log_count(const std::string& text) const { return occurrences(log(), text); }

    // Runs a program to its end; its output, and its exit status in *status.
    std::string run_to_end(const args_t& argv, int* status) {
        child_process p;
        EXPECT_TRUE(p.start(argv));
        *status = p.wait_exit(30s);
        return p.output();
    }

    // Starts a daemon under a name of this test's own, and so its own pid
    // file; its pid once the pid file is written and locked.
    pid_t start_daemon(const std::string& config_arg) {
        run.write_config();
        std::string name = "orlanbeck-cli-" + std::to_string(getpid());
        EXPECT_EQ(symlink(orlanbeck_binary().c_str(), run.dir().file(name).c_str()), 0);
        pidfile_ = (getuid() == 0 ? "/var/run/" : "/tmp/") + name + ".pid";
        int status = -2, inherited = open("/dev/zero", O_RDONLY);  // not close-on-exec
        EXPECT_EQ(run_to_end({run.dir().file(name), "-c", config_arg}, &status), "");
        close(inherited);
        EXPECT_EQ(status, 0);  // the parent leaves at once
        wait_until(
            [&] {
                std::string text = read_file(pidfile_);
                daemon_pid_ = text.empty() || text.back() != '\n' ? 0 : std::stoi(text);
                return daemon_pid_ > 0 && lock_holder(pidfile_) == daemon_pid_;
            },
            20s);
        // Detached: a session of its own, in "/", umask 022, the standard
        // descriptors on /dev/null and none of its starter's descriptors.
        const std::string proc = "/proc/" + std::to_string(daemon_pid_);
        std::istringstream stat(read_file(proc + "/stat"));
        std::string field;
        for (int i = 1; i <= 6; ++i) stat >> field;  // the comm has no blank here
        EXPECT_EQ(std::to_string(daemon_pid_), field) << "session";
        EXPECT_EQ("/", std::filesystem::read_symlink(proc + "/cwd").string());
        EXPECT_NE(std::string::npos, read_file(proc + "/status").find("Umask:\t0022\n"));
        for (const auto& fd : std::filesystem::directory_iterator(proc + "/fd")) {
            std::error_code gone;  // the daemon's own descriptors come and go meanwhile
            std::string target = std::filesystem::read_symlink(fd.path(), gone).string();
            if (gone) continue;
            std::string num = fd.path().filename().string();
            EXPECT_EQ(num < "3" && num.size() == 1, target == "/dev/null") << num << " " << target;
            EXPECT_NE("/dev/zero", target);
        }
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

    daemon_run run{false};
    pid_t daemon_pid_ = -1;
    std::string pidfile_;
};

TEST_F(CommandLine, UsageAMissingConfigurationOrStatesFileAndTheConfigurationCheck) {
    run.write_config();
    const std::string bin = run.dir().file("another-name");  // argv[0] as given
    ASSERT_EQ(symlink(orlanbeck_binary().c_str(), bin.c_str()), 0);
    int status = -2;
    for (const args_t& argv :
         {args_t{bin, "-h"}, {bin, "-x"}, {bin, "-d", "-c", run.config_path()}}) {
        std::string out = run_to_end(argv, &status);
        EXPECT_EQ(0u, out.find("\nOrlanbeck: middle layer FIAS application.\n\nUsage:\n" + bin +
                               " [options]\n"))
            << out;
        EXPECT_NE(std::string::npos, out.find("\t-h, --help\t\t\tshow this text\n")) << out;
        EXPECT_EQ(status, 0);
    }
    const std::string missing = run.dir().file("missing.conf");
    for (const args_t& argv : {args_t{bin, "-f", "-d", "--config=" + missing},
                               {bin, "-c", run.config_path(), "-c", missing}}) {
        EXPECT_EQ(run_to_end(argv, &status),
                  "\nUnable to open configuration file " + missing + ". Exiting...\n\n");
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(log(), "");
    // (A fresh states file: tests/notify_test.cpp.)
    ASSERT_EQ(mkdir(run.states_file().c_str(), 0700), 0);
    std::string out = run_to_end({bin, "-f", "-d", "-c", run.config_path()}, &status);
    EXPECT_EQ(status, 1);
    EXPECT_TRUE(logged(out, "ERROR", "Unable to open states file " + run.states_file())) << out;

    // The configuration check passes the sample and names every problem with its key.
    out = run_to_end({bin, "-t", "-c", source_dir() + "/etc/orlanbeck.conf"}, &status);
    EXPECT_EQ(0, status) << out;
    EXPECT_NE(std::string::npos, out.find("orlanbeck.conf: usable")) << out;
    const std::string bad = run.dir().file("bad.conf"), states = run.dir().file("bad-states.db");
    write_file(bad, "[fixes]\nbogus = yes\nmysql = yes\n[pms]\nalive_interval = 60\nstatesfile = " +
                        states + "\n[pbx]\ndbdriver = sqlite\ndatabase = " + run.pbx_file() +
                        "\n[crm]\ndbdriver = mysql\nhost = 127.0.0.1\nport = " +
                        std::to_string(pick_free_port()) +
                        "\n[old]\ndbdriver = oracle\n"
                        "[services]\ncheckin = pbx update sippeers set callerid='%name%'\n"
                        "checkout = pbx:update sippeers set callerid='%nope%'\n"
                        "bareon = nodb:update x set barred=1\n"
                        "cdr_use_manager = yes\nbillcalls = pbx:select 1\n"
                        "checkin.2 = ami:DBPut|Family=X|ActionID=1|Key=%exten%|Val=%name%|bad\n"
                        "[ami]\ndbdriver = sqlite\n[extensions]\n101 = 2101\n102 = 2101\n"
                        "[status]\nlisten = localhost:99999\n[rating]\ntariffs = tariffs.csv\n");
    write_file(run.dir().file("tariffs.csv"),
               "prefix,description,call_type,rate,first,next,connect,free,valid_from\n"
               "00,International,I,1.00,60,60,0,0,\n0049,Germany,I,0.12,60,60,0.05,0,tomorrow\n");
    out = run_to_end({bin, "--test-config", "-c", bad}, &status);
    EXPECT_EQ(1, status);
    for (const char* text :
         {"Unknown key \"bogus\" in [fixes]", "services:checkin = \"pbx update",
          "services:checkout has an unknown placeholder at \"%nope%",
          "services:bareon names the database \"nodb\", which no section defines",
          "services:billcalls is never run", "[old] dbdriver = oracle is no known driver",
          "services:checkin.2 sets an ActionID", "services:checkin.2 has \"bad\", which is no",
          "Service steps send Manager actions, but services:cdr_mgr_host is not set",
          "[ami] is a database section", "extension 2101 is in rooms 101 and 102",
          "status:listen = \"localhost:99999\" is no address",
          "tariffs.csv:3: valid_from \"tomorrow\" is not a date",
          // Advice, not counted.
          "pms:alive_interval = 60 checks the PMS more often than its vendor advises",
          "bad.conf: 15 problems"})
        EXPECT_NE(std::string::npos, out.find(text)) << text << "\n" << out;
    EXPECT_EQ(std::string::npos, out.find("Can not connect")) << out;
    out = run_to_end({bin, "-tt", "-c", bad}, &status);
    EXPECT_EQ(1, status);
    EXPECT_NE(std::string::npos, out.find("Can not connect to DB crm of mysql")) << out;
    EXPECT_NE(0, access(states.c_str(), F_OK));
}

TEST_F(CommandLine, PriceNamesTheLineTheSecondsAndTheAmountOfOneCall) {
    write_file(run.dir().file("tariffs.csv"),
               "prefix,description,call_type,rate,first,next,connect,free,valid_from\n"
               "0049,Germany,I,0.12,60,60,0.05,0,\n0049,Germany,I,0.15,60,60,0.05,0,2025-01-01\n");
    run.set("rating", "tariffs", "tariffs.csv").set("rating", "markup", "10");
    run.write_config();
    const std::string bin = orlanbeck_binary(), conf = run.config_path();
    int status = -1;
    EXPECT_EQ("line " + run.dir().file("tariffs.csv") +
                  ":2 0049 Germany\nbilled 120 s\namount 0.32 (TA 32)\n",
              run_to_end({bin, "--price", "0049891234", "61", "2024-12-31 23:59:59", "-c", conf},
                         &status));
    EXPECT_EQ(0, status);
    EXPECT_NE(std::string::npos,
              run_to_end({bin, "-c", conf, "--price", "0049891234", "61", "2025-01-01"}, &status)
                  .find(":3 0049 Germany\nbilled 120 s\namount 0.39 (TA 39)\n"));
    EXPECT_EQ(0, status);
    EXPECT_EQ("no line of " + run.dir().file("tariffs.csv") + " prices 0044207946\n",
              run_to_end({bin, "--price", "0044207946", "61", "-c", conf}, &status));
    EXPECT_EQ(1, status);
    run_to_end({bin, "--price", "0049891234", "-c", conf}, &status);
    EXPECT_EQ(2, status);
}

TEST_F(CommandLine, DaemonWithARelativeConfigurationReloadsAndEndsWhenTheFileIsGone) {
    ASSERT_TRUE(run.pms.start());
    run.set("rooms", "room1", "101");
    // Started from the configuration's folder with a relative path: the
    // detached daemon works in "/" and still finds the file for its rooms.
    std::filesystem::path cwd = std::filesystem::current_path();
    std::filesystem::current_path(run.dir().path());
    pid_t pid = start_daemon("orlanbeck.conf");
    std::filesystem::current_path(cwd);
    ASSERT_GT(pid, 0) << read_file(pidfile_);
    EXPECT_EQ(read_file(pidfile_), std::to_string(pid) + "\n");
    ASSERT_TRUE(run.pms.wait_link_active(20s)) << log();
    EXPECT_TRUE(
        wait_until([&] { return run.states("select room from rooms") == sql_rows{{"101"}}; }));

    // The first reload is announced; at level 1 the next one is not, but the
    // errors of its load are.
    run.set("bad", "dbdriver", "sqlite")
        .set("bad", "database", run.dir().file("no/such/dir/bad.db"))
        .set("logger", "log_level", "1");
    run.write_config();
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return log_count("Can not connect to DB bad") == 1; }, 20s));
    run.set("logger", "log_level", "5");
    run.write_config();
    kill(pid, SIGHUP);
    ASSERT_TRUE(wait_until([&] { return log_count("Can not connect to DB bad") == 2; }, 20s));
    EXPECT_TRUE(logged(log(), "NOTICE", "Hangup. Reloading configuration.")) << log();
    EXPECT_EQ(log_count("Hangup"), 1u) << log();

    ASSERT_EQ(unlink(run.config_path().c_str()), 0);
    kill(pid, SIGHUP);
    EXPECT_EQ(wait_daemon_exit(), 0);
    EXPECT_EQ(log_count("Unable to open configuration file " + run.config_path() + ". Exiting..."),
              1u)
        << log();
    EXPECT_EQ(access(pidfile_.c_str(), F_OK), 0) << "a failed reload leaves the pid file";
}

TEST_F(CommandLine, APidFileNamedOnTheCommandLineIsKeptInTheForegroundToo) {
    run.set("fixes", "signals", "yes");
    run.write_config();
    std::filesystem::path cwd = std::filesystem::current_path();
    std::filesystem::current_path(run.dir().path());
    child_process first, second;
    ASSERT_TRUE(
        first.start({orlanbeck_binary(), "-f", "-d", "-p", "own.pid", "-c", run.config_path()}));
    std::filesystem::current_path(cwd);
    const std::string path = run.dir().file("own.pid");
    ASSERT_TRUE(wait_until([&] { return lock_holder(path) == first.pid(); }, 20s));
    EXPECT_EQ(std::to_string(first.pid()) + "\n", read_file(path));
    // A second daemon on the same file says so and leaves the file alone.
    ASSERT_TRUE(
        second.start({orlanbeck_binary(), "-f", "-d", "-p", path, "-c", run.config_path()}));
    EXPECT_TRUE(wait_until(
        [&] { return second.output().find("Unable to write pid file") != std::string::npos; }, 20s))
        << second.output();
    second.terminate(10s);
    EXPECT_EQ(std::to_string(first.pid()) + "\n", read_file(path));
    first.signal(SIGTERM);
    EXPECT_EQ(0, first.wait_exit(20s));
    EXPECT_NE(0, access(path.c_str(), F_OK));
}

}  // namespace

#include "support_mariadb.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// This library is not given the client library's include folder; the header
// lives in its "mariadb" subfolder of the system include path.
#include <mysql.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "netutil.h"

namespace {

using namespace std::chrono_literals;

constexpr auto ready_timeout = 60s;
constexpr auto install_timeout = 120s;
constexpr auto stop_timeout = 30s;

// Options that keep a throw-away server small and quick to start.
const char* const server_tuning[] = {
    "--skip-log-bin",
    "--skip-name-resolve",
    "--innodb-buffer-pool-size=16M",
    "--innodb-log-file-size=8M",
    "--innodb-data-file-path=ibdata1:1M:autoextend",
    "--innodb-temp-data-file-path=ibtmp1:1M:autoextend",
    "--innodb-flush-method=nosync",
    "--innodb-use-native-aio=0",
    "--innodb-flush-log-at-trx-commit=0",
    "--innodb-doublewrite=0",
    "--innodb-buffer-pool-load-at-startup=0",
    "--innodb-buffer-pool-dump-at-shutdown=0",
    "--max-connections=40",
};

struct mysql_closer {
    void operator()(MYSQL* m) const { mysql_close(m); }
};
using mysql_ptr = std::unique_ptr<MYSQL, mysql_closer>;


std::string user_name() {
    if (const passwd* pw = getpwuid(geteuid())) return pw->pw_name;
    return std::to_string(geteuid());
}

// Starts argv[0] in a process group of its own with standard output and error
// appended to `out_path`. The child gets SIGTERM when this process dies.
pid_t spawn(const std::vector<std::string>& argv, const std::string& out_path) {
    std::vector<char*> args;
    for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const char* out = out_path.c_str();
    pid_t parent = getpid();
    pid_t pid = fork();
    if (pid != 0) return pid;
    // Child: only async-signal-safe calls until exec.
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(127);
    setpgid(0, 0);
    int fd = open(out, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    int null_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        dup2(fd, 1);
        dup2(fd, 2);
    }
    if (null_fd >= 0) dup2(null_fd, 0);
    execv(args[0], args.data());
    _exit(127);
}

// Waits for `pid` to end; true (and its status) when it did within `timeout`.
bool wait_pid(pid_t pid, std::chrono::milliseconds timeout, int* status) {
    auto end = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid || (r < 0 && errno == ECHILD)) return true;
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(20ms);
    }
}

// A root session through the server's socket, or null with the error text.
mysql_ptr connect_root(const std::string& socket, std::string* error) {
    mysql_ptr m(mysql_init(nullptr));
    if (!m) {
        *error = "mysql_init failed";
        return nullptr;
    }
    unsigned int timeout = 2;
    mysql_options(m.get(), MYSQL_OPT_CONNECT_TIMEOUT, &timeout);
    if (!mysql_real_connect(m.get(), "localhost", "root", "", nullptr, 0, socket.c_str(), 0)) {
        *error = mysql_error(m.get());
        return nullptr;
    }
    return m;
}

}  // namespace

mariadb_server::~mariadb_server() {
    stop();
}

std::string mariadb_server::error_log() const {
    return read_file(dir_.file("error.log"));
}

::testing::AssertionResult mariadb_server::failure(const std::string& what) const {
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    r << "private MariaDB server: " << what;
    if (!initialised_) r << "\n--- install output ---\n" << read_file(dir_.file("install.log"));
    r << "\n--- server output ---\n"
      << read_file(dir_.file("server.out")) << "\n--- server error log ---\n"
      << error_log();
    return r;
}

::testing::AssertionResult mariadb_server::initialise() {
    if (dir_.path().empty()) return failure("cannot make a temporary folder");
    datadir_ = dir_.file("data");
    socket_ = dir_.file("mysqld.sock");
    if (socket_.size() >= sizeof(sockaddr_un::sun_path))
        return failure("socket path too long for a unix socket: " + socket_);
    std::string installer = find_program({"mariadb-install-db", "mysql_install_db"});
    if (installer.empty()) return failure("neither mariadb-install-db nor mysql_install_db found");

    std::vector<std::string> argv = {installer,
                                     "--no-defaults",
                                     "--datadir=" + datadir_,
                                     "--tmpdir=" + dir_.path(),
                                     "--user=" + user_name(),
                                     "--auth-root-authentication-method=normal",
                                     "--skip-test-db"};
    for (const char* opt : server_tuning) argv.emplace_back(opt);
    pid_t pid = spawn(argv, dir_.file("install.log"));
    if (pid < 0) return failure("cannot fork");
    int status = 0;
    if (!wait_pid(pid, install_timeout, &status)) {
        kill(-pid, SIGKILL);
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return failure(installer + " did not finish");
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return failure(installer + " failed (status " + std::to_string(status) + ")");
    initialised_ = true;
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult mariadb_server::launch() {
    std::string server = find_program({"mariadbd", "mysqld"});
    if (server.empty()) return failure("neither mariadbd nor mysqld found");
    std::vector<std::string> argv = {server,
                                     "--no-defaults",
                                     "--datadir=" + datadir_,
                                     "--socket=" + socket_,
                                     "--port=" + std::to_string(port_),
                                     "--bind-address=127.0.0.1",
                                     "--skip-networking=0",
                                     "--pid-file=" + dir_.file("mysqld.pid"),
                                     "--log-error=" + dir_.file("error.log"),
                                     "--tmpdir=" + dir_.path(),
                                     "--user=" + user_name()};
    for (const char* opt : server_tuning) argv.emplace_back(opt);
    pid_ = spawn(argv, dir_.file("server.out"));
    if (pid_ < 0) return failure("cannot fork");
    return wait_ready();
}

::testing::AssertionResult mariadb_server::wait_ready() {
    auto end = std::chrono::steady_clock::now() + ready_timeout;
    std::string error;
    for (;;) {
        if (!running()) return failure("the server ended before it answered");
        if (connect_root(socket_, &error)) return ::testing::AssertionSuccess();
        if (std::chrono::steady_clock::now() >= end) {
            stop();
            return failure("no answer within 60 s (last error: " + error + ")");
        }
        std::this_thread::sleep_for(100ms);
    }
}

::testing::AssertionResult mariadb_server::start() {
    if (running()) return ::testing::AssertionSuccess();
    if (!initialised_) {
        if (auto r = initialise(); !r) return r;
    }
    if (users_made_) return launch();  // a restart keeps its port

    // First start: a port taken between picking and binding is picked again.
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    for (int attempt = 0; attempt < 3; ++attempt) {
        port_ = pick_free_port();
        size_t log_size = error_log().size();
        r = launch();
        if (r || error_log().find("Address already in use", log_size) == std::string::npos) break;
    }
    if (!r) return r;

    const std::string login = std::string("'") + user + "'@";
    const std::string pw = std::string(" IDENTIFIED BY '") + password + "'";
    const std::string db = std::string("`") + database + "`";
    for (const std::string& sql : {
             "CREATE DATABASE " + db,
             "CREATE USER " + login + "'127.0.0.1'" + pw,
             "CREATE USER " + login + "'localhost'" + pw,
             "GRANT ALL PRIVILEGES ON " + db + ".* TO " + login + "'127.0.0.1'",
             "GRANT ALL PRIVILEGES ON " + db + ".* TO " + login + "'localhost'",
             std::string("DROP USER IF EXISTS ''@'localhost'"),
         }) {
        if (auto res = exec_root(sql); !res) return failure(res.message());
    }
    users_made_ = true;
    return ::testing::AssertionSuccess();
}

void mariadb_server::stop() {
    if (pid_ <= 0) return;
    int status = 0;
    kill(pid_, SIGTERM);
    if (!wait_pid(pid_, stop_timeout, &status)) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
    }
    pid_ = -1;
}

bool mariadb_server::running() {
    if (pid_ <= 0) return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == 0) return true;
    pid_ = -1;
    return false;
}

::testing::AssertionResult mariadb_server::exec_root(const std::string& sql) {
    std::string error;
    mysql_ptr m = connect_root(socket_, &error);
    if (!m) return ::testing::AssertionFailure() << "root login failed: " << error;
    if (mysql_query(m.get(), sql.c_str()) != 0)
        return ::testing::AssertionFailure() << mysql_error(m.get()) << " in: " << sql;
    return ::testing::AssertionSuccess();
}

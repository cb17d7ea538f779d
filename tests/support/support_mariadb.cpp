#include "support_mariadb.h"

#include <pwd.h>
#include <unistd.h>

#include <sstream>

// The client library's header lives in the "mariadb" folder of the system
// include path, which this library is not given.
#include <mysql.h>

#include "netutil.h"

using namespace std::chrono_literals;

namespace {

// The first of `programs` found, with the options of a small, quick server
// in `dir`, and `more`.
std::vector<std::string> command(const std::vector<std::string>& programs, const temp_dir& dir,
                                 const std::vector<std::string>& more) {
    const passwd* pw = getpwuid(geteuid());
    std::vector<std::string> argv = {find_program(programs), "--no-defaults",
                                     "--datadir=" + dir.file("data"), "--tmpdir=" + dir.path(),
                                     "--user=" + std::string(pw ? pw->pw_name : "root")};
    std::istringstream tuning(
        "--skip-log-bin --skip-name-resolve --innodb-buffer-pool-size=16M "
        "--innodb-log-file-size=8M --innodb-data-file-path=ibdata1:1M:autoextend "
        "--innodb-temp-data-file-path=ibtmp1:1M:autoextend --innodb-flush-method=nosync "
        "--innodb-use-native-aio=0 --innodb-flush-log-at-trx-commit=0 --innodb-doublewrite=0 "
        "--innodb-buffer-pool-load-at-startup=0 --innodb-buffer-pool-dump-at-shutdown=0 "
        "--max-connections=40");
    for (std::string option; tuning >> option;) argv.push_back(option);
    argv.insert(argv.end(), more.begin(), more.end());
    return argv;
}

}  // namespace

::testing::AssertionResult mariadb_server::failure(const std::string& what) const {
    return ::testing::AssertionFailure()
           << "private MariaDB server: " << what << "\n--- install output ---\n"
           << install_output_ << "\n--- server output ---\n"
           << (server_ ? server_->output() : "") << "\n--- error log ---\n"
           << read_file(dir_.file("error.log"));
}

::testing::AssertionResult mariadb_server::launch() {
    server_ = std::make_unique<child_process>();
    server_->start(command(
        {"mariadbd", "mysqld"}, dir_,
        {"--socket=" + dir_.file("mysqld.sock"), "--port=" + std::to_string(port_),
         "--bind-address=127.0.0.1", "--skip-networking=0", "--pid-file=" + dir_.file("mysqld.pid"),
         "--log-error=" + dir_.file("error.log")}));
    ::testing::AssertionResult answer = ::testing::AssertionFailure();
    wait_until([&] { return !server_->running() || (answer = exec_root("SELECT 1")); }, 60s);
    if (answer) return answer;
    stop();
    return failure("no answer: " + std::string(answer.message()));
}

::testing::AssertionResult mariadb_server::start() {
    if (server_ && server_->running()) return ::testing::AssertionSuccess();
    if (users_made_) return launch();  // a restart keeps its port

    child_process installer;
    int status =
        installer.start(command({"mariadb-install-db", "mysql_install_db"}, dir_,
                                {"--auth-root-authentication-method=normal", "--skip-test-db"}))
            ? installer.wait_exit(120s)
            : -1;
    install_output_ = installer.output();
    if (status != 0) return failure("the installer failed");
    // A port taken between picking and binding is picked again.
    ::testing::AssertionResult r = ::testing::AssertionFailure();
    for (int attempt = 0; attempt < 3 && !r; ++attempt) {
        port_ = pick_free_port();
        r = launch();
    }
    const std::string login = std::string("'") + user + "'@";
    const std::string pw = std::string(" IDENTIFIED BY '") + password + "'";
    const std::string db = std::string("`") + database + "`";
    for (const std::string& sql :
         {"CREATE DATABASE " + db, "CREATE USER " + login + "'127.0.0.1'" + pw,
          "CREATE USER " + login + "'localhost'" + pw,
          "GRANT ALL PRIVILEGES ON " + db + ".* TO " + login + "'127.0.0.1'",
          "GRANT ALL PRIVILEGES ON " + db + ".* TO " + login + "'localhost'",
          std::string("DROP USER IF EXISTS ''@'localhost'")})
        if (r) r = exec_root(sql);
    users_made_ = r;
    return r;
}

void mariadb_server::stop() {
    if (server_) server_->terminate(30s);
}

::testing::AssertionResult mariadb_server::exec_root(const std::string& sql) {
    MYSQL* m = mysql_init(nullptr);
    unsigned int timeout = 2;
    mysql_options(m, MYSQL_OPT_CONNECT_TIMEOUT, &timeout);
    ::testing::AssertionResult r = ::testing::AssertionSuccess();
    if (!mysql_real_connect(m, "localhost", "root", "", nullptr, 0,
                            dir_.file("mysqld.sock").c_str(), 0))
        r = ::testing::AssertionFailure() << "root login failed: " << mysql_error(m);
    else if (mysql_query(m, sql.c_str()) != 0)
        r = ::testing::AssertionFailure() << mysql_error(m) << " in: " << sql;
    mysql_close(m);
    return r;
}

#include "support_daemon.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using namespace std::chrono_literals;

void daemon_run::write_config() const {
    std::string text;
    for (const auto& [section, keys] : config_) {
        text += "[" + section + "]\n";
        for (const auto& [key, value] : keys) text += key + " = " + value + "\n";
    }
    write_file(config_path(), text);
}

daemon_run::daemon_run(bool pms_up)
    : pms([this] {
          pms_sim::options opts;
          opts.port = pms_port_;
          return opts;
      }()),
      pms_up_(pms_up) {
    set("pms", "host", "127.0.0.1")
        .set("pms", "port", std::to_string(pms_port_))
        .set("pms", "interface", "PB")
        .set("pms", "statesfile", states_file())
        .set("logger", "log_level", "5")
        .set("logger", "log_file", dir_.file("orlanbeck.log"))
        .set("pbx", "dbdriver", "sqlite")
        .set("pbx", "database", pbx_file());
    if (pms_up_) pms.start();
}

daemon_run::~daemon_run() {
    proc_.stop();
    for (const char* report : {"ThreadSanitizer", "AddressSanitizer", "runtime error:"})
        if (log().find(report) != std::string::npos) ADD_FAILURE() << "the daemon:\n" << log();
}

void daemon_run::use_manager() {
    manager_ = mgr.start();
    set("services", "cdr_use_manager", "yes")
        .set("services", "cdr_mgr_host", "127.0.0.1")
        .set("services", "cdr_mgr_port", std::to_string(mgr.port()))
        .set("services", "cdr_mgr_user", "orlanbeck")
        .set("services", "cdr_mgr_password", "secret")
        .set("services", "cdr_mgr_events", "cdr");
}

void daemon_run::use_wakeup() {
    manager_ = mgr.start();
    set("services", "cdr_mgr_host", "127.0.0.1")
        .set("services", "cdr_mgr_port", std::to_string(mgr.port()))
        .set("services", "cdr_mgr_user", "orlanbeck")
        .set("services", "cdr_mgr_password", "secret")
        .set("wakeup", "call", "yes");
}

void daemon_run::use_log_templates() {
    sqlite_exec(pbx_file(), "create table log (what text, exten text, a text, b text, c text)");
    for (const char* key : {"checkin", "checkout", "bareon", "bareoff", "dndon", "dndoff",
                            "wakeup_set", "wakeup_clear"}) {
        std::string what = key;
        std::string values = what.starts_with("check")    ? "%name%','%lang%','%share%"
                             : what.starts_with("wakeup") ? "%date%','%time%','"
                                                          : "','','";
        set("services", key,
            "pbx:insert into log values ('" + what + "','%exten%','" + values + "')");
    }
}

bool daemon_run::start() {
    if (pms_up_ && pms.port() != pms_port_) return false;
    write_config();
    std::vector<std::string> argv = {orlanbeck_binary(), "-f", "-d", "-c", config_path()};
    if (!console_log) argv.erase(argv.begin() + 2);
    std::vector<std::string> environment = env;
    for (const char* e : {"ORLANBECK_TEST_BILLING_PERIOD_MS=200",
                          "ORLANBECK_TEST_RECORD_PAUSE_MS=20", "ORLANBECK_TEST_WRITE_LIMIT_MS=500"})
        environment.push_back(e);
    if (!proc_.start(argv, nullptr, environment)) return false;
    if (!pms_up_) return true;
    if (!pms.wait_link_active(15s) || !wait_log("Received Link active packet from PMS"))
        return false;
    return !manager_ || (mgr.wait_logins(1, 15s) && wait_log("connected successfully!"));
}

bool daemon_run::play(const std::vector<std::string>& records, const std::string& last_line) {
    for (const std::string& r : records)
        if (!pms.send_record(r)) return false;
    if (!wait_log(last_line)) return false;
    std::this_thread::sleep_for(200ms);
    return true;
}

std::string daemon_run::announced() const {
    std::string out;
    for (const std::string& lr : pms.frames("LR|")) out += lr.substr(5, 2) + " ";
    return out;
}

std::string daemon_run::log() const {
    return console_log ? proc_.output() : read_file(dir_.file("orlanbeck.log"));
}

size_t daemon_run::count_log(const std::string& text) const {
    return occurrences(log(), text);
}

std::string daemon_run::log_after(const std::string& marker) const {
    std::string out = log();
    size_t at = out.find(marker);
    return at == std::string::npos ? std::string() : out.substr(at);
}

std::pair<int, std::string> http_get(int port, const std::string& path) {
    const int fd = connect_loopback(port);
    if (fd < 0) return {0, ""};
    // A daemon that never answers fails the test instead of hanging it.
    const timeval limit{30, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    const std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n";
    std::string reply;
    if (write(fd, request.data(), request.size()) == static_cast<ssize_t>(request.size())) {
        char buf[4096];
        for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) reply.append(buf, n);
    }
    close(fd);
    const size_t body = reply.find("\r\n\r\n");
    if (reply.compare(0, 9, "HTTP/1.1 ") != 0 || body == std::string::npos) return {0, reply};
    return {atoi(reply.c_str() + 9), reply.substr(body + 4)};
}

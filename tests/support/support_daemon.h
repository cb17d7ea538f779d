// Runs the built daemon as a child process for scenario tests: a
// configuration in a temporary folder, the daemon in the foreground with
// console logging, and a look at its log and databases.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support.h"

// An INI file built key by key; sections keep their first-use order.
class ini_file {
public:
    ini_file& set(const std::string& section, const std::string& key, const std::string& value);
    ini_file& unset(const std::string& section, const std::string& key);
    std::string text() const;

private:
    std::vector<std::pair<std::string, std::vector<std::pair<std::string, std::string>>>> sections_;
};

class daemon_run {
public:
    // A configuration whose PMS is 127.0.0.1:pms_port, with the states file
    // and a SQLite PBX database ([pbx]) in the temporary folder.
    explicit daemon_run(int pms_port);
    ~daemon_run();

    ini_file& config() { return config_; }
    const temp_dir& dir() const { return dir_; }
    std::string states_file() const { return dir_.file("states.db"); }
    std::string pbx_file() const { return dir_.file("pbx.db"); }
    std::string config_path() const { return dir_.file("orlanbeck.conf"); }

    // Writes the configuration and starts "orlanbeck -f -d -c <file>".
    bool start();
    // Rewrites the configuration file (for reload tests).
    void write_config();

    child_process& process() { return proc_; }
    std::string log() const { return proc_.output(); }
    bool wait_log(const std::string& text,
                  std::chrono::milliseconds timeout = std::chrono::seconds(15)) const {
        return proc_.wait_output(text, timeout);
    }
    size_t count_log(const std::string& text) const { return proc_.count(text); }
    // Log text after the first occurrence of `marker` (empty when absent).
    std::string log_after(const std::string& marker) const;

    std::vector<std::vector<std::string>> pbx(const std::string& sql) const {
        return sqlite_rows(pbx_file(), sql);
    }
    std::vector<std::vector<std::string>> states(const std::string& sql) const {
        return sqlite_rows(states_file(), sql);
    }
    void stop() { proc_.stop(); }

private:
    temp_dir dir_;
    ini_file config_;
    child_process proc_;
};

// The built daemon as a child process for scenario tests: in the foreground
// with console logging, configured in a temporary folder, linked to a PMS
// simulator (and, when asked, a Manager simulator), with billing cycles and
// record pauses shortened through the environment.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "netutil.h"
#include "sim_mgr.h"
#include "sim_pms.h"
#include "support.h"

class daemon_run {
    int pms_port_ = pick_free_port();  // before pms, which listens on it

  public:
    // The PMS simulator is started now or, with `pms_up` false, by the test.
    explicit daemon_run(bool pms_up = true);
    // Stops the daemon; a sanitizer report in its output fails the test.
    ~daemon_run();

    pms_sim pms;
    mgr_sim mgr;
    // With false the daemon logs to its log file (no -d), which log() reads.
    bool console_log = true;
    // More environment for the daemon ("NAME=value"; these win).
    std::vector<std::string> env;
    int pms_port() const { return pms_port_; }

    // The configuration. The states file, a SQLite PBX database ([pbx]) and
    // the log file are in the temporary folder.
    daemon_run& set(const std::string& section, const std::string& key, const std::string& value) {
        config_[section][key] = value;
        return *this;
    }
    daemon_run& unset(const std::string& section, const std::string& key) {
        config_[section].erase(key);
        return *this;
    }
    const temp_dir& dir() const { return dir_; }
    std::string config_path() const { return dir_.file("orlanbeck.conf"); }
    std::string states_file() const { return dir_.file("states.db"); }
    std::string pbx_file() const { return dir_.file("pbx.db"); }
    void write_config() const;
    // Starts the Manager simulator and has the daemon cache its calls.
    void use_manager();
    // Starts the Manager simulator and has the daemon place wake-up calls
    // through it ([wakeup] call, no call capture).
    void use_wakeup();
    // Guest templates (checkin, checkout, bareon, bareoff, dndon, dndoff,
    // wakeup_set, wakeup_clear) that insert into the PBX table `log`.
    void use_log_templates();
    sql_rows pbx_log() const { return pbx("select what, exten, a, b, c from log order by rowid"); }
    // The record types of the link description, in the order announced.
    std::string announced() const;

    // Writes the configuration and starts "orlanbeck -f -d -c <file>". With
    // the PMS up, false unless the link (and the Manager login) is made.
    bool start();
    // Sends the records, waits until the log holds `last_line`, then a moment
    // more for the handler's statement after its log line.
    bool play(const std::vector<std::string>& records, const std::string& last_line);

    child_process& process() { return proc_; }
    std::string log() const;
    bool wait_log(const std::string& text) const {
        return wait_until([&] { return log().find(text) != std::string::npos; },
                          std::chrono::seconds(15));
    }
    size_t count_log(const std::string& text) const;
    // Log text from the first occurrence of `marker` on (empty when absent).
    std::string log_after(const std::string& marker) const;
    bool wait_log_after(const std::string& marker, const std::string& text) const {
        return wait_until([&] { return log_after(marker).find(text) != std::string::npos; });
    }

    sql_rows pbx(const std::string& sql) const { return sqlite_rows(pbx_file(), sql); }
    sql_rows states(const std::string& sql) const { return sqlite_rows(states_file(), sql); }

  private:
    temp_dir dir_;
    std::map<std::string, std::map<std::string, std::string>> config_;
    bool pms_up_;
    bool manager_ = false;
    child_process proc_;
};

// The status code and body of GET `path` on 127.0.0.1:`port` (0 and the raw
// reply, "" when nothing answers, when it is not an HTTP/1.1 answer).
std::pair<int, std::string> http_get(int port, const std::string& path);

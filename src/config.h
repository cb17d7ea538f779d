// Configuration: the settings of the INI file, published as immutable snapshots.
//
// Contract:
//  - load_conf() and free_confvals() run in the main thread only (at start and
//    from the deferred SIGHUP handler).
//  - Any thread reads the settings through current_config(), which hands out a
//    shared, immutable snapshot. A thread takes one snapshot at the start of a
//    unit of work and uses only that; a reload publishes a new snapshot and
//    never changes or frees one that a thread still holds.
//  - A text setting that is absent from the file is std::nullopt (or keeps the
//    value of the previous load, for the keys that keep it, see load_conf).
//  - The database records of a load (`dbdrivers`, newest first) belong to the
//    snapshot; find_dbdriver() (db/registry.h) searches the current one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "db/driver.h"

using opt_text = std::optional<std::string>;

struct config {
    // [pms]
    std::string pmshost = "localhost";
    uint16_t pmsport = 5010;
    std::string statesfile = "/var/run/orlanbeck.db";
    opt_text pmsinterface;
    // [logger]
    uint8_t logtype = 0;  // 1 = copy log lines to the system log
    uint16_t loglevel = 5;
    int disable_log = 0;
    std::string logfile = "/var/log/orlanbeck.log";
    // database sections, newest first
    std::vector<dbdriver_ptr> dbdrivers;
    // [services]
    int use_manager = 0;
    int mgr_port = 5038;
    opt_text mgr_host;
    opt_text mgr_user;
    opt_text mgr_passwd;
    std::string mgr_events = "call";  // services:cdr_mgr_events
    int noremovecalls = 0;
    opt_text bareon;
    opt_text bareoff;
    opt_text dndon;
    opt_text dndoff;
    opt_text wakeup_set;
    opt_text wakeup_clear;
    opt_text checkin;
    opt_text checkout;
    opt_text billmark;
    opt_text billok;
    opt_text room_state;  // services:room_status
    opt_text wakeup_result;
    opt_text billcalls;
    opt_text wrmark;
    opt_text remark;
};

using config_ptr = std::shared_ptr<const config>;

// Path of the configuration file; main thread only. Default "/etc/orlanbeck.conf".
extern std::string config_file;

// The current snapshot (never null; all defaults before the first load).
config_ptr current_config();

// Reads `path` and publishes the result. Returns 0, or -1 when the file cannot
// be loaded (the defaults are then published, the other settings kept).
// Settings that are reset on every load: pmshost, pmsport, statesfile,
// logtype, logfile, loglevel. Other text keys replace the old value when
// present and keep it when absent; numbers and flags always take the file's
// value or their default. Database sections are read afresh and put in front
// of the previous records (a previous record of the same name is dropped).
int load_conf(const char* path);

// Releases the text settings before a reload: the next load_conf() starts with
// them unset, so that a key removed from the file is unset after the reload.
// Threads keep reading the published snapshot until load_conf() replaces it.
void free_confvals();

// Test support: publish `cfg` as the current snapshot.
void publish_config(std::shared_ptr<config> cfg);

// Registry of the configured databases: records made from plain settings.
//
// Contract:
//  - load_dbdriver()/load_dbdrivers() run in the main thread while a
//    configuration is being built; they make, configure and connect one
//    record per database section. They know nothing of the configuration
//    file: the settings come from the configuration loader.
//  - find_dbdriver_in() may be called from any thread on a list that the
//    caller keeps alive (a configuration snapshot's).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "db/driver.h"

// One database section ("[section]" with a dbdriver key) as the file has it.
struct db_settings {
    std::string section;
    std::string driver;  // the dbdriver value
    std::optional<std::string> date_format;
    std::optional<std::string> time_format;
    std::optional<std::string> host;
    std::optional<std::string> user;
    std::optional<std::string> password;
    std::optional<std::string> database;
    std::optional<int> port;
    std::optional<std::string> synchronous;  // "full" or "normal" (SQLite only)
    // MySQL: seconds a connect, a read and a write may take (absent: the
    // long-standing limits, or those of [fixes] deadlines).
    std::optional<int> connect_timeout;
    std::optional<int> read_timeout;
    std::optional<int> write_timeout;
};

// A record of the section's kind ("sqlite", any case; with `mysql` also
// "mysql"), configured and connected ("Can not connect to DB ..." logged on
// failure, the record kept); null for any other kind. With `connect` false
// the record is made without connecting (the configuration check); with
// `mysql_at_use` a MySQL record is left to connect at its first use.
dbdriver_ptr load_dbdriver(const db_settings& settings, bool mysql = false, bool connect = true,
                           bool mysql_at_use = false);

// Records of `sections`, in file order, each put in front of the list.
std::vector<dbdriver_ptr> load_dbdrivers(const std::vector<db_settings>& sections,
                                         bool mysql = false, bool connect = true,
                                         bool mysql_at_use = false);

// The first record named exactly `name` in `drivers`, or null.
dbdriver_ptr find_dbdriver_in(const std::vector<dbdriver_ptr>& drivers, const char* name);

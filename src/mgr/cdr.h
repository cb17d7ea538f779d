// CDR capture: the thread that logs into the Asterisk Manager and copies the
// `Cdr` events of hotel rooms into the states file's `cdrcache` table.
//
// Contract:
//  - cdrmanager_thread() is the body of one thread, owned by main and
//    started when services:cdr_use_manager is set. It works with the
//    configuration snapshot it is given (manager host, port, user, secret,
//    event classes) and keeps it: a reload changes nothing for it, except
//    that with [fixes] reload it reads the room list of the `rooms` table
//    again whenever that list has changed (otherwise once, at its start).
//  - The thread owns its Manager session, its message buffer and its room
//    list; all are released when it returns.
//  - It returns when the states file cannot be opened, when the manager host
//    cannot be resolved, after the manager refused a login (at the next
//    failed read), or when `stop` is requested (which wakes it from any
//    wait). A lost connection is not an end: it logs in again, retrying
//    every second.
//  - It reports to `notify` why it stopped, when the configuration stopped it.
#pragma once

#include <string>
#include <vector>

#include "config.h"
#include "mgr/manager.h"
#include "ops/notify.h"
#include "states/states.h"
#include "stop_flag.h"

void cdrmanager_thread(config_ptr cfg, stop_flag& stop, states_file& states, notifier& notify);

// The rooms whose calls are cached: in the order of the `rooms` table (the
// order in which a call's source is compared with them, one DEBUG line each),
// and sorted, for the same test when DEBUG lines are not written.
struct cdr_rooms {
    std::vector<std::string> list;
    std::vector<std::string> sorted;
    explicit cdr_rooms(std::vector<std::string> rooms);
    bool contains(const char* room) const;
};

// Inserts the `Cdr` event `m` into `cdrcache` when its Source is one of
// `rooms` (exact comparison). A failed insert is logged by the driver and the
// call is lost. With `escape` ([fixes] escape) the values are escaped.
void mgr_cache_cdr(const message& m, const cdr_rooms& rooms, states_file& states,
                   bool escape = false);

// CDR capture: the thread that logs into the Asterisk Manager and copies the
// `Cdr` events of hotel rooms into the internal table `cdrcache`.
//
// Contract:
//  - cdrmanager_thread() is the body of one detached thread, started by the
//    main thread when services:cdr_use_manager is set. It takes the
//    configuration snapshot once at its start (manager host, port, user,
//    secret, event classes, states file) and keeps it: a reload changes
//    nothing for it. It reads the room list once, from the `rooms` table.
//  - The thread owns its Manager session, its message buffer and its room
//    list; all are released when it returns.
//  - It returns when the states file cannot be opened, when the manager host
//    cannot be resolved, or after the manager refused a login, at the next
//    failed read. A lost connection is not an end: it logs in again, retrying
//    every second. Tests stop a running capture through the manager: refuse
//    the next login and drop the connection.
//  - Every use of the internal database is made under the `sqliteint` lock.
#pragma once

#include <string>
#include <vector>

#include "mgr/manager.h"

// The thread body (runs until the manager refuses a login, see above).
void cdrmanager_thread();

// Inserts the `Cdr` event `m` into `cdrcache` when its Source is one of
// `rooms` (exact comparison). Always 0; a failed insert is logged by the
// driver and the call is lost.
int mgr_cache_cdr(const message& m, const std::vector<std::string>& rooms);

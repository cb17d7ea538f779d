// Room registry: fills the `rooms` table of the states file with the hotel's
// rooms at start-up, from numbered keys of the configuration file
// (rooms:room1, rooms:room2, ...) or from an LDAP directory (rooms:type = ldap).
//
// Contract:
//  - Called by the main thread: at start-up, after the states file has been
//    opened, and, with [fixes] reload, on every reload while the other
//    threads run (the states file takes care of its own locking).
//  - Rows are written with "replace into", so a room that is already there
//    is rewritten with `calls` 0. Rows are never removed here.
//  - Failures are reported through the log only; start-up goes on.
#pragma once

#include <string>

#include "config.h"
#include "states/states.h"

// Loads the rooms from the source chosen by rooms:type: absent or empty =
// numbered keys, beginning with "ldap" (any case) = LDAP, anything else =
// nothing.
// With `true_stamps` the rows get the date in ci_date and the time in citime.
void load_rooms_conf(const rooms_settings& rooms, states_file& states, bool true_stamps = false);

// Loads every value of `attribute` in the first entry that a search under
// `base` with `filter` and `scope` ("sub...", "base...", "one...", anything
// else or null = subtree) finds on host:port. `user` null = anonymous bind.
// `timelimit` is the server-side search time limit in seconds (0 = none).
// Returns 0 on success (also when the states file cannot be opened, which is
// logged), -1 no LDAP handle (or base, filter or attribute missing), -2 bind
// failed, -3 search failed, -4 no entry found, -5 the entry has no value of
// the attribute. With `deadline_s` the connect, the bind and the search may
// take that long each (instead of 10 s for the connect and 30 s for each
// answer); one that takes longer is logged at ERROR with the server's URI
// and fails as if the server were unreachable (-2 connect or bind, -3 search).
int load_rooms_ldap(const char* host, int port, int version, int timelimit, const char* user,
                    const char* password, const char* base, const char* scope, const char* filter,
                    const char* attribute, states_file& states, bool true_stamps = false,
                    int deadline_s = 0);

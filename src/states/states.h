// The states file: the daemon's own SQLite database, with the `rooms` table
// (the rooms it bills and captures) and the `cdrcache` table (calls cached
// from the Manager). This module alone knows their statements.
//
// Contract:
//  - `sqliteint` (named "sqlite-int") is the record of the states file; it
//    lives for the whole process and is never torn down, so that threads
//    still running while the process exits can use it.
//  - The functions below take the record's lock themselves for their one
//    statement; callers that walk rows (billing, capture) lock it with
//    db_lock and run the statements of this module under it.
//  - Texts are put between quotes as they are, without escaping.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "db/driver.h"

extern dbdriver_t& sqliteint;

// The statements that create the tables and the cache's index.
extern const char* const sql_create_rooms;
extern const char* const sql_create_table;        // cdrcache
extern const char* const sql_create_table_index;  // its index

// The cache's own indexes, made when missing each time the file is opened
// (also on a file made by an older version): a room's calls not yet posted,
// and the calls of one room and start second that a mark or an accepted
// posting looks for. With them a billing cycle's cost follows the rooms and
// the calls still to post, not the calls posted long ago.
extern const char* const sql_create_unposted_index;
extern const char* const sql_create_start_index;

// Opens the states file, chooses its journal (see the durability note in
// states.cpp), creates `rooms` and `cdrcache` when missing and the cache's
// indexes. 0, or -1 when the file cannot be opened.
int open_states_file(const std::string& statesfile);

// Writes `room` into `rooms` ("replace into", calls 0). Both stamps are
// formatted from the same local time into one text, the time over the date:
// the row gets the time of day in ci_date and an empty citime; with
// `true_stamps` it gets the date in ci_date and the time in citime. With
// `close_after` the states file is closed afterwards, and, being marked open,
// never opened again. 0, or -1 when the states file cannot be opened.
int states_store_room(const std::string& statesfile, const std::string& room, bool close_after,
                      bool true_stamps = false);

// Deletes `room` from `rooms`. 0, or -1 when the states file cannot be opened.
int states_remove_room(const std::string& statesfile, const std::string& room);

// Appends the rooms of the `rooms` table. With `statesfile` the file is
// opened first: -1 when it cannot be; -2 when the table cannot be read;
// otherwise 0.
int states_room_list(std::vector<std::string>& rooms, const std::string* statesfile = nullptr);

// A number that changes whenever this process writes or deletes a room, so
// that readers of the room list know when to read it again (a statement
// that fails changes nothing).
unsigned states_rooms_version();

// The cache insert of one Cdr event; `values` in the order of the columns
// clid, src, dst, dcontext, channel, dstchannel, lastapp, lastdata, start,
// answer, end, duration, billsec, disposition, amaflags, c_from, c_to, cost,
// accountcode, callclass, faxdata, uniqueid (userfield is inserted empty).
constexpr int cache_insert_values = 22;
std::string cache_insert_statement(const char* const (&values)[cache_insert_values]);

// The select of a room's calls not yet posted: date, time, dst, billsec, -1.
std::string cache_unposted_query(const std::string& room);

// Runs cache_unposted_query(room), under the lock the caller holds; the rows
// are then read with the record's fetch operations. 0, or -1 when it failed
// (logged by the driver).
int cache_select_unposted(const std::string& room) REQUIRES(sqliteint);

// Runs `statement`, the cache_mark_statement filled with `param`, `room`,
// `date` and `time`, under the lock the caller holds. 0 or -1 as query().
int cache_run_mark(const std::string& statement, std::string_view param, std::string_view room,
                   std::string_view date, std::string_view time) REQUIRES(sqliteint);

// Runs `statement`, made by cache_insert_statement(values), under the lock
// the caller holds. 0 or -1 as query().
int cache_run_insert(const std::string& statement, const char* const (&values)[cache_insert_values])
    REQUIRES(sqliteint);

// These three run the same statement as its text would, but parsed once per
// connection: a text that the plain values would not give (a value with a
// quote, a statement cut at its buffer's end) runs as it stands.

// Groups statements on the states file into one transaction (see the
// durability note in states.cpp), under the lock the caller holds.
void states_begin() REQUIRES(sqliteint);
// Writes what the log holds into the states file (after a cycle's postings).
void states_checkpoint() REQUIRES(sqliteint);
void states_commit() REQUIRES(sqliteint);

// Templates run on the states file (placeholders filled by the template
// routines): the mark of a posted call, and what an accepted posting answer
// runs (the remove statement has no "where", so SQLite refuses it and the
// cached call stays; with services:noremovecalls the mark runs instead).
extern const char* const cache_mark_statement;
extern const char* const pa_remove_statement;
extern const char* const pa_mark_statement;
// The remove statement of [fixes] posting: the accepted call's own row, the
// one marked with the record of that posting (the cache then holds only
// calls not yet accepted, so the room and the "P#" find it).
extern const char* const pa_remove_own_statement;

// The number of cached calls not yet posted, read through a connection of
// its own (read-only, opened and closed here, so that no lock of the states
// file is taken and nothing is logged); -1 when the file cannot be read.
int states_calls_waiting(const std::string& statesfile);

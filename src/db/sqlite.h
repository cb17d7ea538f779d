// SQLite drivers: SQLite database files of the configuration, and the kind of
// handle the internal database (states/states.h) is made of.
//
// Contract:
//  - A statement runs to its end at once; all its rows are copied into memory
//    and the fetch operations walk that copy. SQL NULL reads as an empty text.
//  - The operations take no lock; callers hold the record's lock (driver.h).
//  - connect() on an open handler does nothing; close() leaves the handler
//    marked open, so it is never opened again (statements then fail).
#pragma once

#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>

#include "db/driver.h"

// A new SQLite file driver named `name` (cut to 15 characters).
dbdriver_ptr sqlite_create_drv(const char* name);

// Gives `drv` a fresh SQLite handle and the name `name`.
void sqlite_init_record(dbdriver_t& drv, const char* name);

// A value bound to a "?" of a statement: a text (as it is, any bytes, any
// length) or a number. Made implicitly from either, so that a list of values
// reads as the statement's values.
struct sqlite_value {
    std::string_view text;
    long long number = 0;
    bool is_number = false;

    sqlite_value(std::string_view t) : text(t) {}
    sqlite_value(const std::string& t) : text(t) {}
    sqlite_value(const char* t) : text(t ? t : "") {}
    sqlite_value(long long n) : number(n), is_number(true) {}
    sqlite_value(long n) : number(n), is_number(true) {}
    sqlite_value(int n) : number(n), is_number(true) {}
    sqlite_value(unsigned n) : number(n), is_number(true) {}
};

// Like drv.query(sql), with each "?" of `sql` bound to the next value of
// `params`; the statement is prepared once per connection and kept until the
// connection closes, so that a statement run per room or per call is not
// parsed every time. The values stay values: they are never part of the
// statement's text. Rows are read with the fetch operations as after query()
// (fetch_text_field() gives a whole text); errors are logged as query() logs
// them. -1 when `drv` is no SQLite record.
int sqlite_query_bound(dbdriver_t& drv, const char* sql, std::initializer_list<sqlite_value> params)
    REQUIRES(drv);

// The first column of the first row of `sql` with `params` bound, as a
// number, nothing logged; -1 when the connection is closed or the statement
// fails.
long long sqlite_count_bound(dbdriver_t& drv, const char* sql,
                             std::initializer_list<sqlite_value> params) REQUIRES(drv);

// Whether the open connection's file holds the table `name`; asked without a
// statement that could fail (false, nothing logged, when it cannot be read).
bool sqlite_has_table(dbdriver_t& drv, std::string_view name) REQUIRES(drv);

// A transaction on the open connection of an SQLite record, under its lock,
// so that a group of statements costs one commit: sqlite_begin() opens one
// (0; -1 and nothing logged when the connection is closed or has one open
// already), sqlite_commit() commits what is open (a failed commit is rolled
// back and logged as a failed statement: -1). `immediate` takes the file's
// write lock at once (waiting as any write does), so that a transaction
// that reads before it writes never fails when another connection wrote.
int sqlite_begin(dbdriver_t& drv, bool immediate = false) REQUIRES(drv);
// Whether a transaction is open on the connection.
bool sqlite_in_transaction(dbdriver_t& drv) REQUIRES(drv);
int sqlite_commit(dbdriver_t& drv) REQUIRES(drv);

// With `normal`, the connections `drv` makes from now on commit with SQLite's
// synchronous=NORMAL when the file is in WAL mode: a commit then waits for
// the operating system, not for the disk. It survives a crash of the daemon,
// and a power loss never damages the file but may undo the last commits.
// A file in another journal mode keeps the library's default (there NORMAL
// could damage it on a power loss), with a warning. Not for the internal
// database, which sets its own.
void sqlite_set_sync_normal(dbdriver_t& drv, bool normal);

// Writes the write-ahead log of an SQLite record's open connection into its
// file as far as readers allow, without waiting (nothing logged). True when
// the log held frames and all of them were written: the next write then
// starts the log anew.
bool sqlite_checkpoint(dbdriver_t& drv) REQUIRES(drv);
// A write that changes nothing (the file's user version written back as it
// is), in a transaction of its own; nothing when one is open. After a
// checkpoint that wrote the whole log, it starts the log anew, and the first
// write into a new log syncs the log's header: a disk flush, made by this
// write instead of the next one. -1 when it failed (a failed write is
// logged).
int sqlite_restart_log(dbdriver_t& drv) REQUIRES(drv);

// SQLite drivers: SQLite database files of the configuration, and the internal
// database (the states file with the `rooms` and `cdrcache` tables).
//
// Contract:
//  - A statement runs to its end at once; all its rows are copied into memory
//    and the fetch operations walk that copy. SQL NULL reads as an empty text.
//  - The operations take no lock; callers hold the record's lock (driver.h).
//  - connect() on an open handler does nothing; close() leaves the handler
//    marked open, so it is never opened again (statements then fail).
//  - `sqliteint` lives for the whole process and is never copied.
#pragma once

#include "db/driver.h"

// A new SQLite file driver named `name` (cut to 15 characters).
dbdriver_ptr sqlite_create_drv(const char* name);

// The internal database, named "sqlite-int".
extern dbdriver_t& sqliteint;

// The statements that create the internal tables.
extern const char* const sql_create_rooms;
extern const char* const sql_create_table;        // cdrcache
extern const char* const sql_create_table_index;  // its index

// Opens the internal database file and creates `rooms` and `cdrcache` when
// missing. 0, or -1 when the file cannot be opened.
int open_states_file(const char* statesfile);

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

#include <string>
#include <string_view>

#include "db/driver.h"

// A new SQLite file driver named `name` (cut to 15 characters).
dbdriver_ptr sqlite_create_drv(const char* name);

// Gives `drv` a fresh SQLite handle and the name `name`.
void sqlite_init_record(dbdriver_t& drv, const char* name);

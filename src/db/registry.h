// Registry of the configured databases.
//
// Contract:
//  - load_dbdrivers()/load_dbdriver() run in the main thread while a
//    configuration is being built; they make, configure, connect and collect
//    one record per database section ("<section>:dbdriver = sqlite").
//  - find_dbdriver() may be called from any thread; it searches the current
//    configuration snapshot and the returned pointer keeps the record alive.
#pragma once

#include <iniparser.h>

#include <vector>

#include "db/driver.h"

// Walks the sections of `dict` and puts a record for every database section in
// front of `drivers`.
void load_dbdrivers(const dictionary* dict, std::vector<dbdriver_ptr>& drivers);

// Makes one record of kind `driver` for `section`; null for an unknown kind.
dbdriver_ptr load_dbdriver(const dictionary* dict, const char* section, const char* driver);

// The newest record named exactly `name` in the current configuration, or null.
dbdriver_ptr find_dbdriver(const char* name);

// The same search in a given list.
dbdriver_ptr find_dbdriver_in(const std::vector<dbdriver_ptr>& drivers, const char* name);

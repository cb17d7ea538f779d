// Checks of a loaded configuration: what can never work as written.
//
// Contract: reads the snapshot it is given and only logs; main thread.
#pragma once

#include "config.h"

// Logs a WARNING for every service string of `cfg` that can never work as
// written: no ":", an unknown placeholder, or a driver no section defines;
// and for a report whose mark is missing.
void warn_service_strings(const config& cfg);

// All the warnings of a loaded configuration: the service strings above and
// unknown keys in [fixes].
void check_configuration(const config& cfg);

// The check of `orlanbeck -t`: reads `path` as the daemon would, without
// starting anything or opening the states file, and writes every warning of
// the load to standard error (in the log's line format); also the templates
// that are never run and the database sections for which no driver can be
// made. Only with `level` 2 (-tt) are the databases connected to, and those
// that cannot be reached reported. Settings against the PMS vendor's advice
// (pms:alive_interval below 300 s) are warned of but are no problem. Then
// one line on standard output: "<path>: usable" or "<path>: N problems".
// Returns the exit status: 0 when nothing was found, 1 otherwise.
int test_configuration(const std::string& path, int level);

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

// The billing thread: every 10 seconds, while the PMS link is active, posts
// the rooms' unbilled calls ("PS"), reports wake-up results ("WA") and room
// status ("RE"), and marks what it sent.
//
// Contract:
//  - service_background() is the thread body; the process owns the thread
//    and stops it through `stop`. It reads the room list once, at its start,
//    and takes a configuration snapshot at the start of every cycle.
//  - Each room's work on a database is done under that driver's lock, from
//    its statement to its marks; the lock is always released when the room's
//    work ends, also on the paths that give up a pass.
//  - The posting sequence belongs to the thread: it survives reconnections
//    of the PMS link.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "config.h"
#include "fias/link.h"
#include "stop_flag.h"

// The posting numbers "P#": 0001 to 9999, then 0000, 0001, ...
struct posting_sequence {
    unsigned last = 0;
    std::string next();
};

// What the billing thread remembers across cycles: the complaints already
// logged for the configuration in force ([fixes] posting logs each once per
// load).
struct billing_memory {
    const config* loaded = nullptr;
    std::set<std::string> reported;
};

// Runs until a pass's driver is missing (which ends billing for good) or a
// stop is requested.
void service_background(const config_loader& configs, pms_link& link, stop_flag& stop);

// One cycle's passes over `rooms` (the cache or query pass, the wake-up pass,
// the room-status pass). Returns false when a pass's driver is missing.
bool billing_cycle(const config& cfg, const std::vector<std::string>& rooms, pms_link& link,
                   posting_sequence& sequence, billing_memory* memory = nullptr);

// The billing thread: every 10 seconds, while the PMS link is active, posts
// the rooms' unbilled calls ("PS"), reports wake-up results ("WA") and room
// status ("RE"), and marks what it sent.
//
// Contract:
//  - service_background() is the thread body; one such thread runs for the
//    life of the process. It reads the room list once, at its start, and
//    takes a configuration snapshot at the start of every cycle.
//  - Each room's work on a database is done under that driver's lock, from
//    its statement to its marks; the lock is always released when the room's
//    work ends, also on the paths that give up a pass.
//  - ps_secno, the posting sequence, is written by this thread only.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "config.h"

extern std::atomic<unsigned> ps_secno;

void service_background();

// The rooms of the internal `rooms` table.
std::vector<std::string> read_room_list();

// One cycle's passes over `rooms` (the cache or query pass, the wake-up pass,
// the room-status pass). Returns false when a pass's driver is missing, which
// ends billing for good.
bool billing_cycle(const config& cfg, const std::vector<std::string>& rooms);

// The mark that the cache pass runs for a posted call.
extern const char* const cache_mark_statement;

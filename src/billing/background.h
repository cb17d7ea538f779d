// The billing thread: every 10 seconds, while the PMS link is active, posts
// the rooms' unbilled calls ("PS"), reports wake-up results ("WA") and room
// status ("RE"), and marks what it sent.
//
// Contract:
//  - service_background() is the thread body; main owns the thread and stops
//    it through `stop`. It reads the room list at its start and, with
//    [fixes] reload, again whenever the states file's list has changed; it
//    takes a configuration snapshot at the start of every cycle.
//  - Each room's work on a database is done under that driver's lock, from
//    its statement to its marks; the lock is always released when the room's
//    work ends, also on the paths that give up a pass.
//  - The posting sequence is the process's (billing_parts::sequence): it
//    survives reconnections of the PMS link; with the outbox main starts it
//    after the last number used.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "billing/night_audit.h"
#include "billing/postings.h"
#include "billing/sender.h"
#include "config.h"
#include "fias/link.h"
#include "ops/notify.h"
#include "states/states.h"
#include "stop_flag.h"

// The process's objects that billing works with; they outlive the thread.
struct billing_parts {
    pms_link& link;
    states_file& states;
    audit_window& audit;
    posting_extensions& extensions;
    notifier& notify;
    // The process's posting numbers (main's); the thread keeps its own
    // when none is given.
    posting_sequence* sequence = nullptr;
    // With [fixes] posting at start: the one writer of the outbox to the
    // PMS; the passes only put records into the outbox.
    posting_sender* sender = nullptr;
    // The billing thread's stop (a pass that waits for posting numbers
    // gives up when it is requested).
    stop_flag* stop = nullptr;
};

// What the billing thread remembers across cycles: the complaints already
// logged for the configuration in force (posting_policy::complains_once).
struct billing_memory {
    const config* loaded = nullptr;
    std::set<std::string> reported;
};

// Runs until a pass's driver is missing (which ends billing for good) or a
// stop is requested.
void service_background(const config_loader& configs, const billing_parts& parts, stop_flag& stop);

// With the outbox: runs the marks still due for what the outbox holds (a
// restart may have come between a record's write and its mark), and, given
// the link, the services:billok statements that failed.
void run_due_marks(const config& cfg, states_file& states, pms_link* link = nullptr);

// [posting] immediate: posts the cached calls of `rooms` now, when the link
// is active and no night audit holds postings (otherwise the next cycle
// does). Every pass over a room's calls runs under the states file's lock
// (with the posting sender, each room claimed from it, and a room that the
// cycle is storing is left to it), so a call is posted once and in
// order also when the cycle runs at the same time. `all_rooms` is what the
// filter's "rooms" stands for. Any thread; with the sender it never writes
// to the PMS.
void post_cached_now(const config& cfg, const std::vector<std::string>& rooms,
                     const std::vector<std::string>& all_rooms, const billing_parts& parts);

// One cycle's passes over `rooms` (the cache or query pass, the wake-up pass,
// the room-status pass). Returns false when a pass's driver is missing.
bool billing_cycle(const config& cfg, const std::vector<std::string>& rooms,
                   const billing_parts& parts, posting_sequence& sequence,
                   billing_memory* memory = nullptr);

// Database resynchronisation with the PMS (pms:resync): after each link
// start-up the daemon sends "DR"; the PMS answers "DS", one "GI" per occupied
// room and "DE". Each announced room is compared with the occupancy
// (states/occupancy.h): the same guest runs no statement, a new guest or
// another name is checked in; at "DE" every occupied room that was not
// announced is checked out (services:checkout) and leaves the occupancy. The
// billed room list is never shortened.
//
// Contract:
//  - One resync at a time per process; any record worker may call the
//    handlers, and the billing thread resync_watch(). The state is kept
//    under one mutex, which is never held while a database is used.
//  - A resync stops without checking anything out when no record of it came
//    for resync_stall_limit() (process.h), when the link it started on is
//    lost, or when the PMS starts the link anew; this is logged.
#pragma once

#include "fias/link.h"
#include "handlers/context.h"

// "LA" from the PMS: asks for a resync when pms:resync is set.
void resync_request(const record_context& ctx);
// "LS" from the PMS: a resync in progress has stopped.
void resync_link_started();
// A "GI" while a resync runs: the room counts as announced. True when its
// guest is the one the occupancy has, so that nothing is to be done; false
// when the check-in is to run (also outside a resync).
bool resync_confirms(const record_context& ctx);
// Ends a resync that went quiet or lost its link (called now and then).
void resync_watch(const pms_link& link);

void do_resync_start(const record_context& ctx);
void do_resync_end(const record_context& ctx);

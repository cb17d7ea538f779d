// Guest events: check-in, check-out and guest change (the states file's
// `rooms` table and occupancy, then the PBX template), room equipment (phone
// barring, do-not-disturb) and wake-up calls.
//
// Contract: each handler runs in the worker of its record, reads the record
// of its context and does not keep it (steps/context.h).
#pragma once

#include "steps/context.h"

void do_checkin(const record_context& ctx);
void do_checkout(const record_context& ctx);
// "GC": a name or language corrected, or, with "RO", a room move
// (services:guest_change, services:room_move; "%oldexten%" is the old room).
void do_guest_change(const record_context& ctx);
void do_room_equip(const record_context& ctx);
void do_wakeup_set(const record_context& ctx);
void do_wakeup_clear(const record_context& ctx);

// Guest events: check-in and check-out (the states file's `rooms` table,
// then the PBX template), room equipment (phone barring, do-not-disturb) and
// wake-up calls.
//
// Contract: each handler runs in the worker of its record, reads the record
// of its context and does not keep it (handlers/context.h).
#pragma once

#include "handlers/context.h"

void do_checkin(const record_context& ctx);
void do_checkout(const record_context& ctx);
void do_room_equip(const record_context& ctx);
void do_wakeup_set(const record_context& ctx);
void do_wakeup_clear(const record_context& ctx);

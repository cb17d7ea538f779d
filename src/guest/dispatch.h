// Handling of the records received from the PMS: one detached worker thread
// per record parses it, answers the link start-up and hands guest events to
// their handlers.
//
// Contract:
//  - process_fias_packet() is a thread body; it owns the record text it is
//    given. Handlers run in that thread, read the packet and do not keep it.
//  - Every handler takes the configuration snapshot once, at its start.
//  - Database work is done under the driver's lock; the internal database's
//    lock is released before a PBX database's lock is taken.
#pragma once

#include <string>

#include "config.h"
#include "fias/packet.h"

// Thread body for one received record text (without STX; a trailing ETX is
// tolerated).
void process_fias_packet(std::string data);

// Runs one service string ("driver:template") with the given fields (each may
// be null; `seq` fills %seqno%). Returns 0 when the statement was run (whatever its result), 1
// when there is nothing to run (no service string), -1 when the driver is not
// found or the string has no statement.
int run_service_template(const opt_text& service, const fias_field_t* rn,
                         const fias_field_t* name, const fias_field_t* lang,
                         const fias_field_t* shared, const fias_field_t* date,
                         const fias_field_t* tim, const fias_field_t* seq = nullptr);

// Shared by the handlers: the "RN" field, logged as "\tRoom number: %s", or
// null with the ERROR "No room number".
fias_field_t* room_field(fias_packet_t* p);
// Logs "\tDate: ..." and "\tTime: ..." for the fields that are present.
void log_date_time(const fias_field_t* da, const fias_field_t* ti);
// The text of a text field, or "".
const char* field_text(const fias_field_t* f);

// Guest events.
void do_checkin(fias_packet_t* p);
void do_checkout(fias_packet_t* p);
void do_room_equip(fias_packet_t* p);
void do_wakeup_set(fias_packet_t* p);
void do_wakeup_clear(fias_packet_t* p);

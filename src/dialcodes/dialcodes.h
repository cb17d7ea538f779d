// Dial codes ([dialcodes]): Manager UserEvents that the hotel's dialplan
// sends when a guest dials a minibar code or the maid a room-status code
// become records for the PMS: a minibar posting ("PS" with PT=M, the article
// in MA, the quantity in M#, the amount in TA) and a room status ("RE" with
// RS and the maid's id in ID). They go through the outbox (billing/outbox.h):
// stored before the wire, sent while the link is active and no night audit
// holds postings, sent again after a lost link or a restart. Their numbers go
// out as they are, whatever [fixes] numbers says.
//
// Contract: attach_dialcodes() hooks the handler on a session before it
// starts, with the configuration snapshot the session was made from; the
// handler runs in the session's reader thread. The parts and the sequence
// are main's and outlive the session.
#pragma once

#include <ctime>
#include <string>
#include <vector>

#include "billing/outbox.h"
#include "billing/postings.h"
#include "config.h"
#include "mgr/manager.h"
#include "mgr/session.h"

// A UserEvent as the dial codes read it.
struct dialcode_event {
    enum kind_t { none, minibar, maid } kind = none;  // none: no dial code's event
    std::string error;                      // not empty: a bad event, dropped (the reason)
    std::string room;                       // the room (of the extension named in Room)
    std::string article, quantity, amount;  // minibar; amount may be empty
    std::string status, maid_id;            // maid; maid_id may be empty
};

// Reads the UserEvent `m` under `cfg`; `rooms` are the rooms that may be
// named (an extension of cfg's [extensions] names its room).
dialcode_event read_dialcode_event(const config& cfg, const std::vector<std::string>& rooms,
                                   const message& m);

// The record text of a good event: the minibar posting numbered `seq`, or
// the room status; dated `now`.
std::string dialcode_record(const dialcode_event& e, const std::string& seq, const struct tm& now);

void attach_dialcodes(mgr_session& session, config_ptr cfg, const outbox_parts& parts,
                      posting_sequence& sequence);

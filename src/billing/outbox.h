// Records for the PMS through the outbox of the states file: each is stored
// there before it goes on the wire, and what could not go out (link down,
// night audit, a write that failed, a restart in between) goes out with the
// next billing cycle on an active link. Posting answers settle postings
// (billing/answer.h).
//
// Contract: any thread may call; the states file and the link are main's and
// outlive every caller.
#pragma once

#include <set>
#include <string>

#include "billing/night_audit.h"
#include "billing/postings.h"
#include "fias/link.h"
#include "states/states.h"

class posting_sender;

struct outbox_parts {
    pms_link& link;
    states_file& states;
    audit_window& audit;
    // With [fixes] posting the sender writes what the outbox holds; the
    // functions below then only store records and wake it.
    posting_sender* sender = nullptr;
};

// Stores `entry` (its kind, room, record text and, for a posting, its "P#"
// filled in) and writes it on the link (or has the sender write it) when it
// may go out now: the link is
// active and no night audit holds postings. A write that fails logs
// `error` (or a line of its own when null). The entry's id, or -1 when it
// could not be stored (logged; nothing is sent).
long deliver(const outbox_parts& parts, states_file::outbox_entry& entry,
             const char* error = nullptr);

// The next posting number ("P#") under which no posting of the outbox waits
// (for its answer or to be sent), nor one of `taken`: numbers coming round
// after 9999 skip those. Empty when every number waits.
std::string next_free_number(posting_sequence& sequence, states_file& states,
                             const std::set<std::string>& taken = {});

// Writes `entry`, stored in the outbox already (its id set), on the link
// when it may go out now, as deliver() does after storing it.
void send_stored(const outbox_parts& parts, const states_file::outbox_entry& entry,
                 const char* error = nullptr);

// Writes what the outbox holds for the current link, in order: what was
// never written whole, and unanswered postings once more with their own
// "P#" (logged). Stops at the first write that fails. Nothing on a link that
// is not active or while a night audit holds postings.
void send_outbox(const outbox_parts& parts);

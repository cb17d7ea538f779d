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

// Which posting numbers wait, read from the outbox for the next numbers at a
// time: one look for up to `span` numbers instead of one for each. What it
// read holds while the sequence hands out fewer than `span` numbers: a
// number comes to wait only once handed out, and is handed out again only
// after the sequence's whole round. A number answered since is skipped for
// this round. One pass uses it; forget() after waiting for answers.
class waiting_numbers {
  public:
    static constexpr int span = 256;
    // Whether `number` (just handed out by `sequence`) waits.
    bool waiting(const std::string& number, const posting_sequence& sequence, states_file& states);
    void forget() { low_ = high_ = -1; }

  private:
    int low_ = -1, high_ = -1;  // the numbers read
    unsigned long issued_ = 0;  // the sequence's count when read
    std::set<std::string> waiting_;
};

// The next posting number ("P#") under which no posting of the outbox waits
// (for its answer or to be sent), nor one of `taken`: numbers coming round
// after 9999 skip those. Empty when every number waits. With `known` the
// outbox is looked at through it.
std::string next_free_number(posting_sequence& sequence, states_file& states,
                             const std::set<std::string>& taken = {},
                             waiting_numbers* known = nullptr);

// Writes `entry`, stored in the outbox already (its id set), on the link
// when it may go out now, as deliver() does after storing it.
void send_stored(const outbox_parts& parts, const states_file::outbox_entry& entry,
                 const char* error = nullptr);

// Writes what the outbox holds for the current link, in order: what was
// never written whole, and unanswered postings once more with their own
// "P#" (logged). Stops at the first write that fails. Nothing on a link that
// is not active or while a night audit holds postings.
void send_outbox(const outbox_parts& parts);

// Posting answers: the PMS's "PA" record for a posted call.
//
// Contract: do_pa() runs in the record's worker; it reads the record of its
// context and does not keep it. An accepted answer removes (or marks) the
// cached call in the states file when the Manager is in use, and otherwise
// runs the operator's services:billok statement. Nothing is sent back.
// With the outbox, the answer settles its posting there first, in one step:
// an answer for a posting that does not wait (answered already, or never
// sent) acts on nothing, and a services:billok that fails stays due in the
// outbox (run_due_billok()).
#pragma once

#include "billing/postings.h"
#include "steps/context.h"

class posting_sender;

// `sender`, when the posting sender runs, is told of each settled answer.
void do_pa(const record_context& ctx, posting_extensions& extensions,
           posting_sender* sender = nullptr);

// Runs services:billok again for an outbox entry whose answer left it due
// (`e.answer` is that answer's record text); the entry is settled when it
// ran. The context names the states file, link and configuration to use.
void run_due_billok(const config_ptr& cfg, pms_link& link, states_file& states,
                    const outbox_entry& e);

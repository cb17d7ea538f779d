// Posting answers: the PMS's "PA" record for a posted call.
//
// Contract: do_pa() runs in the record's worker; it reads the record of its
// context and does not keep it. An accepted answer removes (or marks) the
// cached call in the states file when the Manager is in use, and otherwise
// runs the operator's services:billok statement. Nothing is sent back.
#pragma once

#include "billing/postings.h"
#include "steps/context.h"

void do_pa(const record_context& ctx, posting_extensions& extensions);

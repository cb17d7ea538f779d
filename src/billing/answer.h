// Posting answers: the PMS's "PA" record for a posted call.
//
// Contract: do_pa() runs in the record's worker thread; it reads the packet
// and does not keep it. An accepted answer removes (or marks) the cached call
// in the internal database when the manager is in use, and otherwise runs the
// operator's services:billok statement. Nothing is sent back to the PMS.
#pragma once

#include "fias/packet.h"

void do_pa(fias_packet_t* p);

// The statements run on the internal database for an accepted answer.
extern const char* const pa_remove_statement;
extern const char* const pa_mark_statement;

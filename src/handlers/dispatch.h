// Handling of the records received from the PMS: one worker per record
// parses it and hands it to the handler of its type, found in one table.
//
// Contract:
//  - process_fias_packet() is a thread body; it owns the record text it is
//    given. It takes the configuration snapshot once, for the whole record.
//  - `configs` and `link` outlive every worker (they live as long as the
//    process); workers are never waited for.
#pragma once

#include <string>

#include "config.h"
#include "fias/link.h"

// Thread body for one received record text (without STX; a trailing ETX is
// tolerated).
void process_fias_packet(const config_loader& configs, pms_link& link, std::string data);

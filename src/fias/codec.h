// FIAS record text: parsing a received record and writing one for sending.
//
// Contract: pure functions of their arguments; safe from any thread.
//  - Record text is "TT|" followed by fields "IDvalue|"; no frame bytes
//    (a trailing ETX after the last "|" is tolerated by the parser).
#pragma once

#include <string>

#include "fias/packet.h"

// Parses one record text. Null for a null line, an unknown record type, or a
// field value that is not closed by "|".
fias_packet_ptr fias_parse_packet(const char* line, int packetlen);

// The record text of `p` (without frame). Fields go out in slot order; slots
// without value, and text slots without text, are left out.
std::string fias_packet_to_str(const fias_packet_t* p);

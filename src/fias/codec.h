// FIAS record text: parsing a received record and writing one for sending.
//
// Contract: pure functions of their arguments; safe from any thread.
//  - Record text is "TT|" followed by fields "IDvalue|"; no frame bytes
//    (a trailing ETX after the last "|" is tolerated by the parser).
#pragma once

#include <string>

#include "fias/packet.h"

// How numbers, dates and times are read and written. By default a number
// goes out as its count of decimal digits, and each two-digit pair of a date
// or time is read with automatic base (a leading zero is octal: "08" is 0).
struct fias_codec_options {
    bool numbers = false;  // numbers go out as their value; pairs are read in base 10
    // The fields of these features are read; the slots of the others are
    // unused, as if the catalogue did not have them.
    fias_field_set optional_fields = 0;
};

// Parses one record text. Null for a null line, an unknown record type, or a
// field value that is not closed by "|".
fias_packet_ptr fias_parse_packet(const char* line, int packetlen,
                                  const fias_codec_options& opts = {});

// The record text of `p` (without frame). Fields go out in slot order; slots
// without value, and text slots without text, are left out.
std::string fias_packet_to_str(const fias_packet_t* p, const fias_codec_options& opts = {});

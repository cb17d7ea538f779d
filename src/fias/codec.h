// FIAS record text: parsing a received record and writing one for sending.
//
// Contract: pure functions of their arguments; safe from any thread.
//  - Record text is "TT|" followed by fields "IDvalue|"; no frame bytes
//    (a trailing ETX after the last "|" is tolerated by the parser).
//  - Every value written is checked here, whatever its source and record
//    type: no written field holds a "|" or a control byte (0x00-0x1F, 0x7F).
//    Text fields get a space for each; a number field (FIAS_TYPE_DIGITS, and a
//    date or time given as text) that is not a number is left out, with an
//    ERROR; dialled digits lose those bytes (and see `numbers`), and are left
//    out when nothing is left.
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
    // With `numbers`, dialled digits are digits only, at most 20: a leading
    // "+" becomes this prefix, other characters are dropped.
    std::string plus_prefix = "00";
};

// What checking a packet's values changed that its sender may report.
struct fias_value_notes {
    bool dialled_dropped = false;  // characters were dropped from "DD"
};

// Parses one record text. Null for a null line, an unknown record type, or a
// field value that is not closed by "|".
fias_packet_ptr fias_parse_packet(const char* line, int packetlen,
                                  const fias_codec_options& opts = {});

// Gives every value of `p` the form it is written in (see above), in place:
// a packet checked once writes the same text every time, and logs nothing
// more. The sender of a posting calls it to report, with the call's own
// names, what was dropped.
fias_value_notes fias_check_values(fias_packet_t* p, const fias_codec_options& opts = {});

// Dialled digits `text` as "DD" carries them (see above); empty when the
// field would be left out.
std::string fias_dialled(const std::string& text, const fias_codec_options& opts = {});

// The record text of `p` (without frame). Fields go out in slot order, in
// their checked form; slots without value, and text slots without text, are
// left out. A date or time slot whose value has text goes out as that text.
std::string fias_packet_to_str(const fias_packet_t* p, const fias_codec_options& opts = {});

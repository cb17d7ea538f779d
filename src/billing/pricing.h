// Calls priced from the tariff file of [rating]: which line prices a call,
// what it costs, and what the posting then carries.
//
// Contract: pure functions of their arguments (the configuration snapshot
// holds the table); safe from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "config.h"

// What the tariff makes of one call.
struct call_price {
    enum outcome_t {
        not_rated,  // no [rating], or the call carries its own cost
        priced,     // a line prices it
        unrated,    // no line prices it (or no table is loaded)
    } outcome = not_rated;
    std::string line;         // "<file>:<n>" of the line used
    std::string prefix;       // its prefix
    std::string description;  // its description, as the file has it
    char call_type = 0;       // "PC"
    int64_t billed = 0;       // seconds
    int64_t amount = 0;       // minor units ("TA")
};

// What a dialled number is matched with: the number as "DD" carries it,
// after the codec's checks (with fixes:numbers digits only, "+" made
// pms:plus_prefix).
std::string dialled_digits(const config& cfg, std::string_view number);

// The call's start date as YYYYMMDD, from its date text in `format` (local
// time); today's date when the text cannot be read.
int32_t call_start_date(const char* date, const char* format);

// The price of a call to `number` of `billable` seconds that started on
// `date` (YYYYMMDD), by the table of `cfg`. not_rated without rating:tariffs.
call_price price_call(const config& cfg, std::string_view number, int64_t billable, int32_t date);

// The "CT" of a priced call: the description cut to 20 characters, in
// pms:encoding when that is set ("?" for what it cannot write).
std::string clear_text(const config& cfg, std::string_view description);

// The amount as the currency writes it: "0.29" for 29 with 2 decimals.
std::string amount_text(int64_t minor, int decimals);

// The price of one call from the terms of a tariff line: exact integer
// arithmetic, rounded once, half up, at the end.
//
// Contract: pure functions; safe from any thread.
//  - Money is kept in micro-units (millionths of the currency unit), the
//    markup in hundredths of a percent; no binary floating point anywhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// What a tariff line says about the price of a call.
struct price_terms {
    int64_t rate_micro = 0;     // per minute
    uint32_t first = 60;        // the first increment, seconds (at least 1)
    uint32_t next = 60;         // every further increment, seconds (at least 1)
    int64_t connect_micro = 0;  // per answered call
    uint32_t free = 0;          // a call of this many billable seconds or fewer costs nothing
};

// How the hotel turns a price into an amount.
struct price_rule {
    int decimals = 2;           // the currency's minor units: the amount is price x 10^decimals
    int markup_hundredths = 0;  // percent x 100
};

// The seconds billed for `billable` seconds: 0 for a free call, else at
// least `first`, with the part beyond `first` a whole number of `next`.
int64_t billed_seconds(const price_terms& t, int64_t billable);

// The amount in minor units of a call of `billable` seconds (0 for a free
// call):
//   round_half_up((connect*60 + rate*billed) * (100 + markup) * 10^decimals / (60*100))
int64_t price_minor(const price_terms& t, const price_rule& r, int64_t billable);

// Reads a non-negative decimal "12", "0.5", "1.000001" with at most
// `max_decimals` decimals, scaled by 10^max_decimals ("0.12" with 6 gives
// 120000). Nothing for anything else, or above `max_scaled`.
std::optional<int64_t> parse_scaled(std::string_view text, int max_decimals, int64_t max_scaled);

// When a wake-up booking rings: the date and time of a "WR" read as the
// hotel's local time (the process's time zone).
//
// Contract: pure functions of their arguments and the time zone; any thread.
#pragma once

#include <ctime>
#include <optional>
#include <string>

// A local date and time (month 1-12).
struct local_stamp {
    int year = 0, month = 0, day = 0, hour = 0, min = 0, sec = 0;
};

// The moment a local time names: its first occurrence when the clock shows
// it twice (the fall-back hour), the first second after the gap when it never
// shows it (the spring-forward hour).
time_t local_moment(const local_stamp& t);

// The booked moment of a "WR": `date` "YYMMDD" and `time` "HHMM" or "HHMMSS",
// every pair read in base 10. Without a date, the next time the clock shows
// `time` after `now`. Nothing when a value is not a date or a time.
std::optional<time_t> wakeup_moment(const std::string& date, const std::string& time, time_t now);

// `time` ("HHMM" or "HHMMSS") as "HHMMSS", or "" when it is no time.
std::string wakeup_time_key(const std::string& time);

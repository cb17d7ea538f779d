#include "wakeup/schedule.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <tuple>

namespace {

// `n` two-digit pairs of `text`, in base 10; false when it is not that.
bool read_pairs(const std::string& text, int n, int* out) {
    if (text.size() != static_cast<size_t>(2 * n)) return false;
    for (char c : text)
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    for (int i = 0; i < n; i++) out[i] = (text[2 * i] - '0') * 10 + (text[2 * i + 1] - '0');
    return true;
}

local_stamp local_of(time_t t) {
    struct tm tm {};
    localtime_r(&t, &tm);
    return {tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
}

auto key(const local_stamp& s) {
    return std::make_tuple(s.year, s.month, s.day, s.hour, s.min, s.sec);
}

long utc_offset(time_t t) {
    struct tm tm {};
    localtime_r(&t, &tm);
    return tm.tm_gmtoff;
}

}  // namespace

time_t local_moment(const local_stamp& t) {
    struct tm tm {};
    tm.tm_year = t.year - 1900;
    tm.tm_mon = t.month - 1;
    tm.tm_mday = t.day;
    tm.tm_hour = t.hour;
    tm.tm_min = t.min;
    tm.tm_sec = t.sec;
    const time_t as_utc = timegm(&tm);
    // The zone's offsets around that day; the earliest of the moments that
    // show exactly this time is its first occurrence.
    const long offsets[] = {utc_offset(as_utc - 86400), utc_offset(as_utc),
                            utc_offset(as_utc + 86400)};
    std::optional<time_t> best;
    long low = offsets[0], high = offsets[0];
    for (long off : offsets) {
        low = std::min(low, off);
        high = std::max(high, off);
        const time_t candidate = as_utc - off;
        if (key(local_of(candidate)) == key(t) && (!best || candidate < *best)) best = candidate;
    }
    if (best) return *best;
    // In a gap: the first moment whose clock is past the time, between the
    // two offsets (where the clock only moves forward).
    time_t lo = as_utc - high, hi = as_utc - low;
    while (lo < hi) {
        const time_t mid = lo + (hi - lo) / 2;
        if (key(local_of(mid)) >= key(t))
            hi = mid;
        else
            lo = mid + 1;
    }
    return lo;
}

std::string wakeup_time_key(const std::string& time) {
    int hms[3] = {0, 0, 0};
    if (!read_pairs(time, 3, hms) && !read_pairs(time, 2, hms)) return "";
    if (hms[0] > 23 || hms[1] > 59 || hms[2] > 59) return "";
    char buf[40];
    snprintf(buf, sizeof buf, "%02d%02d%02d", hms[0], hms[1], hms[2]);
    return buf;
}

std::optional<time_t> wakeup_moment(const std::string& date, const std::string& time, time_t now) {
    const std::string hms = wakeup_time_key(time);
    if (hms.empty()) return std::nullopt;
    int parts[3];
    read_pairs(hms, 3, parts);
    local_stamp t;
    t.hour = parts[0];
    t.min = parts[1];
    t.sec = parts[2];
    if (!date.empty()) {
        int ymd[3];
        if (!read_pairs(date, 3, ymd) || ymd[1] < 1 || ymd[1] > 12 || ymd[2] < 1 || ymd[2] > 31)
            return std::nullopt;
        t.year = 2000 + ymd[0];
        t.month = ymd[1];
        t.day = ymd[2];
        return local_moment(t);
    }
    // Today's, or else tomorrow's.
    for (int days = 0; days < 2; days++) {
        const local_stamp today = local_of(now + days * 86400L);
        t.year = today.year;
        t.month = today.month;
        t.day = today.day;
        const time_t at = local_moment(t);
        if (at > now) return at;
    }
    const local_stamp later = local_of(now + 2 * 86400L);
    t.year = later.year;
    t.month = later.month;
    t.day = later.day;
    return local_moment(t);
}

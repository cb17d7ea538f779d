// The ratings of the states file: how each priced call was priced, kept for
// rating:keep_days on the connection that no operation closes. Every value
// reaches its statement as a bound parameter.
#include <ctime>
#include <string>

#include "db/sqlite.h"
#include "states/states.h"

namespace {

const char* const create_ratings =
    "create table if not exists ratings (room text not null, seq text not null, date text not "
    "null, time text not null, number text, line text, prefix text, billed integer, amount "
    "integer, stored integer, primary key (room, seq, date, time))";
const char* const index_ratings = "create index if not exists ratings_stored on ratings (stored)";
const char* const put_rating =
    "replace into ratings (room, seq, date, time, number, line, prefix, billed, amount, stored) "
    "values (?, ?, ?, ?, ?, ?, ?, cast(? as integer), cast(? as integer), cast(? as integer))";
const char* const prune_ratings = "delete from ratings where stored < cast(? as integer)";
const char* const all_ratings =
    "select room, seq, date, time, number, line, prefix, billed, amount from ratings order by "
    "stored, rowid";

}  // namespace

bool states_file::open_ratings() {
    if (!connect_own()) return false;
    if (!ratings_checked_)
        ratings_checked_ =
            occupancy_.query(create_ratings) == 0 && occupancy_.query(index_ratings) == 0;
    return ratings_checked_;
}

int states_file::rating_put(const rating_record& r) {
    db_lock guard(occupancy_);
    if (!open_ratings()) return -1;
    const std::string billed = std::to_string(r.billed);
    const std::string amount = std::to_string(r.amount);
    const std::string stored = std::to_string(static_cast<long long>(time(nullptr)));
    const int rc = sqlite_query_bound(
        occupancy_, put_rating,
        {r.room, r.seq, r.date, r.time, r.number, r.line, r.prefix, billed, amount, stored});
    occupancy_.free_result();
    return rc == 0 ? 0 : -1;
}

int states_file::ratings_prune(int keep_days) {
    db_lock guard(occupancy_);
    if (!open_ratings()) return -1;
    const std::string before =
        std::to_string(static_cast<long long>(time(nullptr)) - 86400LL * keep_days);
    const int rc = sqlite_query_bound(occupancy_, prune_ratings, {before});
    occupancy_.free_result();
    return rc == 0 ? 0 : -1;
}

int states_file::ratings(std::vector<rating_record>& out) {
    db_lock guard(occupancy_);
    if (!open_ratings() || sqlite_query_bound(occupancy_, all_ratings, {}) != 0) {
        occupancy_.free_result();
        return -1;
    }
    while (occupancy_.fetch_row() == 0) {
        rating_record r;
        std::string* texts[] = {&r.room, &r.seq, &r.date, &r.time, &r.number, &r.line, &r.prefix};
        for (int i = 0; i < 7; i++) {
            char text[512] = "";
            occupancy_.fetch_char_field(i, text, sizeof text - 1);
            *texts[i] = text;
        }
        int n = 0;
        occupancy_.fetch_int_field(7, &n);
        r.billed = n;
        occupancy_.fetch_int_field(8, &n);
        r.amount = n;
        out.push_back(std::move(r));
    }
    occupancy_.free_result();
    return 0;
}

#include "states/ratings.h"

#include <cstdlib>
#include <ctime>

#include "db/sqlite.h"

namespace {

const char* const create_ratings =
    "create table if not exists ratings (room text not null, seq text not null, date text not "
    "null, time text not null, number text, line text, prefix text, billed integer, amount "
    "integer, stored integer, primary key (room, seq, date, time))";
const char* const index_ratings = "create index if not exists ratings_stored on ratings (stored)";

}  // namespace

bool rating_store::open() {
    return own_.connect() && own_.make_tables(checked_, {create_ratings, index_ratings});
}

int rating_store::put(const rating_record& r) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    const long long stored = time(nullptr);
    const int rc = sqlite_query_bound(
        own_.drv,
        "replace into ratings (room, seq, date, time, number, line, prefix, billed, amount, "
        "stored) values (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
        {r.room, r.seq, r.date, r.time, r.number, r.line, r.prefix, r.billed, r.amount, stored});
    own_.drv.free_result();
    return rc == 0 ? 0 : -1;
}

int rating_store::prune(int keep_days) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    const long long before = static_cast<long long>(time(nullptr)) - 86400LL * keep_days;
    const int rc = sqlite_query_bound(own_.drv, "delete from ratings where stored < ?", {before});
    own_.drv.free_result();
    return rc == 0 ? 0 : -1;
}

int rating_store::all(std::vector<rating_record>& out) {
    db_lock guard(own_.drv);
    if (!open() || sqlite_query_bound(own_.drv,
                                      "select room, seq, date, time, number, line, prefix, "
                                      "billed, amount from ratings order by stored, rowid",
                                      {}) != 0) {
        own_.drv.free_result();
        return -1;
    }
    while (own_.drv.fetch_row() == 0) {
        rating_record r;
        std::string* texts[] = {&r.room, &r.seq, &r.date, &r.time, &r.number, &r.line, &r.prefix};
        for (int i = 0; i < 7; i++) own_.drv.fetch_text_field(i, *texts[i]);
        std::string n;
        own_.drv.fetch_text_field(7, n);
        r.billed = atoll(n.c_str());
        own_.drv.fetch_text_field(8, n);
        r.amount = atoll(n.c_str());
        out.push_back(std::move(r));
    }
    own_.drv.free_result();
    return 0;
}

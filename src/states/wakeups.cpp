// Wake-up bookings in the states file, on the connection that no operation
// closes. The table is made when first used.
#include <cstdlib>

#include "db/sqlite.h"
#include "logger.h"
#include "states/literal.h"
#include "states/states.h"

namespace {

const char* const create_wakeups =
    "create table if not exists wakeups (id integer primary key autoincrement, room text, date "
    "text, time text, due integer, next integer, attempt integer, state integer, last integer, "
    "all_failed integer, answered integer)";

std::string values_of(const states_file::wakeup_booking& b) {
    return quoted(b.room) + "," + quoted(b.date) + "," + quoted(b.time) + "," +
           std::to_string(b.due) + "," + std::to_string(b.next) + "," + std::to_string(b.attempt) +
           "," + std::to_string(b.state) + "," + std::to_string(b.last) + "," +
           (b.all_failed ? "1" : "0") + "," + std::to_string(b.answered);
}

}  // namespace

bool states_file::open_wakeups() {
    if (!connect_own()) return false;
    if (!wakeups_checked_) wakeups_checked_ = occupancy_.query(create_wakeups) == 0;
    return wakeups_checked_;
}

int states_file::wakeup_save(std::vector<wakeup_booking*>& bookings) {
    if (bookings.empty()) return 0;
    db_lock guard(occupancy_);
    if (!open_wakeups() || sqlite_begin(occupancy_) != 0) return -1;
    for (wakeup_booking* b : bookings) {
        const std::string columns =
            "(room, date, time, due, next, attempt, state, last, all_failed, answered)";
        std::string sql =
            b->id > 0 ? "replace into wakeups (id, " + columns.substr(1) + " values (" +
                            std::to_string(b->id) + "," + values_of(*b) + ")"
                      : "insert into wakeups " + columns + " values (" + values_of(*b) + ")";
        if (occupancy_.query(sql.c_str()) != 0) {
            occupancy_.query("rollback");
            return -1;
        }
        if (b->id <= 0) b->id = sqlite_count(occupancy_, "select last_insert_rowid()");
    }
    return sqlite_commit(occupancy_) == 0 ? 0 : -1;
}

int states_file::wakeup_remove(long id) {
    db_lock guard(occupancy_);
    if (!open_wakeups()) return -1;
    return occupancy_.query(("delete from wakeups where id=" + std::to_string(id)).c_str()) == 0
               ? 0
               : -1;
}

int states_file::wakeup_bookings(std::vector<wakeup_booking>& out) {
    db_lock guard(occupancy_);
    if (!open_wakeups() ||
        occupancy_.query("select id, room, date, time, due, next, attempt, state, last, "
                         "all_failed, answered from wakeups order by id") != 0) {
        occupancy_.free_result();
        return -1;
    }
    while (occupancy_.fetch_row() == 0) {
        char text[11][256] = {};
        for (int i = 0; i < 11; i++) occupancy_.fetch_char_field(i, text[i], sizeof text[i] - 1);
        wakeup_booking b;
        b.id = atol(text[0]);
        b.room = text[1];
        b.date = text[2];
        b.time = text[3];
        b.due = atol(text[4]);
        b.next = atol(text[5]);
        b.attempt = atoi(text[6]);
        b.state = atoi(text[7]);
        b.last = atoi(text[8]);
        b.all_failed = atoi(text[9]) != 0;
        b.answered = atol(text[10]);
        out.push_back(std::move(b));
    }
    occupancy_.free_result();
    return 0;
}

long states_file::wakeup_finish(long id, const outbox_entry& wa) {
    db_lock guard(occupancy_);
    if (!open_wakeups() || !open_outbox() || sqlite_begin(occupancy_) != 0) return -1;
    const std::string number = std::to_string(id);
    const bool ok =
        sqlite_query_bound(occupancy_, "delete from wakeups where id=?", {number}) == 0 &&
        sqlite_query_bound(occupancy_,
                           "insert into outbox (kind, seq, room, extension, number, date, time, "
                           "record, mark, mark_key) values (?,?,?,?,?,?,?,?,?,?)",
                           {wa.kind, wa.seq, wa.room, wa.extension, wa.number, wa.date, wa.time,
                            wa.record, wa.mark, wa.mark_key}) == 0;
    const long entry = ok ? sqlite_count(occupancy_, "select last_insert_rowid()") : -1;
    if (entry <= 0) {
        occupancy_.query("rollback");
        return -1;
    }
    return sqlite_commit(occupancy_) == 0 ? entry : -1;
}

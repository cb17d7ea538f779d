#include "states/wakeups.h"

#include <cstdlib>

#include "db/sqlite.h"

namespace {

const char* const create_wakeups =
    "create table if not exists wakeups (id integer primary key autoincrement, room text, date "
    "text, time text, due integer, next integer, attempt integer, state integer, last integer, "
    "all_failed integer, answered integer)";
const char* const replace_statement =
    "replace into wakeups (id, room, date, time, due, next, attempt, state, last, all_failed, "
    "answered) values (?,?,?,?,?,?,?,?,?,?,?)";
const char* const insert_statement =
    "insert into wakeups (room, date, time, due, next, attempt, state, last, all_failed, "
    "answered) values (?,?,?,?,?,?,?,?,?,?)";

}  // namespace

bool wakeup_store::open() {
    if (!own_.connect()) return false;
    return own_.make_tables(checked_, {create_wakeups});
}

int wakeup_store::save(std::vector<wakeup_booking*>& bookings) {
    if (bookings.empty()) return 0;
    db_lock guard(own_.drv);
    if (!open() || sqlite_begin(own_.drv, true) != 0) return -1;
    if (save_locked(bookings) != 0) {
        own_.drv.query("rollback");
        return -1;
    }
    return sqlite_commit(own_.drv) == 0 ? 0 : -1;
}

int wakeup_store::save(states_transaction& tx, std::vector<wakeup_booking*>& bookings) {
    tx.holds(own_);
    if (!tx.ok() || !open()) return -1;
    return save_locked(bookings);
}

int wakeup_store::save_locked(std::vector<wakeup_booking*>& bookings) {
    for (wakeup_booking* b : bookings) {
        const long long failed = b->all_failed ? 1 : 0;
        const int rc =
            b->id > 0 ? sqlite_query_bound(own_.drv, replace_statement,
                                           {b->id, b->room, b->date, b->time, b->due, b->next,
                                            b->attempt, b->state, b->last, failed, b->answered})
                      : sqlite_query_bound(own_.drv, insert_statement,
                                           {b->room, b->date, b->time, b->due, b->next, b->attempt,
                                            b->state, b->last, failed, b->answered});
        if (rc != 0) return -1;
        if (b->id <= 0)
            b->id =
                static_cast<long>(sqlite_count_bound(own_.drv, "select last_insert_rowid()", {}));
    }
    return 0;
}

int wakeup_store::remove(long id) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return sqlite_query_bound(own_.drv, "delete from wakeups where id=?", {id}) == 0 ? 0 : -1;
}

int wakeup_store::remove(states_transaction& tx, long id) {
    tx.holds(own_);
    if (!tx.ok() || !open()) return -1;
    return sqlite_query_bound(own_.drv, "delete from wakeups where id=?", {id}) == 0 ? 0 : -1;
}

int wakeup_store::all(std::vector<wakeup_booking>& out) {
    db_lock guard(own_.drv);
    if (!open() || sqlite_query_bound(own_.drv,
                                      "select id, room, date, time, due, next, attempt, state, "
                                      "last, all_failed, answered from wakeups order by id",
                                      {}) != 0) {
        own_.drv.free_result();
        return -1;
    }
    while (own_.drv.fetch_row() == 0) {
        std::string text[11];
        for (int i = 0; i < 11; i++) own_.drv.fetch_text_field(i, text[i]);
        wakeup_booking b;
        b.id = atol(text[0].c_str());
        b.room = std::move(text[1]);
        b.date = std::move(text[2]);
        b.time = std::move(text[3]);
        b.due = atol(text[4].c_str());
        b.next = atol(text[5].c_str());
        b.attempt = atoi(text[6].c_str());
        b.state = atoi(text[7].c_str());
        b.last = atoi(text[8].c_str());
        b.all_failed = atoi(text[9].c_str()) != 0;
        b.answered = atol(text[10].c_str());
        out.push_back(std::move(b));
    }
    own_.drv.free_result();
    return 0;
}

#include "states/actions.h"

#include <cstdlib>

#include "db/sqlite.h"
#include "logger.h"

namespace {

const char* const create_statement =
    "create table if not exists actions (id integer primary key autoincrement, room text, "
    "name text, body text, sent integer default 0)";

}  // namespace

bool action_queue::open() {
    if (!own_.connect()) return false;
    return own_.make_tables(checked_, {create_statement});
}

long action_queue::queue(const std::string& room, const std::string& name,
                         const std::string& body) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    if (sqlite_query_bound(own_.drv, "insert into actions (room, name, body) values (?,?,?)",
                           {room, name, body}) != 0)
        return -1;
    const long long id = sqlite_count_bound(own_.drv, "select last_insert_rowid()", {});
    if (sqlite_count_bound(own_.drv, "select count(*) from actions", {}) > max_queued) {
        LOG(L_ERROR, "More than %d Manager actions waiting: the oldest is dropped", max_queued);
        sqlite_query_bound(own_.drv, "delete from actions where id = (select min(id) from actions)",
                           {});
    }
    return static_cast<long>(id);
}

int action_queue::sent(long id) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return sqlite_query_bound(own_.drv, "update actions set sent = sent + 1 where id = ?", {id}) ==
                   0
               ? 0
               : -1;
}

int action_queue::done(long id) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return sqlite_query_bound(own_.drv, "delete from actions where id = ?", {id}) == 0 ? 0 : -1;
}

int action_queue::all(std::vector<action>& out) {
    db_lock guard(own_.drv);
    if (!open() ||
        sqlite_query_bound(own_.drv, "select id, room, name, body, sent from actions order by id",
                           {}) != 0) {
        own_.drv.free_result();
        return -1;
    }
    while (own_.drv.fetch_row() == 0) {
        action a;
        std::string id;
        own_.drv.fetch_text_field(0, id);
        a.id = atol(id.c_str());
        own_.drv.fetch_text_field(1, a.room);
        own_.drv.fetch_text_field(2, a.name);
        own_.drv.fetch_text_field(3, a.body);
        own_.drv.fetch_int_field(4, &a.sent);
        out.push_back(std::move(a));
    }
    own_.drv.free_result();
    return 0;
}

int action_queue::count() {
    db_lock guard(own_.drv);
    if (!own_.connect()) return -1;
    return static_cast<int>(sqlite_count_bound(own_.drv, "select count(*) from actions", {}));
}

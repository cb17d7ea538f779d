#include "states/occupancy.h"

#include <ctime>

#include "db/sqlite.h"

namespace {

const char* const create_statement =
    "create table if not exists occupancy (room varchar(8), name text, lang text, since "
    "datetime, primary key(room))";

std::string now_text() {
    const time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    char buf[32] = "";
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
    return buf;
}

}  // namespace

bool occupancy_store::open() {
    if (!own_.connect()) return false;
    return own_.make_tables(checked_, {create_statement});
}

// The rows of `statement` (room, name, lang, since), `room` bound when given.
int occupancy_store::read(const char* statement, const std::string* room,
                          std::vector<occupant>& out) {
    db_lock guard(own_.drv);
    const int rc = !open() ? -1
                   : room  ? sqlite_query_bound(own_.drv, statement, {*room})
                           : sqlite_query_bound(own_.drv, statement, {});
    if (rc != 0) {
        own_.drv.free_result();
        return -1;
    }
    while (own_.drv.fetch_row() == 0) {
        occupant o;
        std::string* columns[] = {&o.room, &o.name, &o.lang, &o.since};
        for (int i = 0; i < 4; i++) own_.drv.fetch_text_field(i, *columns[i]);
        out.push_back(std::move(o));
    }
    own_.drv.free_result();
    return 0;
}

std::optional<occupant> occupancy_store::find(const std::string& room) {
    std::vector<occupant> rows;
    read("select room, name, lang, since from occupancy where room=?", &room, rows);
    if (rows.empty()) return std::nullopt;
    return rows.front();
}

int occupancy_store::all(std::vector<occupant>& out) {
    return read("select room, name, lang, since from occupancy order by room", nullptr, out);
}

int occupancy_store::put(occupant o) {
    if (o.since.empty()) o.since = now_text();
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return sqlite_query_bound(own_.drv, "replace into occupancy values (?,?,?,?)",
                              {o.room, o.name, o.lang, o.since}) == 0
               ? 0
               : -1;
}

int occupancy_store::remove(const std::string& room) {
    db_lock guard(own_.drv);
    if (!open()) return -1;
    return sqlite_query_bound(own_.drv, "delete from occupancy where room=?", {room}) == 0 ? 0 : -1;
}

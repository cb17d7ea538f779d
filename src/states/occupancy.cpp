#include "states/occupancy.h"

#include <ctime>
#include <memory>

#include "db/sqlite.h"

namespace {

// Never destroyed, like the states file's own record.
lasting_sqlite_record occupancy_record("sqlite-occupancy");
dbdriver_t& occupancy_db = occupancy_record.get();

bool table_checked GUARDED_BY(occupancy_db) = false;

const char* const create_statement =
    "create table if not exists occupancy (room varchar(8), name text, lang text, since "
    "datetime, primary key(room))";

// Opens the states file (once) and makes sure the table is there.
bool open_table(const std::string& statesfile) REQUIRES(occupancy_db) {
    if (occupancy_db.connect(nullptr, 0, nullptr, nullptr, statesfile.c_str()) != 0) return false;
    if (!table_checked) table_checked = occupancy_db.query(create_statement) == 0;
    return table_checked;
}

std::string quoted(std::string_view text) {
    std::string out = "'";
    out.append(occupancy_db.dbhandle->escape(text)).append("'");
    return out;
}

std::string now_text() {
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    char buf[32] = "";
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
    return buf;
}

// The rows of `statement` (room, name, lang, since).
int read_rows(const std::string& statesfile, const std::string& statement,
              std::vector<occupant>& out) {
    db_lock guard(occupancy_db);
    if (!open_table(statesfile) || occupancy_db.query(statement.c_str()) != 0) {
        occupancy_db.free_result();
        return -1;
    }
    while (occupancy_db.fetch_row() == 0) {
        occupant o;
        std::string* columns[] = {&o.room, &o.name, &o.lang, &o.since};
        for (int i = 0; i < 4; i++) {
            char text[256] = "";
            occupancy_db.fetch_char_field(i, text, sizeof text - 1);
            *columns[i] = text;
        }
        out.push_back(std::move(o));
    }
    occupancy_db.free_result();
    return 0;
}

int run(const std::string& statesfile, const std::string& statement) {
    db_lock guard(occupancy_db);
    if (!open_table(statesfile)) return -1;
    return occupancy_db.query(statement.c_str()) == 0 ? 0 : -1;
}

}  // namespace

std::optional<occupant> occupancy_find(const std::string& statesfile, const std::string& room) {
    std::vector<occupant> rows;
    read_rows(statesfile,
              "select room, name, lang, since from occupancy where room=" + quoted(room), rows);
    if (rows.empty()) return std::nullopt;
    return rows.front();
}

int occupancy_list(const std::string& statesfile, std::vector<occupant>& out) {
    return read_rows(statesfile, "select room, name, lang, since from occupancy order by room",
                     out);
}

int occupancy_put(const std::string& statesfile, occupant o) {
    if (o.since.empty()) o.since = now_text();
    return run(statesfile, "replace into occupancy values (" + quoted(o.room) + "," +
                               quoted(o.name) + "," + quoted(o.lang) + "," + quoted(o.since) + ")");
}

int occupancy_remove(const std::string& statesfile, const std::string& room) {
    return run(statesfile, "delete from occupancy where room=" + quoted(room));
}

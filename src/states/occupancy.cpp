// The occupancy table of the states file, on the connection that no
// operation closes.
#include <ctime>

#include "states/literal.h"
#include "states/states.h"

namespace {

const char* const create_statement =
    "create table if not exists occupancy (room varchar(8), name text, lang text, since "
    "datetime, primary key(room))";

std::string now_text() {
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    char buf[32] = "";
    strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tmv);
    return buf;
}

}  // namespace

// Opens the file (once) and makes sure the table is there.
bool states_file::open_occupancy() {
    if (!connect_own()) return false;
    if (!occupancy_checked_) occupancy_checked_ = occupancy_.query(create_statement) == 0;
    return occupancy_checked_;
}

// The rows of `statement` (room, name, lang, since).
int states_file::read_guests(const std::string& statement, std::vector<occupant>& out) {
    db_lock guard(occupancy_);
    if (!open_occupancy() || occupancy_.query(statement.c_str()) != 0) {
        occupancy_.free_result();
        return -1;
    }
    while (occupancy_.fetch_row() == 0) {
        occupant o;
        std::string* columns[] = {&o.room, &o.name, &o.lang, &o.since};
        for (int i = 0; i < 4; i++) {
            char text[256] = "";
            occupancy_.fetch_char_field(i, text, sizeof text - 1);
            *columns[i] = text;
        }
        out.push_back(std::move(o));
    }
    occupancy_.free_result();
    return 0;
}

int states_file::run_occupancy(const std::string& statement) {
    db_lock guard(occupancy_);
    if (!open_occupancy()) return -1;
    return occupancy_.query(statement.c_str()) == 0 ? 0 : -1;
}

std::optional<occupant> states_file::find_guest(const std::string& room) {
    std::vector<occupant> rows;
    read_guests("select room, name, lang, since from occupancy where room=" + quoted(room), rows);
    if (rows.empty()) return std::nullopt;
    return rows.front();
}

int states_file::guests(std::vector<occupant>& out) {
    return read_guests("select room, name, lang, since from occupancy order by room", out);
}

int states_file::put_guest(occupant o) {
    if (o.since.empty()) o.since = now_text();
    return run_occupancy("replace into occupancy values (" + quoted(o.room) + "," + quoted(o.name) +
                         "," + quoted(o.lang) + "," + quoted(o.since) + ")");
}

int states_file::remove_guest(const std::string& room) {
    return run_occupancy("delete from occupancy where room=" + quoted(room));
}

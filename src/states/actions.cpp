// The queue of Manager actions in the states file, on the connection that
// no operation closes. Its table is made when first used.
#include "db/sqlite.h"
#include "logger.h"
#include "states/literal.h"
#include "states/states.h"

namespace {

const char* const create_statement =
    "create table if not exists actions (id integer primary key autoincrement, room text, "
    "name text, body text, sent integer default 0)";

}  // namespace

bool states_file::open_actions() {
    if (!connect_own()) return false;
    if (!actions_checked_) actions_checked_ = occupancy_.query(create_statement) == 0;
    return actions_checked_;
}

long states_file::queue_action(const std::string& room, const std::string& name,
                               const std::string& body) {
    db_lock guard(occupancy_);
    if (!open_actions()) return -1;
    if (occupancy_.query(("insert into actions (room, name, body) values (" + quoted(room) + "," +
                          quoted(name) + "," + quoted(body) + ")")
                             .c_str()) != 0)
        return -1;
    int id = -1;
    if (occupancy_.query("select max(id), count(*) from actions") == 0 &&
        occupancy_.fetch_row() == 0) {
        int count = 0;
        occupancy_.fetch_int_field(0, &id);
        occupancy_.fetch_int_field(1, &count);
        occupancy_.free_result();
        if (count > max_queued_actions) {
            LOG(L_ERROR, "More than %d Manager actions waiting: the oldest is dropped",
                max_queued_actions);
            occupancy_.query("delete from actions where id = (select min(id) from actions)");
        }
    }
    occupancy_.free_result();
    return id;
}

int states_file::action_sent(long id) {
    db_lock guard(occupancy_);
    if (!open_actions()) return -1;
    return occupancy_.query(
               ("update actions set sent = sent + 1 where id = " + std::to_string(id)).c_str()) == 0
               ? 0
               : -1;
}

int states_file::action_done(long id) {
    db_lock guard(occupancy_);
    if (!open_actions()) return -1;
    return occupancy_.query(("delete from actions where id = " + std::to_string(id)).c_str()) == 0
               ? 0
               : -1;
}

int states_file::queued_actions(std::vector<queued_action>& out) {
    db_lock guard(occupancy_);
    if (!open_actions() ||
        occupancy_.query("select id, room, name, body, sent from actions order by id") != 0) {
        occupancy_.free_result();
        return -1;
    }
    while (occupancy_.fetch_row() == 0) {
        queued_action a;
        int id = 0;
        occupancy_.fetch_int_field(0, &id);
        a.id = id;
        char room[64] = "";
        occupancy_.fetch_char_field(1, room, sizeof room - 1);
        a.room = room;
        char name[256] = "";
        occupancy_.fetch_char_field(2, name, sizeof name - 1);
        a.name = name;
        char body[4096] = "";
        occupancy_.fetch_char_field(3, body, sizeof body - 1);
        a.body = body;
        occupancy_.fetch_int_field(4, &a.sent);
        out.push_back(std::move(a));
    }
    occupancy_.free_result();
    return 0;
}

int states_file::actions_queued() {
    return count_own("select count(*) from actions");
}

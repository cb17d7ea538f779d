// Guest names leaving the states file after a check-out, on the connection
// that no operation closes.
#include <utility>

#include "logger.h"
#include "states/literal.h"
#include "states/states.h"

int states_file::forget_guest(const std::string& room, const std::vector<std::string>& names) {
    db_lock guard(occupancy_);
    if (!open_occupancy() || !open_actions()) return -1;
    int rc = occupancy_.query(("delete from occupancy where room=" + quoted(room)).c_str());
    // A caller id is '"Name" <number>': the number is kept.
    if (occupancy_.query(
            ("update cdrcache set clid = case when instr(clid, '<') > 0 then "
             "substr(clid, instr(clid, '<')) when clid glob '*[^0-9+*#]*' then '' else clid end "
             "where src=" +
             quoted(room))
                .c_str()) != 0)
        rc = -1;

    std::vector<std::pair<long, std::string>> bodies;
    if (occupancy_.query(("select id, body from actions where room=" + quoted(room)).c_str()) ==
        0) {
        while (occupancy_.fetch_row() == 0) {
            int id = 0;
            occupancy_.fetch_int_field(0, &id);
            char body[4096] = "";
            occupancy_.fetch_char_field(1, body, sizeof body - 1);
            bodies.emplace_back(id, body);
        }
    } else {
        rc = -1;
    }
    occupancy_.free_result();
    for (const auto& [id, body] : bodies) {
        std::string shown = body;
        for (const std::string& name : names) shown = masked_name(std::move(shown), name);
        if (shown == body) continue;
        if (occupancy_.query(
                ("update actions set body=" + quoted(shown) + " where id=" + std::to_string(id))
                    .c_str()) != 0)
            rc = -1;
    }
    return rc == 0 ? 0 : -1;
}

// Occupancy: who stays in which room (room, guest name, language, since), in
// the `occupancy` table of the states file. It is apart from the `rooms`
// table, the list of rooms that are billed: nothing here adds a room to that
// list or takes one off it.
//
// Contract:
//  - The table is written by check-in, check-out, guest change, room move and
//    database resync, and only when a feature that uses it is configured
//    (keeps_occupancy() in config.h); it is kept across restarts.
//  - The module has a database record of its own on the states file, which
//    lives for the whole process (a check-in may close the record of
//    states/states.h for good; this one stays usable). Each function takes
//    that record's lock for its own statements; no other lock is held then.
//  - The table is created when missing. Every text is escaped for SQLite.
//  - Any thread may call. Functions return 0, or -1 when the states file
//    cannot be opened or a statement fails.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct occupant {
    std::string room;
    std::string name;
    std::string lang;
    std::string since;  // local time, "YYYY-MM-DD HH:MM:SS"
};

// The guest of `room`, if any (nothing also when the file cannot be read).
std::optional<occupant> occupancy_find(const std::string& statesfile, const std::string& room);

// Every occupied room, in room order.
int occupancy_list(const std::string& statesfile, std::vector<occupant>& out);

// Puts `o` into its room, replacing whoever was there. An empty `since` is
// the current time.
int occupancy_put(const std::string& statesfile, occupant o);

// The room is free.
int occupancy_remove(const std::string& statesfile, const std::string& room);

// Who stays in which room: the `occupancy` table of the states file,
// written by check-in, check-out, guest change, room move and resync, and
// only when a feature that uses it is configured; kept across restarts
// (states.h). The table is made when first used.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "states/connection.h"

struct occupant {
    std::string room;
    std::string name;
    std::string lang;
    std::string since;  // local time, "YYYY-MM-DD HH:MM:SS"
};

class occupancy_store {
  public:
    explicit occupancy_store(states_connection& own) : own_(own) {}

    // The functions return 0, or -1 when the file cannot be opened or a
    // statement fails.
    std::optional<occupant> find(const std::string& room);
    int all(std::vector<occupant>& out);  // in room order
    // Puts `o` into its room, replacing whoever was there; an empty `since`
    // is the current time.
    int put(occupant o);
    int remove(const std::string& room);

  private:
    friend class states_file;
    // open() inside a transaction on this store's connection.
    bool open(states_transaction& tx) {
        tx.holds(own_);
        return open();
    }
    // Opens the file and makes the table when missing.
    bool open() REQUIRES(own_.drv);
    int read(const char* statement, const std::string* room, std::vector<occupant>& out);

    states_connection& own_;
    bool checked_ GUARDED_BY(own_.drv) = false;
};

// How each priced call was priced ([rating]): the `ratings` table of the
// states file, keyed by room, "P#", date and time, kept for rating:keep_days
// (states.h). The table is made when first used.
#pragma once

#include <string>
#include <vector>

#include "states/connection.h"

struct rating_record {
    std::string room, seq, date, time;
    std::string number;  // as dialled
    std::string line;    // "<file>:<n>"
    std::string prefix;
    long long billed = 0;
    long long amount = 0;
};

class rating_store {
  public:
    explicit rating_store(states_connection& own) : own_(own) {}

    // Any thread may call; -1 when the file cannot be written or read.
    // Stores `r`, replacing a rating with the same key.
    int put(const rating_record& r);
    // Forgets the ratings stored more than `keep_days` days ago.
    int prune(int keep_days);
    // Every rating kept, oldest first.
    int all(std::vector<rating_record>& out);

  private:
    bool open() REQUIRES(own_.drv);

    states_connection& own_;
    bool checked_ GUARDED_BY(own_.drv) = false;
};

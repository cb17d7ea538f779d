// The rooms of the states file: the `rooms` table, the rooms the daemon bills
// and captures (states.h).
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "states/connection.h"

class rooms_store {
  public:
    explicit rooms_store(states_connection& main) : main_(main) {}

    // Writes `room` (calls 0), replacing its row. Both stamps are formatted
    // from the same local time into one text, the time over the date: the
    // row gets the time of day in ci_date and an empty citime; with
    // `true_stamps` the date in ci_date and the time in citime. With
    // `close_after` the connection is closed for good afterwards. 0, or -1
    // when the file cannot be opened.
    int store(const std::string& room, bool close_after, bool true_stamps = false);
    // Deletes `room`. 0, or -1 when the file cannot be opened.
    int remove(const std::string& room);
    // Appends the rooms. With `connect_first` the file is opened first: -1
    // when it cannot be; -2 when the table cannot be read; else 0.
    int list(std::vector<std::string>& rooms, bool connect_first = false);
    // Changes whenever a room is written or deleted (a failed statement
    // changes nothing), so that holders of the list know when to read it
    // again.
    unsigned version() const { return version_; }

  private:
    states_connection& main_;
    std::atomic<unsigned> version_{0};
};

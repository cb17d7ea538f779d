// The wake-up calls the daemon places ([wakeup] call): the `wakeups` table of
// the states file, kept across restarts (states.h). The table is made when
// first used. On the connection of the outbox: save() and remove() can run
// inside a states_transaction with its changes.
#pragma once

#include <string>
#include <vector>

#include "states/connection.h"

struct wakeup_booking {
    long id = 0;  // 0 until stored; the call's WAKEUP_ID
    std::string room;
    std::string date;  // "DA" and "TI" as the PMS sent them ("" when absent)
    std::string time;
    long due = 0;            // the booked moment (seconds since the epoch)
    long next = 0;           // when the dialer acts on it next
    int attempt = 0;         // calls placed since the booking or its last snooze
    int state = 0;           // the dialer's (waiting, ringing, answered)
    int last = 0;            // the outcome of the last call
    bool all_failed = true;  // no call could be created so far
    long answered = 0;       // when the last answered call was answered
};

class wakeup_store {
  public:
    explicit wakeup_store(states_connection& own) : own_(own) {}

    // Any thread may call; -1 when the file cannot be written.
    // Stores new bookings (id 0: given their id) and changed ones together.
    int save(std::vector<wakeup_booking*>& bookings);
    int save(states_transaction& tx, std::vector<wakeup_booking*>& bookings);
    int remove(long id);
    int remove(states_transaction& tx, long id);
    // Every booking, by id.
    int all(std::vector<wakeup_booking>& out);

  private:
    bool open() REQUIRES(own_.drv);
    int save_locked(std::vector<wakeup_booking*>& bookings) REQUIRES(own_.drv);

    states_connection& own_;
    bool checked_ GUARDED_BY(own_.drv) = false;
};

// The states file: the daemon's own SQLite database. This module alone runs
// statements on it; everyone else asks one of its stores for an operation.
//
// Contract:
//  - main makes one states_file and opens it at start-up; it stays until the
//    process ends (exit() leaves it in place, so that record workers still
//    running while the process exits can use it).
//  - It owns the two connections to the file and hands out the stores, each
//    the owner of one table or concern and of its statements:
//      on the record "sqlite-int": rooms() (`rooms`) and calls()
//      (`cdrcache`). A check-in may close that connection for good
//      (rooms().store with close_after): it is then never opened again and
//      every later operation on those tables fails;
//      on the record "sqlite-occupancy", which no operation closes:
//      occupancy(), actions() (queued Manager actions), outbox() (`outbox`,
//      `sequence`), wakeups() (wake-up bookings), the counts of waiting
//      calls, and forget_guest().
//    The stores live as long as the states_file.
//  - Every value (room numbers, Cdr fields, names, bodies, records) reaches
//    its statement as a bound parameter, whatever it holds and however long
//    it is; statements are prepared once per connection. Values are read
//    back whole.
//  - Each operation takes the lock of its connection for its own statements
//    and releases it before it returns; callers hold no lock of this module.
//    calls().post_unposted() holds it while its callback runs (the callback
//    may use the stores of the other connection).
//  - A states_transaction on own_connection() is one transaction on the
//    connection that no operation closes: the outbox's put() and the wake-up
//    bookings' save() and remove() that take it run inside it, so that a
//    booking and a record change together (or not at all). While it lives
//    its thread uses no other operation of that connection (it holds the
//    lock).
//  - The file, its -wal and its -shm are created 0640 and are never left
//    group- or world-writable.
//  - Any thread may call.
#pragma once

#include <string>
#include <vector>

#include "states/actions.h"
#include "states/calls.h"
#include "states/connection.h"
#include "states/occupancy.h"
#include "states/outbox.h"
#include "states/ratings.h"
#include "states/rooms.h"
#include "states/wakeups.h"

class states_file {
  public:
    states_file();
    ~states_file();
    states_file(const states_file&) = delete;
    states_file& operator=(const states_file&) = delete;

    // Opens the file (creating it 0640), chooses its journal, creates the
    // tables when missing and the cache's indexes. With `quiet_checks` the
    // tables are looked for without a statement that fails on a new file
    // (nothing logged). 0, or -1 when the file cannot be opened.
    int open(const std::string& path, bool quiet_checks = false);
    const std::string& path() const { return main_.path; }

    rooms_store& rooms() { return rooms_; }
    call_cache& calls() { return calls_; }
    occupancy_store& occupancy() { return occupancy_; }
    action_queue& actions() { return actions_; }
    outbox_store& outbox() { return outbox_; }
    wakeup_store& wakeups() { return wakeups_; }
    rating_store& ratings() { return ratings_; }

    // A wake-up booking ends: it leaves the file together with its result's
    // arrival in the outbox, in one transaction. The entry's id, or -1 (then
    // neither changed).
    long wakeup_finish(long booking, const outbox_entry& result);

    // The connection of the outbox and the wake-up bookings, for a
    // states_transaction (see the contract).
    states_connection& own_connection() { return own_; }

    // After a check-out (logger:personal_data = no): the room leaves the
    // occupancy, its cached calls keep only the number of their caller
    // ("<exten>"), and every occurrence of `names` (of two characters or
    // more) in the bodies of its queued actions becomes "<name>". The file is
    // changed in place. 0, or -1 when the file cannot be opened or a
    // statement fails.
    int forget_guest(const std::string& room, const std::vector<std::string>& names);

    // Closes the connections whose lock is free (the process ends).
    void close_idle();

    // The types of the stores, by their former names.
    using outbox_entry = ::outbox_entry;
    using queued_action = action_queue::action;
    using wakeup_booking = ::wakeup_booking;
    using rating_record = ::rating_record;
    using cache_mark = call_cache::mark_of;
    static constexpr int max_queued_actions = action_queue::max_queued;
    static constexpr int max_posting_sends = outbox_store::max_sends;

  private:
    states_connection main_{"sqlite-int"};
    states_connection own_{"sqlite-occupancy"};
    rooms_store rooms_{main_};
    call_cache calls_{main_, own_};
    occupancy_store occupancy_{own_};
    action_queue actions_{own_};
    outbox_store outbox_{own_};
    wakeup_store wakeups_{own_};
    rating_store ratings_{own_};
};

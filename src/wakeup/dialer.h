// The wake-up dialer ([wakeup] call): places the wake-up calls booked by the
// PMS ("WR") through the Manager session, repeats the ones nobody answered,
// lets the guest snooze, and reports each booking's end to the PMS ("WA")
// through the outbox, running the alert for a guest who could not be woken.
//
// Contract:
//  - main makes one dialer with the process's objects, which outlive it, and
//    start()s it when [wakeup] call is set at start-up (a reload does not
//    switch it on or off); stop() ends its thread. Bookings live in the states
//    file: what the dialer has not ended survives a restart.
//  - attach() is called by main for each Manager session before its start():
//    the session's reader hands over outcomes, answers and snoozes, which the
//    dialer's own thread acts on.
//  - The record hooks (book, cancel, check_out, move) may be called from any
//    thread; they do nothing while the dialer is not started.
//  - The dialer's thread sleeps until the next booking falls due or something
//    arrives; many bookings of the same second are placed together.
//  - A booking ends once, under the dialer's lock, whatever order its call's
//    outcome, its deadline and a snooze arrive in: it leaves the states file
//    in the transaction that stores its "WA" in the outbox. A booking that
//    was cancelled (a "WC", a check-out, a resync's check-out) has no result.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "billing/night_audit.h"
#include "config.h"
#include "fias/link.h"
#include "mgr/session.h"
#include "ops/notify.h"
#include "owned_thread.h"
#include "states/states.h"
#include "thread_annotations.h"

class posting_sender;

class wakeup_dialer {
  public:
    struct parts {
        const config_loader& configs;
        pms_link& link;
        states_file& states;
        audit_window& audit;
        notifier& notify;
        const mgr_session_slot& manager;
        posting_sender* sender = nullptr;  // with [fixes] posting: writes the results
    };

    explicit wakeup_dialer(const parts& p);
    ~wakeup_dialer();
    wakeup_dialer(const wakeup_dialer&) = delete;
    wakeup_dialer& operator=(const wakeup_dialer&) = delete;

    // Reads the bookings of the states file and starts the thread.
    void start();
    // Ends the thread; true when it ended before `deadline`.
    bool stop(std::chrono::steady_clock::time_point deadline);
    bool started() const { return thread_.running(); }

    // Before `session` starts: its outcomes, answers and snoozes come here.
    void attach(mgr_session& session);

    // A "WR": `date` ("YYMMDD", may be empty) and `time` as the PMS sent them
    // (or as the room phone booked them). 1 when booked; 0 when the room has
    // a booking for that moment already (logged at NOTICE); -1 when nothing
    // is booked (not a date and time, logged; or the dialer is not started).
    int book(const std::string& room, const std::string& date, const std::string& time);
    // A "WC": the room's booking at that date and time, or all of them when
    // `time` is empty. The bookings cancelled, which get no result.
    using booking = states_file::wakeup_booking;
    std::vector<booking> cancel(const std::string& room, const std::string& date,
                                const std::string& time);
    // A check-out (also one of a resync) ends the room's bookings without a
    // result; a room move takes them along.
    void check_out(const std::string& room) { cancel(room, "", ""); }
    void move(const std::string& from, const std::string& to);
    // The bookings, and those more than 2 minutes past the time of their
    // next call without it being placed.
    struct counts_t {
        long bookings = 0;
        long overdue = 0;
    };
    counts_t counts() EXCLUDES(mutex_);

  private:
    // What the thread does outside its lock after one pass.
    struct call {
        std::string action_id;
        mgr_session::headers fields;
        long booking = 0;
        std::string room;
        long fell_due = 0;  // the booking's `next` before it was placed
    };
    struct ended {
        booking b;
        std::string result;
        states_file::outbox_entry report;  // its "WA", stored (id 0: it could not be)
    };
    struct work {
        std::vector<call> calls;
        std::vector<ended> ends;
    };
    struct outcome {
        std::string action_id;
        int kind = 0;
        std::string message;
    };
    struct snooze {
        std::string room;
        std::string minutes;
    };

    void run();
    work pass(const config& cfg, long now) REQUIRES(mutex_);
    void apply(booking& b, int kind, const std::string& message, const config& cfg, long now,
               work& w) REQUIRES(mutex_);
    // `result` overrides the one of the booking's calls.
    void end(booking& b, work& w, const char* result = nullptr) REQUIRES(mutex_);
    void finish(ended& e) REQUIRES(mutex_);
    void take_snooze(const snooze& s, const config& cfg, long now) REQUIRES(mutex_);
    call originate(booking& b, const config& cfg) REQUIRES(mutex_);
    void save(booking& b) REQUIRES(mutex_);
    void forget(long id) REQUIRES(mutex_);
    void unlist(long id) REQUIRES(mutex_);
    void report(const ended& e, const config& cfg);
    void run_alert(const ended& e, const config& cfg);
    void on_outcome(outcome o) EXCLUDES(mutex_);

    parts parts_;
    owned_thread thread_;
    annotated_mutex mutex_;
    std::condition_variable_any changed_;
    bool stopping_ GUARDED_BY(mutex_) = false;
    bool started_ GUARDED_BY(mutex_) = false;
    bool logged_in_ GUARDED_BY(mutex_) = false;              // a login since the last pass
    std::map<long, booking> bookings_ GUARDED_BY(mutex_);    // by id
    std::map<std::string, long> placed_ GUARDED_BY(mutex_);  // booking by ActionID
    // Bookings whose call could not be placed (the Manager session is down),
    // and until when they wait before they are tried again; their `next`
    // stays the moment they fell due, from which late_limit counts.
    std::map<long, long> held_ GUARDED_BY(mutex_);
    std::deque<outcome> outcomes_ GUARDED_BY(mutex_);
    std::deque<snooze> snoozes_ GUARDED_BY(mutex_);
    std::string id_prefix_;  // the ActionIDs of this process's calls
};

// Database resynchronisation with the PMS (pms:resync): after each link
// start-up the daemon sends "DR"; the PMS answers "DS", one "GI" per occupied
// room and "DE". Each announced room is compared with the occupancy of the
// states file: the same guest runs no statement, a new guest or another name
// is checked in; at "DE" every occupied room that was not announced is
// checked out (services:checkout) and leaves the occupancy. The billed room
// list is never shortened.
//
// Contract:
//  - main makes one resync and hands it to the record dispatcher; any record
//    worker may call its handlers, and the main loop watch() (with ordered
//    records in the records' order, so that a resync's records read before
//    a lost link still count). Its state is kept under one mutex, which is
//    never held while a database is used.
//  - A resync stops without checking anything out when no record of it came
//    for resync_stall_limit() (process.h), when the link it started on is
//    lost, or when the PMS starts the link anew; this is logged.
#pragma once

#include <chrono>
#include <functional>
#include <set>
#include <string>

#include "fias/link.h"
#include "steps/context.h"
#include "thread_annotations.h"

class resync {
  public:
    // "LA" from the PMS: asks for a resync when pms:resync is set.
    void request(const record_context& ctx);
    // "LS" from the PMS: a resync in progress has stopped.
    void link_started();
    // A "GI" while a resync runs: the room counts as announced. True when its
    // guest is the one the occupancy has, so that nothing is to be done; false
    // when the check-in is to run (also outside a resync).
    bool confirms(const record_context& ctx);
    // Ends a resync that went quiet or lost its link (called now and then).
    void watch(const pms_link& link);
    // Whether a resync is under way (between "DS" and its end).
    bool running();

    // Runs `job`, the work of `room`, at once or on the room's turn.
    using room_runner = std::function<void(const std::string& room, std::function<void()> job)>;

    void start(const record_context& ctx);  // "DS"
    // "DE": the check-outs go through `run`, one per room.
    void end(const record_context& ctx, const room_runner& run);

  private:
    using clock_type = std::chrono::steady_clock;
    void stop(const char* why) REQUIRES(mutex_);

    annotated_mutex mutex_;
    bool running_ GUARDED_BY(mutex_) = false;
    unsigned link_number_ GUARDED_BY(mutex_) = 0;
    clock_type::time_point last_record_ GUARDED_BY(mutex_);
    std::set<std::string> announced_ GUARDED_BY(mutex_);
    int confirmed_ GUARDED_BY(mutex_) = 0;
    int checked_in_ GUARDED_BY(mutex_) = 0;
};

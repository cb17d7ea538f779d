// Handling of the records received from the PMS: the table from record type
// to handler, above the guest and billing handlers.
//
// Contract:
//  - main makes one record_dispatcher with the process's objects, which
//    outlive it and every worker it starts.
//  - handle() is called by the main loop with each record text read (without
//    STX; a trailing ETX is tolerated). In the long-standing mode each record
//    is handled by a detached worker of its own; with [fixes]
//    ordered_records (fixed at start) link records (and, with the posting
//    sender and calls from the Manager, posting answers) are handled at
//    once, in the main thread, and every other record by one worker in
//    arrival order.
//  - A worker takes the configuration snapshot once, for the whole record.
//  - With Manager action steps configured, a record that names a room
//    (other than a posting answer) is handled on the room queue: one record of a room at a time, in
//    arrival order, so that a room's later steps wait for its actions while other rooms go on.
//  - stop() is called once, by main, as the process ends: it waits for the
//    ordered worker and the room queue to handle what was queued, at most
//    until `deadline`.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <string>

#include "billing/night_audit.h"
#include "billing/postings.h"
#include "billing/sender.h"
#include "config.h"
#include "fias/link.h"
#include "guest/resync.h"
#include "keyed_queue.h"
#include "mgr/session.h"
#include "owned_thread.h"
#include "states/states.h"
#include "thread_annotations.h"
#include "wakeup/dialer.h"

// The process's objects that the handlers work with.
struct record_parts {
    const config_loader& configs;
    pms_link& link;
    states_file& states;
    resync& sync;
    audit_window& audit;
    posting_extensions& extensions;
    const mgr_session_slot& manager;
    posting_sequence& sequence;              // the process's posting numbers
    resync::room_runner for_room = nullptr;  // set by the dispatcher
    // Runs work that follows from a link event (a link start-up, a lost
    // link) after the records read before the event: record_dispatcher::
    // in_order(); set by the dispatcher.
    std::function<void(std::function<void()>)> in_order = nullptr;
    wakeup_dialer* wakeup = nullptr;   // told of wake-up records, check-outs and moves
    posting_sender* sender = nullptr;  // told of settled posting answers
};

struct record_context;
using record_handler = void (*)(const record_context&, const record_parts&);

struct handler_entry {
    int code;
    record_handler handler;
    const char* name;  // in the handlers' log lines
};

class record_dispatcher {
  public:
    record_dispatcher(const record_parts& parts, bool ordered);
    ~record_dispatcher();
    record_dispatcher(const record_dispatcher&) = delete;
    record_dispatcher& operator=(const record_dispatcher&) = delete;

    void handle(const char* record);
    // Runs `job` in the records' order: with ordered records after every
    // record handed over before it (by the ordered worker), else at once.
    // For what a link event does to the records' own state (a resync, a
    // night audit), which the records read before the event still belong to.
    void in_order(std::function<void()> job);
    // True when the ordered worker (if any) ended before `deadline`.
    bool stop(std::chrono::steady_clock::time_point deadline);

    // Parses one record text and runs its handler, in the calling thread.
    void process_fias_packet(const std::string& data) const;
    // Runs the handler of a record the daemon made itself (a "WR" or "WC" of
    // the room phone) for its service steps, as for one from the PMS: in the
    // room's turn with Manager action steps, else at once. The dialer is not
    // told of it.
    void run_own(const std::string& record) const;

  private:
    void run_ordered();
    bool answered_at_once(const char* record) const;
    void run_handler(const handler_entry& e, const config_ptr& cfg, fias_packet_t& record) const;

    record_parts parts_;
    bool ordered_;
    annotated_mutex mutex_;
    std::condition_variable_any changed_;
    // A record text, or work to run in its place (in_order()).
    struct queued {
        std::string record;
        std::function<void()> job;
    };
    std::deque<queued> queue_ GUARDED_BY(mutex_);
    bool stopping_ GUARDED_BY(mutex_) = false;
    owned_thread worker_;
    // With Manager action steps, each room's records in turn.
    mutable keyed_queue room_jobs_{8};
};

// Whether a record text is a link record ("LS", "LA", "LE").
bool is_link_record(const char* data);

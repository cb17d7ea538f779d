// Dial codes ([dialcodes]): Manager UserEvents that the hotel's dialplan
// sends when a guest dials a minibar code or the maid a room-status code
// become records for the PMS: a minibar posting ("PS" with PT=M, the article
// in MA, the quantity in M#, the amount in TA) and a room status ("RE" with
// RS and the maid's id in ID). The guest's own codes become a wake-up set or
// cleared ("WR", "WC" with RN, DA, TI) and the door sign ("RE" with RS 8 DND,
// 9 make-up-room, 10 all off); Asterisk's MessageWaiting events become the
// voice mail counts ("RE" with VM, two digits new and two old). With
// [wakeup] call the phone's wake-ups are also booked or cancelled in the
// dialer (phone_wakeups). They go through the outbox (billing/outbox.h):
// stored before the wire, sent while the link is active and no night audit
// holds postings, sent again after a lost link or a restart. Their numbers go
// out as they are, whatever [fixes] numbers says.
//
// Contract: attach_dialcodes() hooks the handler on a session before it
// starts, with the configuration snapshot the session was made from; the
// handler runs in the session's reader thread. The parts and the sequence
// are main's and outlive the session.
#pragma once

#include <ctime>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "billing/outbox.h"
#include "billing/postings.h"
#include "config.h"
#include "mgr/manager.h"
#include "mgr/session.h"

// A UserEvent (or a MessageWaiting) as the dial codes read it.
struct dialcode_event {
    // none: no event of the dial codes
    enum kind_t { none, minibar, maid, wakeup, wakeup_clear, guest_service, voicemail } kind = none;
    std::string error;                      // not empty: a bad event, dropped (the reason)
    std::string room;                       // the room (of the extension named in Room)
    std::string article, quantity, amount;  // minibar; amount may be empty
    std::string status, maid_id;            // maid, guest service (RS); maid_id may be empty
    // wakeup, wakeup_clear: "YYMMDD" (of the date rule when not given) and
    // "HHMMSS"; both empty for a wakeup_clear of all the room's wake-ups.
    std::string date, time;
    std::string counts;  // voicemail: "NNOO"
};

// Reads the event `m` under `cfg`; `rooms` are the rooms that may be named
// (an extension of cfg's [extensions] names its room). A wake-up without a
// date is for the day `now` (local time; the dialer's clock when absent)
// still has its time ahead, else for the next day.
dialcode_event read_dialcode_event(const config& cfg, const std::vector<std::string>& rooms,
                                   const message& m, std::optional<time_t> now = std::nullopt);

// The record text of a good event: the minibar posting numbered `seq`, the
// room status, the door sign, the voice mail counts, or a wake-up set or
// cleared; dated `now`.
std::string dialcode_record(const dialcode_event& e, const std::string& seq, const struct tm& now);

// The dialer's part in the room phone's wake-ups ([wakeup] call); main's,
// empty without it. Called in the session's reader thread.
struct phone_wakeups {
    // Books `room` at `date` and `time` as a "WR" does: 1 booked, 0 the room
    // has that booking already, -1 nothing booked.
    std::function<int(const std::string& room, const std::string& date, const std::string& time)>
        book;
    // Cancels the room's booking at `time` ("HHMMSS", any day), or all of
    // them for "": the "DA" and "TI" of each booking cancelled.
    std::function<std::vector<std::pair<std::string, std::string>>(const std::string& room,
                                                                   const std::string& time)>
        cancel;
    // Runs the service steps of a "WR" or "WC" made here as for one from the
    // PMS (services:wakeup_set, wakeup_clear).
    std::function<void(const std::string& record)> run_steps;
};

void attach_dialcodes(mgr_session& session, config_ptr cfg, const outbox_parts& parts,
                      posting_sequence& sequence, phone_wakeups wakeups = {});

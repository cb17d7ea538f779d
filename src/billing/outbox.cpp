#include "billing/outbox.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "billing/sender.h"
#include "logger.h"
#include "metrics.h"
#include "thread_annotations.h"

namespace {

void log_failed_write(const states_file::outbox_entry& e, const char* error) {
    if (error)
        LOG(L_ERROR, "%s", error);
    else
        LOG(L_ERROR, "Unable to send the %s record of room %s from the outbox", e.kind.c_str(),
            e.room.c_str());
}

bool may_go_out(const outbox_parts& parts) {
    return parts.link.active() && !parts.audit.holds_postings();
}

// Held from the look at what is due to the record's "written": a record
// stored by one thread and about to be written by it is never written too
// by the cycle's pass over the outbox, nor the other way round.
annotated_mutex sending;

}  // namespace

bool waiting_numbers::waiting(const std::string& number, const posting_sequence& sequence,
                              states_file& states) {
    const int n = std::atoi(number.c_str());
    const unsigned long issued = sequence.issued.load();
    if (n < low_ || n > high_ || issued - issued_ >= span) {
        low_ = high_ = -1;
        waiting_.clear();
        const int high = std::min(n + span - 1, 9999);
        char low_text[16], high_text[16];
        snprintf(low_text, sizeof low_text, "%04d", n);
        snprintf(high_text, sizeof high_text, "%04d", high);
        // Unreadable: this number is looked at alone.
        if (states.outbox().numbers_waiting(low_text, high_text, waiting_) != 0)
            return states.outbox().number_waiting(number);
        low_ = n;
        high_ = high;
        issued_ = issued;
    }
    return waiting_.count(number) > 0;
}

std::string next_free_number(posting_sequence& sequence, states_file& states,
                             const std::set<std::string>& taken, waiting_numbers* known) {
    for (int tries = 0; tries < 10000; ++tries) {
        std::string number = sequence.next();
        if (taken.count(number)) continue;
        if (known ? !known->waiting(number, sequence, states)
                  : !states.outbox().number_waiting(number))
            return number;
    }
    return "";
}

long deliver(const outbox_parts& parts, states_file::outbox_entry& entry, const char* error) {
    entry.id = parts.states.outbox().put(entry);
    if (entry.id < 0) {
        LOG(L_ERROR, "The %s record of room %s could not be written to the states file: not sent",
            entry.kind.c_str(), entry.room.c_str());
        return -1;
    }
    send_stored(parts, entry, error);
    return entry.id;
}

void send_stored(const outbox_parts& parts, const states_file::outbox_entry& entry,
                 const char* error) {
    if (parts.sender) return parts.sender->wake();
    if (!may_go_out(parts)) return;
    const unsigned number = parts.link.link_number();
    mutex_lock guard(sending);
    if (!parts.states.outbox().due(entry.id, number)) return;
    if (parts.link.send_raw(entry.record.c_str()) < 0)
        log_failed_write(entry, error);
    else
        parts.states.outbox().written(entry.id, number);
}

void send_outbox(const outbox_parts& parts) {
    if (parts.sender) return parts.sender->wake();
    if (!may_go_out(parts)) return;
    const unsigned number = parts.link.link_number();
    mutex_lock guard(sending);
    std::vector<states_file::outbox_entry> due;
    parts.states.outbox().to_send(number, due);
    for (const states_file::outbox_entry& e : due) {
        if (e.kind == "PS" && e.sends > 0) metrics::posting_resent();
        if (e.kind == "PS" && e.sends > 0)
            LOG(L_WARNING,
                "Posting P#%s of room %s (%s) sent again: its answer was lost with the link",
                e.seq.c_str(), e.room.c_str(), e.number.c_str());
        if (parts.link.send_raw(e.record.c_str()) < 0) {
            log_failed_write(e, nullptr);
            return;
        }
        parts.states.outbox().written(e.id, number);
    }
}

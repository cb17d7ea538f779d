#include "billing/outbox.h"

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

std::string next_free_number(posting_sequence& sequence, states_file& states,
                             const std::set<std::string>& taken) {
    for (int tries = 0; tries < 10000; ++tries) {
        std::string number = sequence.next();
        if (!taken.count(number) && !states.outbox().number_waiting(number)) return number;
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

// Postings of calls to the PMS: what [fixes] posting changes about them
// (posting_policy, the one place that reads the key), their numbers, and the
// extensions that made them.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "states/states.h"
#include "thread_annotations.h"

// The decisions of one configuration about postings and reports.
class posting_policy {
  public:
    explicit posting_policy(const config& cfg)
        : careful_(cfg.fixes.posting), noremovecalls_(cfg.noremovecalls != 0) {}

    // A report is sent only on an active link, and marked only when it was
    // written whole; otherwise it is marked also when its send failed.
    bool marks_only_sent() const { return careful_; }
    // A pass's complaint (no statement, unknown database) is logged once per
    // configuration load instead of every cycle.
    bool complains_once() const { return careful_; }
    // A pass whose database is unknown is skipped; otherwise billing ends.
    bool skips_unknown_database() const { return careful_; }
    // Every record for the PMS goes through the outbox of the states file:
    // postings wait there for their answers and go out again once after a
    // lost link or a restart, and the posting numbers continue across
    // restarts.
    bool keeps_outbox() const { return careful_; }
    // A refused posting is logged with its number and room.
    bool names_refusals() const { return careful_; }
    // What an accepted answer does to its cached call, and how its statement
    // is filled (`fill` is the configuration's).
    accepted_call accepted() const {
        if (noremovecalls_) return accepted_call::mark_with_number;
        return careful_ ? accepted_call::remove_own_row : accepted_call::remove_by_start;
    }
    fill_options answer_fill(fill_options fill) const {
        // Matched with the date's own month, values escaped, nothing stops.
        if (careful_) fill.dates = fill.escape = fill.percent = true;
        return fill;
    }

  private:
    bool careful_;
    bool noremovecalls_;
};

// The posting numbers "P#": 0001 to 9999, then 0000, 0001, ... One sequence
// serves the whole process (main owns it): it survives reconnections of the
// PMS link and, with the outbox, restarts. Any thread may call next().
struct posting_sequence {
    std::atomic<unsigned> last{0};
    // How many numbers next() has handed out.
    std::atomic<unsigned long> issued{0};
    std::string next();
};

// With [extensions]: the extension that made the call of each posting, which
// its answer's services:billok names as %exten% (with the outbox, its entry
// keeps it instead). One extension is kept per "P#" (the sequence comes round
// after 10,000). Any thread may call.
//
// Without [fixes] posting, with pms:answer_timeout: when each posting was
// written, so that one that waits longer for its answer is logged (once).
class posting_extensions {
  public:
    void made_by(const std::string& seq, const std::string& extension);
    // The extension that made the call of posting `seq` ("" when unknown).
    std::string extension_of(const std::string& seq);

    void sent(const std::string& seq);
    void answered(const std::string& seq);
    // The postings written longer than `timeout` ago and not answered,
    // each returned once.
    std::vector<std::string> overdue(std::chrono::seconds timeout);

  private:
    annotated_mutex mutex_;
    std::unordered_map<std::string, std::string> extensions_ GUARDED_BY(mutex_);  // by "P#"
    std::unordered_map<std::string, std::chrono::steady_clock::time_point> sent_ GUARDED_BY(mutex_);
};

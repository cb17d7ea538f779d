// Postings of calls to the PMS: what [fixes] posting changes about them
// (posting_policy, the one place that reads the key), their numbers, and the
// postings that wait for the PMS's answer.
#pragma once

#include <cstdint>
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
    // Postings wait for their answers and go out again once after a lost link.
    bool waits_for_answers() const { return careful_; }
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

// The posting numbers "P#": 0001 to 9999, then 0000, 0001, ... The billing
// thread's own; it survives reconnections of the PMS link.
struct posting_sequence {
    unsigned last = 0;
    std::string next();
};

// Postings written whole and not yet answered (posting_policy::
// waits_for_answers). A posting whose answer was lost with its link is
// handed out once for sending again on a later link, and then forgotten; an
// answer settles it. One posting waits per "P#": when the sequence comes
// round to the number of a posting still unanswered, that one is forgotten
// (with a warning once per link), so a PMS that never answers costs no
// memory. Any thread may call.
class unanswered_postings {
  public:
    struct posting {
        std::string seq;  // its "P#"
        std::string room;
        std::string number;  // the number called ("DD")
        std::string text;    // the record text
    };
    // `p` went out on the link numbered `link` (pms_link::link_number).
    void sent(posting p, unsigned link);
    // Forgets the posting `seq`; false when none was waiting.
    bool answered(const std::string& seq);
    // The postings sent on another link than `link` and not yet sent again,
    // in the order they were first sent.
    std::vector<posting> to_resend(unsigned link);

    // With [extensions]: the posting `seq` is of a call made from
    // `extension`, which its answer's services:billok names as %exten%. One
    // extension is kept per "P#" (the sequence comes round after 10,000).
    void made_by(const std::string& seq, const std::string& extension);
    // The extension that made the call of posting `seq` ("" when unknown).
    std::string extension_of(const std::string& seq);

  private:
    struct in_flight {
        posting p;
        unsigned link;   // it went out on
        uint64_t order;  // of sending
    };
    annotated_mutex mutex_;
    std::unordered_map<std::string, in_flight> waiting_ GUARDED_BY(mutex_);  // by "P#"
    uint64_t sent_ GUARDED_BY(mutex_) = 0;
    unsigned warned_ GUARDED_BY(mutex_) = 0;  // the link last warned about
    std::unordered_map<std::string, std::string> extensions_ GUARDED_BY(mutex_);  // by "P#"
};

// The daemon's metrics: counters that the modules bump where things happen,
// and values read when a scraper asks (see ops/status_server.h, which serves
// them). Kept in one process-wide registry, as the log is: counting is an
// atomic add (a labelled counter's series is found once and kept), so it
// costs nothing noticeable also when nobody scrapes.
//
// Contract:
//  - Any thread may call any function, at any time (also before main has set
//    anything up, and while the process exits).
//  - Labels are short texts of the daemon's own (record types, results,
//    database section names, Manager action and event names).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace prometheus {
class Collectable;
class Counter;
class Histogram;
}  // namespace prometheus

namespace metrics {

// --- PMS link ------------------------------------------------------------
void link_started();                       // the PMS's "LA": the link is active
void record_received(const char* record);  // a record text (its first two letters)
void record_sent(const char* record);      // a "PS" also counts as a posting sent

// --- postings --------------------------------------------------------------
void posting_accepted();
void posting_refused();
void posting_resent();
void billok_failed();  // an accepted posting's services:billok failed

// --- calls -------------------------------------------------------------------
void calls_cached(unsigned n);
void call_filtered(const char* reason);
// Calls priced from the tariff file, calls no line priced (with [rating]),
// and the amount ("TA", in minor units) of every call posted with one.
void call_priced();
void call_unrated();
void amount_posted(uint64_t minor_units);

// --- Manager -----------------------------------------------------------------
void manager_action(const std::string& action, const char* result);  // success, error, timeout
void manager_event(const std::string& event);

// --- wake-up calls -------------------------------------------------------------
void wakeup_call();
void wakeup_result(const char* result);  // OK, BY, NR, UR

// --- statements ------------------------------------------------------------------
// The counters of one database section, found once by its name and kept by
// the caller (a database record).
struct statement_stats {
    prometheus::Counter* ok;
    prometheus::Counter* failed;
    prometheus::Histogram* duration;
};
statement_stats* statements_of(const char* section);
void statement(statement_stats* stats, bool ok, double seconds);

// --- process ------------------------------------------------------------------------
void reloaded();
void config_problems(unsigned long problems);  // of the last load

// Values that are read when a scraper asks.
struct now_values {
    bool link_up = false;
    bool manager_used = false;
    bool manager_up = false;
    long postings_unanswered = 0;
    long calls_waiting = 0;
    double oldest_waiting_call_age = 0;  // seconds; 0 when none waits
    long actions_queued = 0;
    long wakeup_bookings = 0;
    long wakeup_overdue = 0;
};
// `read` is called for every scrape, on the server's thread (main sets it;
// it must outlive the server, or be replaced by an empty function first).
void set_now_values(std::function<now_values()> read);

// What the server collects: the registry of counters, and the values read
// at each scrape.
std::shared_ptr<prometheus::Collectable> counters();
std::shared_ptr<prometheus::Collectable> now_collectable();

}  // namespace metrics

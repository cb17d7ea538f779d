#include "metrics.h"

#include <prometheus/collectable.h>
#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <chrono>
#include <map>
#include <mutex>
#include <string_view>
#include <unordered_map>

#include "logger.h"
#include "thread_annotations.h"

#ifndef ORLANBECK_VERSION
#define ORLANBECK_VERSION "unknown"
#endif

namespace metrics {
namespace {

using prometheus::BuildCounter;
using prometheus::BuildGauge;
using prometheus::BuildHistogram;
using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;

// Every metric of the process, made once.
struct all_metrics {
    std::shared_ptr<prometheus::Registry> registry = std::make_shared<prometheus::Registry>();
    prometheus::Registry& r = *registry;

    Counter& link_starts =
        counter("orlanbeck_pms_link_starts_total", "PMS link start-ups completed (the PMS's LA)");
    Family<Counter>& received =
        family("orlanbeck_fias_records_received_total", "Records received from the PMS, by type");
    Family<Counter>& sent =
        family("orlanbeck_fias_records_sent_total", "Records written to the PMS, by type");
    Counter& postings_sent =
        counter("orlanbeck_postings_sent_total", "Postings written to the PMS");
    Counter& postings_accepted =
        counter("orlanbeck_postings_accepted_total", "Postings the PMS accepted");
    Counter& postings_refused =
        counter("orlanbeck_postings_refused_total", "Postings the PMS refused");
    Counter& postings_resent = counter("orlanbeck_postings_resent_total",
                                       "Postings sent again after their answer was lost");
    Counter& billok_failures =
        counter("orlanbeck_billok_failures_total",
                "services:billok statements of accepted postings that failed (run again later)");
    Counter& calls_cached =
        counter("orlanbeck_calls_cached_total", "Calls cached from the Manager's Cdr events");
    Family<Counter>& calls_filtered =
        family("orlanbeck_calls_filtered_total", "Calls not posted, by reason");
    Counter& calls_priced =
        counter("orlanbeck_calls_priced_total", "Calls priced from the tariff file");
    Counter& calls_unrated =
        counter("orlanbeck_calls_unrated_total", "Calls that no line of the tariff file priced");
    Counter& amount_posted = counter("orlanbeck_posted_amount_minor_total",
                                     "The amounts (TA, in minor units) of the calls posted");
    Family<Counter>& actions =
        family("orlanbeck_manager_actions_total", "Manager actions, by action and result");
    Family<Counter>& events =
        family("orlanbeck_manager_events_total", "Manager events received, by event");
    Counter& wakeup_calls = counter("orlanbeck_wakeup_calls_total", "Wake-up calls placed");
    Family<Counter>& wakeup_results =
        family("orlanbeck_wakeup_results_total", "Wake-up bookings ended, by result");
    Family<Counter>& statements =
        family("orlanbeck_statements_total", "Statements run, by database section and result");
    Family<Histogram>& durations = BuildHistogram()
                                       .Name("orlanbeck_statement_duration_seconds")
                                       .Help("Time a statement took, by database section")
                                       .Register(r);
    Counter& reloads = counter("orlanbeck_reloads_total", "Configuration reloads");
    Gauge& problems =
        gauge_of("orlanbeck_config_problems", "Problems the last configuration load logged", {});
    Gauge& build =
        gauge_of("orlanbeck_build_info", "The daemon's version", {{"version", ORLANBECK_VERSION}});
    Gauge& started = gauge_of("orlanbeck_start_time_seconds",
                              "When the process started, in seconds since the epoch", {});

    annotated_mutex mutex;
    std::function<now_values()> now GUARDED_BY(mutex);

    all_metrics() {
        build.Set(1);
        started.Set(static_cast<double>(std::chrono::duration_cast<std::chrono::seconds>(
                                            std::chrono::system_clock::now().time_since_epoch())
                                            .count()));
    }

    Family<Counter>& family(const char* name, const char* help) {
        return BuildCounter().Name(name).Help(help).Register(r);
    }
    Counter& counter(const char* name, const char* help) { return family(name, help).Add({}); }
    Gauge& gauge_of(const char* name, const char* help, const prometheus::Labels& labels) {
        return BuildGauge().Name(name).Help(help).Register(r).Add(labels);
    }
};

all_metrics& get() {
    static all_metrics m;
    return m;
}

// `value` as valid UTF-8: a byte that starts no well-formed sequence becomes
// U+FFFD. (The exposition's escapes of "\\", "\"" and the newline are the
// serialiser's.)
std::string label_value(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    const auto cont = [&](size_t at) {
        return at < value.size() && (static_cast<unsigned char>(value[at]) & 0xc0) == 0x80;
    };
    for (size_t i = 0; i < value.size();) {
        const unsigned char c = static_cast<unsigned char>(value[i]);
        size_t n = 0;  // length of a well-formed sequence starting here
        if (c < 0x80) {
            n = 1;
        } else if (c >= 0xc2 && c <= 0xdf) {
            n = cont(i + 1) ? 2 : 0;
        } else if (c >= 0xe0 && c <= 0xef && cont(i + 1) && cont(i + 2)) {
            const unsigned char c1 = static_cast<unsigned char>(value[i + 1]);
            const bool ok = (c != 0xe0 || c1 >= 0xa0) && (c != 0xed || c1 < 0xa0);
            n = ok ? 3 : 0;
        } else if (c >= 0xf0 && c <= 0xf4 && cont(i + 1) && cont(i + 2) && cont(i + 3)) {
            const unsigned char c1 = static_cast<unsigned char>(value[i + 1]);
            const bool ok = (c != 0xf0 || c1 >= 0x90) && (c != 0xf4 || c1 < 0x90);
            n = ok ? 4 : 0;
        }
        if (n == 0) {
            out += "\xef\xbf\xbd";
            i++;
        } else {
            out.append(value.substr(i, n));
            i += n;
        }
    }
    return out;
}

// The series of `family` whose label `label` is `value`, found once per
// thread and kept (a family's series are never removed), so that counting a
// Manager event or a record costs a hash lookup, not the family's lock. At
// most 256 values per family and thread are kept.
Counter& labelled(Family<Counter>& family, const char* label, const std::string& value) {
    thread_local std::unordered_map<const void*, std::unordered_map<std::string, Counter*>> known;
    std::unordered_map<std::string, Counter*>& of = known[&family];
    if (auto it = of.find(value); it != of.end()) return *it->second;
    Counter& c = family.Add({{label, label_value(value)}});
    if (of.size() < 256) of.emplace(value, &c);
    return c;
}

// A record's type as a label: two of A-Z and 0-9, else "other".
std::string type_of(const char* record) {
    const auto plain = [](char c) { return (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9'); };
    if (!record || !plain(record[0]) || !plain(record[1])) return "other";
    return std::string(record, 2);
}

prometheus::MetricFamily gauge(const char* name, const char* help, double value) {
    prometheus::MetricFamily f;
    f.name = name;
    f.help = help;
    f.type = prometheus::MetricType::Gauge;
    prometheus::ClientMetric m;
    m.gauge.value = value;
    f.metric.push_back(m);
    return f;
}

// The values read at each scrape.
class now_metrics : public prometheus::Collectable {
  public:
    std::vector<prometheus::MetricFamily> Collect() const override {
        now_values v;
        {
            all_metrics& m = get();
            mutex_lock guard(m.mutex);
            if (m.now) v = m.now();
        }
        std::vector<prometheus::MetricFamily> out = {
            gauge("orlanbeck_pms_link_up", "1 while the PMS link is active", v.link_up),
            gauge("orlanbeck_postings_unanswered", "Postings waiting for the PMS's answer",
                  static_cast<double>(v.postings_unanswered)),
            gauge("orlanbeck_calls_waiting", "Cached calls not yet posted",
                  static_cast<double>(v.calls_waiting)),
            gauge("orlanbeck_oldest_waiting_call_age_seconds",
                  "Age of the oldest cached call not yet posted (0: none)",
                  v.oldest_waiting_call_age),
            gauge("orlanbeck_manager_actions_queued",
                  "Manager actions waiting to be sent or answered",
                  static_cast<double>(v.actions_queued)),
            gauge("orlanbeck_wakeup_bookings", "Wake-up calls booked",
                  static_cast<double>(v.wakeup_bookings)),
            gauge("orlanbeck_wakeup_overdue",
                  "Wake-up bookings more than 2 minutes past their time without a call",
                  static_cast<double>(v.wakeup_overdue)),
        };
        // Only where a Manager session is used.
        if (v.manager_used)
            out.push_back(gauge("orlanbeck_manager_up", "1 while the Manager session is logged in",
                                v.manager_up));
        return out;
    }
};

}  // namespace

void link_started() {
    get().link_starts.Increment();
}
void record_received(const char* record) {
    labelled(get().received, "type", type_of(record)).Increment();
}
void record_sent(const char* record) {
    all_metrics& m = get();
    const std::string type = type_of(record);
    labelled(m.sent, "type", type).Increment();
    if (type == "PS") m.postings_sent.Increment();
}
void posting_accepted() {
    get().postings_accepted.Increment();
}
void posting_refused() {
    get().postings_refused.Increment();
}
void posting_resent() {
    get().postings_resent.Increment();
}
void billok_failed() {
    get().billok_failures.Increment();
}
void calls_cached(unsigned n) {
    get().calls_cached.Increment(n);
}
void call_filtered(const char* reason) {
    get().calls_filtered.Add({{"reason", label_value(reason)}}).Increment();
}
void call_priced() {
    get().calls_priced.Increment();
}
void call_unrated() {
    get().calls_unrated.Increment();
}
void amount_posted(uint64_t minor_units) {
    get().amount_posted.Increment(static_cast<double>(minor_units));
}
void manager_action(const std::string& action, const char* result) {
    get()
        .actions.Add({{"action", label_value(action)}, {"result", label_value(result)}})
        .Increment();
}
void manager_event(const std::string& event) {
    labelled(get().events, "event", event).Increment();
}
void wakeup_call() {
    get().wakeup_calls.Increment();
}
void wakeup_result(const char* result) {
    get().wakeup_results.Add({{"result", label_value(result)}}).Increment();
}

statement_stats* statements_of(const char* section) {
    all_metrics& m = get();
    static annotated_mutex mutex;
    static std::map<std::string, std::unique_ptr<statement_stats>> known;
    mutex_lock guard(mutex);
    std::unique_ptr<statement_stats>& s = known[section];
    const std::string label = label_value(section);
    if (!s)
        s = std::make_unique<statement_stats>(statement_stats{
            &m.statements.Add({{"section", label}, {"result", "ok"}}),
            &m.statements.Add({{"section", label}, {"result", "failed"}}),
            &m.durations.Add({{"section", label}},
                             Histogram::BucketBoundaries{0.0005, 0.001, 0.005, 0.01, 0.05, 0.1, 0.5,
                                                         1, 5, 30})});
    return s.get();
}

void statement(statement_stats* stats, bool ok, double seconds) {
    if (!stats) return;
    (ok ? stats->ok : stats->failed)->Increment();
    stats->duration->Observe(seconds);
}

void reloaded() {
    get().reloads.Increment();
}
void config_problems(unsigned long problems) {
    get().problems.Set(static_cast<double>(problems));
}

void set_now_values(std::function<now_values()> read) {
    all_metrics& m = get();
    mutex_lock guard(m.mutex);
    m.now = std::move(read);
}

std::shared_ptr<prometheus::Collectable> counters() {
    return get().registry;
}

std::shared_ptr<prometheus::Collectable> now_collectable() {
    static const std::shared_ptr<prometheus::Collectable> now = std::make_shared<now_metrics>();
    return now;
}

}  // namespace metrics

#include "wakeup/dialer.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "billing/outbox.h"
#include "db/registry.h"
#include "fias/codec.h"
#include "logger.h"
#include "metrics.h"
#include "process.h"
#include "text.h"
#include "wakeup/schedule.h"

namespace {

// A booking's state; `finished` only within the pass that ends it (never
// stored).
enum { waiting = 0, ringing = 1, answered = 2, finished = 3 };
// The outcome of one call.
enum { none = 0, picked_up, busy, no_answer, congestion, not_created };

const char* outcome_text(int kind) {
    switch (kind) {
        case picked_up:
            return "answered";
        case busy:
            return "busy";
        case congestion:
            return "congestion";
        case not_created:
            return "the channel could not be created";
        default:
            return "no answer";
    }
}

// Milliseconds since the epoch on the dialer's clock.
long now_ms() {
    using namespace std::chrono;
    return static_cast<long>(
        duration_cast<milliseconds>(system_clock::now().time_since_epoch() + test_clock_offset())
            .count());
}

// Seconds, bounded as the configuration check asks.
long ms(int seconds) {
    return 1000L * seconds;
}
int ring_time(const config& cfg) {
    return std::clamp(cfg.wakeup.ring_time, 5, 300);
}
int attempts(const config& cfg) {
    return std::max(cfg.wakeup.attempts, 1);
}
int retry_interval(const config& cfg) {
    return std::max(cfg.wakeup.retry_interval, 1);
}

// "HH:MM" (or "HH:MM:SS") of a "TI" as the PMS sent it.
std::string shown_time(const std::string& ti) {
    const std::string key = wakeup_time_key(ti);
    if (key.empty()) return ti;
    std::string out = key.substr(0, 2) + ":" + key.substr(2, 2);
    if (key.substr(4) != "00") out += ":" + key.substr(4);
    return out;
}

// How long a call that could not be placed (the Manager session is down)
// waits before it is tried again.
constexpr long manager_down_retry_ms = 5000;

}  // namespace

wakeup_dialer::wakeup_dialer(const parts& p)
    : parts_(p), id_prefix_("wakeup-" + std::to_string(getpid()) + "-") {}

wakeup_dialer::~wakeup_dialer() {
    stop(std::chrono::steady_clock::now() + std::chrono::seconds(3));
}

void wakeup_dialer::start() {
    std::vector<booking> stored;
    if (parts_.states.wakeups().all(stored) != 0)
        LOG(L_ERROR, "Wake-up bookings cannot be read from the states file");
    {
        mutex_lock guard(mutex_);
        for (booking& b : stored) {
            // A call in progress when the daemon stopped: its outcome is lost,
            // and it counts as not answered once its time is up.
            bookings_[b.id] = std::move(b);
        }
        started_ = true;
        parts_.notify.wakeups(static_cast<int>(bookings_.size()));
    }
    thread_.start([this] { run(); });
}

bool wakeup_dialer::stop(std::chrono::steady_clock::time_point deadline) {
    {
        mutex_lock guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    return thread_.join_until(deadline);
}

void wakeup_dialer::attach(mgr_session& session) {
    session.subscribe("OriginateResponse", [this](const message& m) {
        const std::string id = mgr_get_header(m, "ActionID");
        if (id.rfind(id_prefix_, 0) != 0) return;  // another program's call
        outcome o{id, no_answer, ""};
        if (strcasecmp(mgr_get_header(m, "Response"), "Success") == 0) {
            o.kind = picked_up;
        } else {
            switch (atoi(mgr_get_header(m, "Reason"))) {
                case 4:
                    o.kind = picked_up;
                    break;
                case 5:
                    o.kind = busy;
                    break;
                case 8:
                    o.kind = congestion;
                    break;
                case 0:
                    o.kind = not_created;
                    break;
                default:
                    break;
            }
        }
        on_outcome(std::move(o));
    });
    session.subscribe_answers(id_prefix_, [this](const message& m) {
        if (strcasecmp(mgr_get_header(m, "Response"), "Error") != 0) return;
        on_outcome({mgr_get_header(m, "ActionID"), not_created, mgr_get_header(m, "Message")});
    });
    session.after_login([this] {
        {
            mutex_lock guard(mutex_);
            logged_in_ = true;
        }
        changed_.notify_all();
    });
    session.subscribe("UserEvent", [this](const message& m) {
        if (strcasecmp(mgr_get_header(m, "UserEvent"), "WakeupSnooze") != 0) return;
        {
            mutex_lock guard(mutex_);
            if (!started_) return;
            snoozes_.push_back({mgr_get_header(m, "Room"), mgr_get_header(m, "Minutes")});
        }
        changed_.notify_all();
    });
}

void wakeup_dialer::on_outcome(outcome o) {
    {
        mutex_lock guard(mutex_);
        if (!started_) return;
        outcomes_.push_back(std::move(o));
    }
    changed_.notify_all();
}

void wakeup_dialer::save(booking& b) {
    std::vector<booking*> one{&b};
    if (parts_.states.wakeups().save(one) != 0)
        LOG(L_ERROR, "The wake-up booking of room %s could not be written to the states file",
            b.room.c_str());
}

void wakeup_dialer::unlist(long id) {
    for (auto it = placed_.begin(); it != placed_.end();)
        it = it->second == id ? placed_.erase(it) : std::next(it);
    bookings_.erase(id);
    held_.erase(id);
    parts_.notify.wakeups(static_cast<int>(bookings_.size()));
}

void wakeup_dialer::forget(long id) {
    unlist(id);
    parts_.states.wakeups().remove(id);
}

int wakeup_dialer::book(const std::string& room, const std::string& date, const std::string& time) {
    const long now = now_ms();
    const std::optional<time_t> due = wakeup_moment(date, time, now / 1000);
    if (!due) {
        LOG(L_ERROR, "Wake-up for room %s: \"%s\" \"%s\" is no date and time; nothing booked",
            room.c_str(), date.c_str(), time.c_str());
        return -1;
    }
    {
        mutex_lock guard(mutex_);
        if (!started_) return -1;
        for (const auto& [id, b] : bookings_)
            if (b.room == room && b.due == *due) {
                LOG(L_NOTICE, "Wake-up for room %s at %s is booked already", room.c_str(),
                    shown_time(time).c_str());
                return 0;
            }
        booking b;
        b.room = room;
        b.date = date;
        b.time = time;
        b.due = *due;
        b.next = *due * 1000L;
        save(b);
        if (b.id <= 0) return -1;
        LOG(L_NOTICE, "Wake-up for room %s booked for %s", room.c_str(),
            local_time_text(*due, "%Y-%m-%d %H:%M:%S").c_str());
        bookings_[b.id] = b;
        parts_.notify.wakeups(static_cast<int>(bookings_.size()));
    }
    changed_.notify_all();
    return 1;
}

std::vector<wakeup_dialer::booking> wakeup_dialer::cancel(const std::string& room,
                                                          const std::string& date,
                                                          const std::string& time) {
    const std::string key = wakeup_time_key(time);
    const std::optional<time_t> due =
        date.empty() ? std::nullopt : wakeup_moment(date, time, now_ms() / 1000);
    std::vector<booking> gone;
    mutex_lock guard(mutex_);
    if (!started_) return gone;
    for (const auto& [id, b] : bookings_) {
        if (b.room != room) continue;
        if (!time.empty() && (due ? b.due != *due : wakeup_time_key(b.time) != key)) continue;
        gone.push_back(b);
    }
    for (const booking& b : gone) {
        LOG(L_NOTICE, "Wake-up for room %s at %s cancelled", room.c_str(),
            shown_time(b.time).c_str());
        forget(b.id);
    }
    return gone;
}

void wakeup_dialer::move(const std::string& from, const std::string& to) {
    mutex_lock guard(mutex_);
    if (!started_) return;
    for (auto& [id, b] : bookings_) {
        if (b.room != from) continue;
        LOG(L_NOTICE, "Wake-up for room %s at %s moves to room %s", from.c_str(),
            shown_time(b.time).c_str(), to.c_str());
        b.room = to;
        save(b);
    }
}

wakeup_dialer::call wakeup_dialer::originate(booking& b, const config& cfg) {
    const std::vector<std::string> extensions = cfg.extensions_of(b.room);
    const std::string first = extensions.empty() ? b.room : extensions.front();
    std::string all;
    for (const std::string& e : extensions) all += (all.empty() ? "" : "&") + e;
    auto fill = [&](const std::string& text) {
        return one_line(replace_all(replace_all(text, "%exten%", first), "%room%", b.room));
    };
    call c;
    c.action_id = id_prefix_ + std::to_string(b.id) + "-" + std::to_string(b.attempt);
    c.booking = b.id;
    c.room = b.room;
    c.fields = {{"Channel", fill(cfg.wakeup.channel)},
                {"Context", one_line(cfg.wakeup.context)},
                {"Exten", one_line(cfg.wakeup.exten)},
                {"Priority", one_line(cfg.wakeup.priority)},
                {"CallerID", fill(cfg.wakeup.caller_id)},
                {"Timeout", std::to_string(ms(ring_time(cfg)))},
                {"Async", "true"},
                {"Variable", "WAKEUP_ROOM=" + one_line(b.room)},
                {"Variable", "WAKEUP_ID=" + std::to_string(b.id)},
                {"Variable", "WAKEUP_ATTEMPT=" + std::to_string(b.attempt)},
                {"Variable", "WAKEUP_EXTENS=" + one_line(all)}};
    placed_[c.action_id] = b.id;
    return c;
}

void wakeup_dialer::end(booking& b, work& w, const char* result) {
    if (!result)
        result = b.last == picked_up ? "OK" : b.all_failed ? "UR" : b.last == busy ? "BY" : "NR";
    LOG(L_NOTICE, "Wake-up for room %s at %s ended: %s", b.room.c_str(), shown_time(b.time).c_str(),
        result);
    metrics::wakeup_result(result);
    b.state = finished;
    w.ends.push_back({b, result, {}});
}

// The booking leaves the states file together with its result's arrival in
// the outbox, and the dialer's lists at once.
void wakeup_dialer::finish(ended& e) {
    states_file::outbox_entry& entry = e.report;
    entry.kind = "WA";
    entry.room = e.b.room;
    entry.date = e.b.date;
    entry.time = e.b.time;
    // Date and time go back as the "WR" gave them, so that the PMS links the
    // result to its request.
    fias_packet_ptr rec = fias_create_packet(FIAS_WA);
    for (const auto& [name, text] : {std::pair<const char*, const std::string&>{"RN", e.b.room},
                                     {"DA", e.b.date},
                                     {"TI", e.b.time},
                                     {"AS", e.result}}) {
        if (text.empty()) continue;
        fias_value_t v;
        v.str = text;
        fias_set_packet_field(rec.get(), name, &v);
    }
    entry.record = fias_packet_to_str(rec.get());
    const long id = parts_.states.wakeup_finish(e.b.id, entry);
    entry.id = std::max(id, 0L);
    if (id < 0)
        LOG(L_ERROR, "The WA record of room %s could not be written to the states file: not sent",
            e.b.room.c_str());
    unlist(e.b.id);
}

void wakeup_dialer::apply(booking& b, int kind, const std::string& message, const config& cfg,
                          long now, work& w) {
    const int n = attempts(cfg);
    if (message.empty())
        LOG(L_NOTICE, "Wake-up call for room %s (attempt %d of %d): %s", b.room.c_str(), b.attempt,
            n, outcome_text(kind));
    else
        LOG(L_NOTICE, "Wake-up call for room %s (attempt %d of %d): failed: %s", b.room.c_str(),
            b.attempt, n, message.c_str());
    b.last = kind;
    if (kind != not_created) b.all_failed = false;
    if (kind == picked_up) {
        b.state = answered;
        b.answered = now;
        b.next = now + ms(std::max(cfg.wakeup.snooze_window, 0));
    } else if (b.attempt >= n) {
        end(b, w);
        return;
    } else {
        b.state = waiting;
        b.next = now + ms(retry_interval(cfg));
    }
    save(b);
}

void wakeup_dialer::take_snooze(const snooze& s, const config& cfg, long now) {
    char* rest = nullptr;
    const long minutes = strtol(s.minutes.c_str(), &rest, 10);
    if (s.minutes.empty() || *rest || minutes < 1 || minutes > 60) {
        LOG(L_WARNING, "Wake-up snooze for room %s: \"%s\" minutes is not 1 to 60; ignored",
            s.room.c_str(), s.minutes.c_str());
        return;
    }
    for (auto& [id, b] : bookings_) {
        if (b.room != s.room) continue;
        // Open from the answer until the booking ends: snooze_window after
        // it. A call whose outcome is still to come may have been answered:
        // its dialplan can speak before the outcome arrives.
        if (b.state != answered && b.state != ringing) continue;
        for (auto it = placed_.begin(); it != placed_.end();)
            it = it->second == id ? placed_.erase(it) : std::next(it);
        b.state = waiting;
        b.attempt = 0;
        b.last = none;
        b.all_failed = true;
        b.next = now + minutes * wakeup_minute().count();
        LOG(L_NOTICE, "Wake-up for room %s at %s snoozed: called again in %ld minute(s)",
            b.room.c_str(), shown_time(b.time).c_str(), minutes);
        save(b);
        return;
    }
    (void)cfg;
    LOG(L_WARNING, "Wake-up snooze for room %s: no wake-up call of a booking in progress; ignored",
        s.room.c_str());
}

wakeup_dialer::work wakeup_dialer::pass(const config& cfg, long now) {
    work w;
    while (!outcomes_.empty()) {
        const outcome o = std::move(outcomes_.front());
        outcomes_.pop_front();
        auto placed = placed_.find(o.action_id);
        if (placed == placed_.end()) continue;  // settled already (deadline, snooze, cancel)
        const long id = placed->second;
        placed_.erase(placed);
        auto b = bookings_.find(id);
        if (b != bookings_.end() && b->second.state == ringing)
            apply(b->second, o.kind, o.message, cfg, now, w);
    }
    while (!snoozes_.empty()) {
        take_snooze(snoozes_.front(), cfg, now);
        snoozes_.pop_front();
    }
    // Calls that waited for the Manager go out as soon as it is back.
    if (logged_in_) held_.clear();
    logged_in_ = false;
    std::vector<booking*> placing;
    for (auto& [id, b] : bookings_) {
        if (b.next > now || b.state == finished) continue;
        if (b.state == answered) {
            end(b, w);
        } else if (b.state == ringing) {
            // No outcome within the ring time and half a (wake-up) minute: a call that
            // was ringing when the daemon stopped counts from its deadline,
            // so that its retry can be late.
            for (auto it = placed_.begin(); it != placed_.end();)
                it = it->second == id ? placed_.erase(it) : std::next(it);
            apply(b, no_answer, "", cfg, b.next, w);
        } else if (now - b.next > ms(std::max(cfg.wakeup.late_limit, 0))) {
            LOG(L_WARNING, "Wake-up for room %s at %s is more than %d s late: no call placed",
                b.room.c_str(), shown_time(b.time).c_str(), cfg.wakeup.late_limit);
            end(b, w, "UR");
        } else if (auto held = held_.find(id); held == held_.end() || held->second <= now) {
            held_.erase(id);
            const long fell_due = b.next;
            b.attempt++;
            b.state = ringing;
            b.next = now + ms(ring_time(cfg)) + wakeup_minute().count() / 2;
            w.calls.push_back(originate(b, cfg));
            w.calls.back().fell_due = fell_due;
            placing.push_back(&b);
        }
    }
    // Written before the calls go out, in one transaction.
    if (parts_.states.wakeups().save(placing) != 0)
        LOG(L_ERROR, "Wake-up calls being placed could not be written to the states file");
    for (ended& e : w.ends) finish(e);
    return w;
}

// The result, stored with the booking's end, goes out now if it may; the
// alert runs once.
void wakeup_dialer::report(const ended& e, const config& cfg) {
    if (e.report.id > 0) send_stored({parts_.link, parts_.states, parts_.audit, parts_.sender}, e.report);
    if (e.result != "OK" && cfg.wakeup.alert) run_alert(e, cfg);
}

void wakeup_dialer::run_alert(const ended& e, const config& cfg) {
    const std::vector<std::string> extensions = cfg.extensions_of(e.b.room);
    const std::string exten = extensions.empty() ? e.b.room : extensions.front();
    const std::string& alert = *cfg.wakeup.alert;
    const size_t colon = alert.find(':');
    if (colon == std::string::npos) {
        LOG(L_ERROR, "wakeup:alert \"%s\" names no database or ami:", alert.c_str());
        return;
    }
    const std::string where = alert.substr(0, colon);
    auto fill = [&](const std::string& text, auto escape) {
        std::string out = text;
        for (const auto& [token, value] : {std::pair<const char*, std::string>{"%room%", e.b.room},
                                           {"%exten%", exten},
                                           {"%date%", local_time_text(e.b.due, "%Y-%m-%d")},
                                           {"%time%", local_time_text(e.b.due, "%H:%M:%S")},
                                           {"%result%", e.result}})
            out = replace_all(out, token, escape(value));
        return out;
    };
    if (where == "ami") {
        const std::shared_ptr<mgr_session> session = parts_.manager.get();
        if (!session) {
            LOG(L_ERROR, "Wake-up alert for room %s: no Manager session", e.b.room.c_str());
            return;
        }
        std::vector<std::string> pieces;
        const std::string spec = alert.substr(colon + 1);
        size_t from = 0;
        for (size_t bar; (bar = spec.find('|', from)) != std::string::npos; from = bar + 1)
            pieces.push_back(spec.substr(from, bar - from));
        pieces.push_back(spec.substr(from));
        mgr_session::headers fields;
        for (size_t i = 1; i < pieces.size(); ++i)
            if (const size_t eq = pieces[i].find('='); eq != std::string::npos)
                fields.emplace_back(pieces[i].substr(0, eq),
                                    fill(pieces[i].substr(eq + 1), one_line));
        const std::string name = one_line(pieces.front());
        const auto a =
            session->action(e.b.room, name, fields, std::chrono::seconds(cfg.ami_timeout));
        log_action_answer(e.b.room, name, a, cfg.ami_timeout);
        return;
    }
    dbdriver_ptr drv = find_dbdriver_in(cfg.dbdrivers, where.c_str());
    if (!drv) {
        LOG(L_ERROR, "wakeup:alert: no database named %s", where.c_str());
        return;
    }
    db_lock guard(*drv);
    if (drv->is_connected()) drv->reconnect();
    const std::string statement = fill(
        alert.substr(colon + 1), [&](const std::string& v) { return drv->dbhandle->escape(v); });
    LOG(L_NOTICE, "Wake-up alert for room %s: %s", e.b.room.c_str(), statement.c_str());
    drv->query(statement.c_str());
}

void wakeup_dialer::run() {
    for (;;) {
        const config_ptr cfg = parts_.configs.current();
        work w;
        {
            mutex_lock guard(mutex_);
            if (stopping_) return;
            w = pass(*cfg, now_ms());
            if (w.calls.empty() && w.ends.empty()) {
                // Asleep until the next booking is due or something arrives.
                long next = std::numeric_limits<long>::max();
                for (const auto& [id, b] : bookings_) {
                    const auto held = held_.find(id);
                    next = std::min(next,
                                    held == held_.end() ? b.next : std::max(b.next, held->second));
                }
                const long wait = std::min(next - now_ms(), 60000L);
                if (outcomes_.empty() && snoozes_.empty() && !logged_in_ && wait > 0)
                    changed_.wait_for(mutex_, std::chrono::milliseconds(wait));
                continue;
            }
        }
        const std::shared_ptr<mgr_session> session = parts_.manager.get();
        std::vector<call> unplaced;
        for (const call& c : w.calls)
            if (!session || !session->send_now("Originate", c.action_id, c.fields))
                unplaced.push_back(c);
            else
                metrics::wakeup_call();
        if (!unplaced.empty()) {
            LOG(L_WARNING,
                "%zu wake-up call(s) cannot be placed: the Manager session is down; trying again "
                "in %ld s",
                unplaced.size(), manager_down_retry_ms / 1000);
            mutex_lock guard(mutex_);
            const long now = now_ms();
            std::vector<booking*> back;
            for (const call& c : unplaced) {
                placed_.erase(c.action_id);
                auto b = bookings_.find(c.booking);
                if (b == bookings_.end() || b->second.state != ringing) continue;
                b->second.attempt--;
                b->second.state = waiting;
                // Late counts from the moment it fell due, also after a restart.
                b->second.next = c.fell_due;
                held_[c.booking] = now + manager_down_retry_ms;
                back.push_back(&b->second);
            }
            parts_.states.wakeups().save(back);
        }
        for (const ended& e : w.ends) report(e, *cfg);
    }
}

wakeup_dialer::counts_t wakeup_dialer::counts() {
    const long now = now_ms();
    mutex_lock guard(mutex_);
    counts_t c;
    for (const auto& [id, b] : bookings_) {
        ++c.bookings;
        if (b.state == waiting && now - b.next > 120000) ++c.overdue;
    }
    return c;
}

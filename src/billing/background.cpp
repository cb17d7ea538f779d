#include "billing/background.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "billing/answer.h"
#include "billing/call_filter.h"
#include "billing/outbox.h"
#include "billing/pricing.h"
#include "db/sqlite.h"
#include "fias/codec.h"
#include "logger.h"
#include "metrics.h"
#include "process.h"
#include "templates/templates.h"

namespace {

fias_value_t text_value(const char* text) {
    fias_value_t v;
    v.str = text;
    return v;
}

fias_value_t date_value(const char* text, const char* format) {
    struct tm tmv {};
    strptime(text, format, &tmv);
    fias_value_t v;
    int year = tmv.tm_year;
    if (year > 100) year -= 100;
    v.date.year = static_cast<uint8_t>(year);
    v.date.month = static_cast<uint8_t>(tmv.tm_mon + 1);
    v.date.day = static_cast<uint8_t>(tmv.tm_mday);
    return v;
}

fias_value_t time_value(const char* text, const char* format) {
    struct tm tmv {};
    strptime(text, format, &tmv);
    fias_value_t v;
    v.time.hour = static_cast<uint8_t>(tmv.tm_hour);
    v.time.min = static_cast<uint8_t>(tmv.tm_min);
    v.time.sec = static_cast<uint8_t>(tmv.tm_sec);
    return v;
}

void set_field(fias_packet_t* p, const char* name, const fias_value_t& v) {
    fias_set_packet_field(p, name, &v);
}

// What a pass needs besides its configuration and rooms.
struct pass_env {
    const billing_parts& parts;
    posting_sequence& sequence;
    fill_options fill;
    posting_policy policy;
    bool outbox;  // posting_policy::keeps_outbox
    fias_codec_options codec;
    billing_memory* memory;  // may be null
    const config& cfg;
    // With the posting sender: the records made are collected here, and
    // stored in the outbox by the pass, instead of being sent.
    std::vector<states_file::outbox_entry>* collect = nullptr;
    pms_link& link() const { return parts.link; }
};

// Sends a report ("PS", "WA", "RE"). True when it is to be marked (see
// posting_policy::marks_only_sent). With the outbox, `entry` describes it
// there, and a report in the outbox is marked whether or not this write went
// through: the outbox sends it again.
// `own` is how the record is written when not as every record is (env.codec).
bool send_report(pass_env& env, const fias_packet_t* rec, const char* error,
                 states_file::outbox_entry& entry, const fias_codec_options* own = nullptr) {
    if (env.parts.audit.holds_postings()) return false;  // neither sent nor marked
    if (env.policy.marks_only_sent() && !env.link().active()) return false;
    if (env.outbox) {
        entry.record = fias_packet_to_str(rec, own ? *own : env.codec);
        if (env.collect) {
            env.collect->push_back(entry);
            return true;
        }
        return deliver({env.link(), env.parts.states, env.parts.audit, env.parts.sender}, entry,
                       error) >= 0;
    }
    if ((own ? env.link().send_raw(fias_packet_to_str(rec, *own).c_str())
             : env.link().send_packet(rec)) >= 0) {
        if (entry.kind == "PS" && env.cfg.answer_timeout().count() > 0)
            env.parts.extensions.sent(entry.seq);
        return true;
    }
    LOG(L_ERROR, "%s", error);
    return !env.policy.marks_only_sent();
}

// With [rating]: the price of a call that carries no cost of its own.
call_price price_of(const pass_env& env, const call_row& row, const char* dateformat) {
    if (!env.cfg.rating.tariffs || (row.callcost != -1 && !row.cost_empty)) return {};
    return price_call(env.cfg, row.dst, row.billsec, call_start_date(row.date.c_str(), dateformat));
}

// Builds and sends the "PS" record of one call (the text sent in *record).
// False when the record cannot be made or was not sent when only what was
// sent is marked (the row is then skipped and not marked).
// `entry` brings the outbox entry's mark and extension and gets the rest.
bool post_call(pass_env& env, const std::string& room, const call_row& row, const char* dateformat,
               const char* timeformat, std::string* sequence, states_file::outbox_entry& entry,
               std::string* record = nullptr) {
    fias_packet_ptr rec = fias_create_packet(FIAS_PS);
    if (!rec) return false;
    const call_price price = price_of(env, row, dateformat);
    const bool rated = price.outcome == call_price::priced ||
                       (price.outcome == call_price::unrated && env.cfg.rating.unrated_zero);
    set_field(rec.get(), "RN", text_value(room.c_str()));
    set_field(rec.get(), "DD", text_value(row.dst.c_str()));
    if (sequence->empty())
        *sequence =
            env.outbox ? next_free_number(env.sequence, env.parts.states) : env.sequence.next();
    if (sequence->empty()) {
        LOG(L_ERROR, "The call of room %s to %s is not posted now: every posting number waits",
            room.c_str(), row.dst.c_str());
        return false;
    }
    set_field(rec.get(), "P#", text_value(sequence->c_str()));
    fias_value_t du;
    du.ival = static_cast<uint32_t>(row.billsec);
    du.time.hour = static_cast<uint8_t>(row.billsec / 3600);
    du.time.min = static_cast<uint8_t>((row.billsec % 3600) / 60);
    du.time.sec = static_cast<uint8_t>(row.billsec % 60);
    set_field(rec.get(), "DU", du);
    set_field(rec.get(), "DA", date_value(row.date.c_str(), dateformat));
    set_field(rec.get(), "TI", time_value(row.time.c_str(), timeformat));
    // A priced call's amount goes out as its value, whatever [fixes] says.
    fias_codec_options as_value = env.codec;
    as_value.numbers = true;
    const fias_codec_options* own = nullptr;
    uint32_t amount = 0;
    if (rated) {
        amount = static_cast<uint32_t>(std::min<int64_t>(price.amount, UINT32_MAX));
        fias_value_t ta;
        ta.ival = amount;
        set_field(rec.get(), "TA", ta);
        set_field(rec.get(), "PT", text_value("C"));
        if (price.outcome == call_price::priced) {
            const char pc[2] = {price.call_type, '\0'};
            set_field(rec.get(), "PC", text_value(pc));
            const std::string ct = clear_text(env.cfg, price.description);
            if (!ct.empty()) set_field(rec.get(), "CT", text_value(ct.c_str()));
            entry.rating_line = price.line;
            entry.billed = price.billed;
        }
        entry.amount = amount;
        own = &as_value;
    } else if (row.callcost != -1 && price.outcome == call_price::not_rated) {
        fias_value_t ta;
        ta.ival = static_cast<uint32_t>(row.callcost);
        set_field(rec.get(), "TA", ta);
        set_field(rec.get(), "PT", text_value("C"));
    } else {
        set_field(rec.get(), "PT", text_value("T"));
    }
    if (fias_check_values(rec.get(), env.codec).dialled_dropped)
        LOG(L_WARNING,
            "The dialled number of call \"%s\" (room %s, posting %s) has characters that a "
            "posting cannot carry: they are dropped",
            row.uniqueid.c_str(), room.c_str(), sequence->c_str());
    entry.kind = "PS";
    entry.seq = *sequence;
    entry.room = room;
    entry.number = row.dst;
    entry.date = row.date;
    entry.time = row.time;
    if (!send_report(env, rec.get(), "Unable to send fias Post Simple", entry, own)) return false;
    if (record) *record = fias_packet_to_str(rec.get(), own ? *own : env.codec);
    if (rated) metrics::amount_posted(amount);
    if (price.outcome == call_price::unrated) {
        metrics::call_unrated();
        if (!env.cfg.rating.unrated_zero)
            LOG(L_WARNING, "No line of the tariff file prices the call to %s: posted unpriced",
                row.dst.c_str());
    }
    if (price.outcome == call_price::priced) {
        metrics::call_priced();
        LOG(L_NOTICE, "Call of room %s to %s priced by %s (%s): %lld s billed, TA %u (P#%s)",
            room.c_str(), row.dst.c_str(), price.line.c_str(), price.prefix.c_str(),
            static_cast<long long>(price.billed), amount, sequence->c_str());
        env.parts.states.ratings().put({room, *sequence, row.date, row.time, row.dst, price.line,
                                        price.prefix, price.billed,
                                        static_cast<long long>(amount)});
    }
    return true;
}

// A pass's driver and statement, from its service string. `ok` is false when
// the thread must end (driver missing); `statement` is empty when the string
// has none (the pass is then skipped).
struct pass_source {
    dbdriver_ptr drv;
    std::string statement;
    bool ok = true;
};

// Whether a pass's complaint is to be logged (posting_policy::complains_once).
bool first_time(pass_env& env, const config& cfg, const char* key) {
    if (!env.policy.complains_once() || !env.memory) return true;
    billing_memory& m = *env.memory;
    if (m.loaded != &cfg) {
        m.loaded = &cfg;
        m.reported.clear();
    }
    return m.reported.insert(key).second;
}

pass_source resolve(pass_env& env, const config& cfg, const std::string& service, const char* key) {
    pass_source src;
    service_string s = split_service(service);
    if (!s.has_statement) {
        if (first_time(env, cfg, key))
            LOG(L_ERROR, "services:%s = \"%s\" has no \":\" and so no statement: pass skipped", key,
                service.c_str());
        return src;
    }
    std::string name = s.driver.substr(0, 31);
    src.drv = find_dbdriver_in(cfg.dbdrivers, name.c_str());
    if (!src.drv) {
        if (first_time(env, cfg, key)) LOG(L_ERROR, "Unable to find DB driver %s", name.c_str());
        // Billing ends for good, or skips the pass.
        src.ok = env.policy.skips_unknown_database();
        if (!src.ok)
            env.parts.notify.stopped(notify_part::billing,
                                     "billing stopped: services:" + std::string(key) +
                                         " names the unknown database \"" + name + "\"");
        return src;
    }
    // A template that can never be filled stops this thread here, before any
    // lock is taken (the template routine itself logs and blocks).
    if (!env.fill.percent &&
        template_unknown_placeholder(TEMPLATE_STRINGS, s.statement.c_str()) >= 0) {
        env.parts.notify.stopped(
            notify_part::billing,
            "billing stopped: services:" + std::string(key) + " has an unknown placeholder");
        prepare_query2(src.drv.get(), s.statement.c_str(), nullptr, nullptr, nullptr, nullptr,
                       env.fill);
    }
    src.statement = s.statement;
    return src;
}

// The statement of a mark setting, or an empty text when it has none. A mark
// whose template can never be filled stops this thread here, before any
// database lock is taken (the template routine itself logs and blocks).
std::string mark_statement(pass_env& env, const dbdriver_t& drv, const opt_text& service,
                           const char* key) {
    if (!service) return "";
    service_string s = split_service(*service);
    if (!s.has_statement) {
        LOG(L_ERROR, "services:%s = \"%s\" has no \":\" and so no statement: nothing is marked",
            key, service->c_str());
        return "";
    }
    if (!env.fill.percent &&
        template_unknown_placeholder(TEMPLATE_STRINGS, s.statement.c_str()) >= 0) {
        env.parts.notify.stopped(
            notify_part::billing,
            "billing stopped: services:" + std::string(key) + " has an unknown placeholder");
        prepare_query2(&drv, s.statement.c_str(), nullptr, nullptr, nullptr, nullptr, env.fill);
    }
    return s.statement;
}

// A pass's statement filled for `room`, under the lock the caller holds (for
// [fixes] escape, which may use the live connection). A template that would
// stop the thread was already met, lock-free, by resolve().
std::string room_statement(pass_env& env, dbdriver_t& drv, const std::string& statement,
                           const std::string& room) REQUIRES(drv) {
    return prepare_query2(&drv, statement.c_str(), room.c_str(), nullptr, nullptr, nullptr,
                          env.fill);
}

// Runs a room's query on its pass driver, under the lock the caller holds.
void open_room_query(dbdriver_t& drv, const std::string& statement) REQUIRES(drv) {
    if (drv.is_connected()) drv.reconnect();
    drv.query(statement.c_str());
}

// Runs a room's marks in order. On an SQLite database a room's marks (each a
// single statement) are committed together, so that a room costs one commit;
// a crash in the middle posts again at most this room's calls.
// True when every mark ran.
bool run_marks(dbdriver_t& drv, const std::vector<std::string>& marks) REQUIRES(drv) {
    if (marks.empty()) return true;
    bool single = true;
    for (const std::string& m : marks) single = single && m.find(';') == std::string::npos;
    const bool grouped = marks.size() > 1 && single && sqlite_begin(drv) == 0;
    bool ran = true;
    for (const std::string& m : marks) ran = drv.query(m.c_str()) == 0 && ran;
    if (grouped) ran = sqlite_commit(drv) == 0 && ran;
    return ran;
}

// Whether `filter` keeps the call of `room` out; logged when it does.
bool kept_out(const call_filter& filter, const std::string& room, const call_row& row) {
    if (!filter.active()) return false;
    std::optional<std::string_view> disposition;
    if (row.has_disposition) disposition = row.disposition;
    const char* why = filter.reason({room, row.dst, row.billsec, disposition});
    if (!why) return false;
    LOG(L_NOTICE, "Call of room %s to %s not posted: %s", room.c_str(), row.dst.c_str(), why);
    std::string reason = why;  // as a label: "free_number", "unanswered", ...
    std::replace(reason.begin(), reason.end(), ' ', '_');
    metrics::call_filtered(reason.c_str());
    return true;
}

// Posts the cached calls of `rooms` (those the filter keeps out leave the
// cache). `filter_rooms` is the room list the filter's "rooms" stands for.
void post_cached(pass_env& env, const config& cfg, const std::vector<std::string>& rooms,
                 const std::vector<std::string>& filter_rooms) {
    states_file& states = env.parts.states;
    const call_filter filter(cfg, filter_rooms);
    for (const std::string& room : rooms) {
        std::vector<long> outbox_ids;  // whose cache mark is due
        const int marked = states.calls().post_unposted(
            room,
            [&](const call_row& row) -> std::optional<posted_call> {
                if (kept_out(filter, room, row)) return posted_call{"", "", true};
                std::string sequence;
                states_file::outbox_entry entry;
                entry.mark = "cache";
                std::string record;
                if (!post_call(env, room, row, cache_date_format, cache_time_format, &sequence,
                               entry, &record))
                    return std::nullopt;
                if (env.outbox) outbox_ids.push_back(entry.id);
                return posted_call{std::move(record), sequence};
            },
            env.fill);
        if (marked == 0)
            for (long id : outbox_ids) states.outbox().marked(id);
    }
}

// How a pass that waits for posting numbers lets the sender go on.
constexpr int refill_below = 2000;
constexpr std::chrono::milliseconds refill_check{50};

// With the posting sender: puts the postings of the cached calls of `rooms`
// into the outbox, all in one transaction, then marks the calls, so that
// the sender may send them. When every posting number waits, what was made
// so far is stored and, with `may_wait`, the pass waits for the sender to
// free numbers (a number waits also while its posting is still to be sent);
// otherwise, or when the numbers are held by postings that were all sent, it
// stops (an ERROR once) and the next cycle goes on.
void queue_cached(pass_env& env, const config& cfg, const std::vector<std::string>& rooms,
                  const std::vector<std::string>& filter_rooms, bool may_wait) {
    states_file& states = env.parts.states;
    posting_sender& sender = *env.parts.sender;
    const call_filter filter(cfg, filter_rooms);
    std::vector<states_file::outbox_entry> made;
    std::vector<call_cache::queued_mark> marks;
    std::vector<long long> drops;
    std::set<std::string> taken;  // numbers of `made`
    std::vector<std::string> claimed;
    env.collect = &made;
    struct give_back {
        posting_sender& sender;
        std::vector<std::string>& rooms;
        ~give_back() { sender.release(rooms); }
    } given_back{sender, claimed};
    // Stores what was made; the rooms are given back, but for the one whose
    // calls are still being made (`room_open`).
    // The postings and their calls' marks are made in one transaction: a
    // posting is never sent for a call left unmarked, nor a call marked
    // without its posting.
    auto store = [&](bool room_open) {
        if (!made.empty() || !drops.empty()) {
            states_transaction tx(states.own_connection());
            bool ok = true;
            for (states_file::outbox_entry& e : made) {
                e.id = states.outbox().put(tx, e);
                if (e.id < 0) {
                    ok = false;
                    break;
                }
            }
            ok = ok && states.calls().mark_queued(tx, marks, drops, env.fill) == 0;
            if (!ok || tx.commit() != 0) {
                LOG(L_ERROR, "%zu postings could not be written to the states file: not sent",
                    made.size());
                made.clear();
                marks.clear();
                drops.clear();
                taken.clear();
                return;  // the rooms are given back as the pass ends
            }
        }
        made.clear();
        marks.clear();
        drops.clear();
        taken.clear();
        std::vector<std::string> open;
        if (room_open && !claimed.empty()) {
            open.push_back(claimed.back());
            claimed.pop_back();
        }
        sender.release(claimed);
        claimed = std::move(open);
        sender.wake();
    };
    static std::atomic<bool> complained{false};
    waiting_numbers known;
    for (const std::string& room : rooms) {
        if (!sender.claim(room)) {
            // Another pass is storing this room's calls: immediate posting
            // leaves it to the cycle, the cycle to that pass.
            if (!may_wait) sender.leave({room});
            continue;
        }
        std::vector<call_row> rows;
        // While the pass has made nothing, a call that waits to be posted
        // or an answer goes first; a pass that makes postings goes on, as
        // the sender waits for them.
        if (made.empty()) states.own_connection().give_way();
        states.calls().unposted(room, rows);
        if (rows.empty()) {
            sender.release({room});
            continue;
        }
        claimed.push_back(room);
        for (const call_row& row : rows) {
            if (kept_out(filter, room, row)) {
                if (row.cache_row > 0) drops.push_back(row.cache_row);
                continue;
            }
            std::string sequence = next_free_number(env.sequence, states, taken, &known);
            while (sequence.empty()) {
                store(true);
                const unsigned long seen = sender.progress();
                const bool sent_all = states.outbox().unsent() == 0;
                if (!may_wait || sent_all || !env.link().active() ||
                    (env.parts.stop && env.parts.stop->requested())) {
                    if (sent_all && !complained.exchange(true))
                        LOG(L_ERROR,
                            "Every posting number waits for the answer to its posting: posting "
                            "pauses until one is free");
                    return;
                }
                // Numbers come free as the sender goes on: the pass goes on
                // once it has few postings left to send, with many free.
                sender.wait_progress(seen, std::chrono::seconds(1));
                while (states.outbox().unsent() > refill_below && env.link().active()) {
                    env.parts.notify.beat(notify_part::billing);
                    if (!env.parts.stop)
                        std::this_thread::sleep_for(refill_check);
                    else if (env.parts.stop->wait_for(refill_check))
                        break;
                }
                env.parts.notify.beat(notify_part::billing);
                known.forget();  // answers came
                sequence = next_free_number(env.sequence, states, taken, &known);
            }
            complained = false;
            states_file::outbox_entry entry;  // its call is marked along with it
            if (!post_call(env, room, row, cache_date_format, cache_time_format, &sequence, entry))
                continue;
            taken.insert(sequence);
            marks.push_back(
                {room, row.date, row.time, made.back().record, sequence, row.cache_row});
        }
    }
    store(false);
}

void cache_pass(pass_env& env, const config& cfg, const std::vector<std::string>& rooms) {
    LOG(L_DEBUG, "Cache case: check internal cdrcache values");
    if (env.parts.sender) {
        queue_cached(env, cfg, rooms, rooms, true);
        // Rooms that immediate posting left to the cycle meanwhile.
        for (std::vector<std::string> left = env.parts.sender->take_left(); !left.empty();
             left = env.parts.sender->take_left())
            queue_cached(env, cfg, left, rooms, true);
    } else {
        post_cached(env, cfg, rooms, rooms);
    }
    env.parts.states.calls().checkpoint();
}

bool query_pass(pass_env& env, const config& cfg, const std::vector<std::string>& rooms) {
    pass_source src = resolve(env, cfg, *cfg.billcalls, "billcalls");
    if (!src.ok) return false;
    if (!src.drv) return true;
    std::string billmark = mark_statement(env, *src.drv, cfg.billmark, "billmark");
    dbdriver_t& drv = *src.drv;
    const call_filter filter(cfg, rooms);
    // With [extensions] the statement runs for every extension of a room;
    // the calls go out as the room's.
    for (const std::string& room : rooms)
        for (const std::string& extension : cfg.extensions_of(room)) {
            db_lock guard(drv);
            open_room_query(drv, room_statement(env, drv, src.statement, extension));
            std::vector<std::string> marks;
            std::vector<long> outbox_ids;  // whose billmark is due
            auto add_mark = [&](const call_row& row, const char* seq) REQUIRES(drv) {
                marks.push_back(prepare_query2(&drv, billmark.c_str(), extension.c_str(),
                                               row.date.c_str(), row.time.c_str(), seq, env.fill));
                if (env.fill.quiet)
                    LOG(L_DEBUG, "Sending mark query: %s\n", marks.back().c_str());
                else
                    printf("Sending mark query: %s\n", marks.back().c_str());
            };
            while (drv.fetch_row() == 0) {
                call_row row;
                if (read_call_row(drv, row) != row_read::ok) break;
                // A call kept out is marked "FREE", so that it is not read again.
                if (kept_out(filter, room, row)) {
                    if (!billmark.empty()) add_mark(row, "FREE");
                    continue;
                }
                std::string sequence;
                states_file::outbox_entry entry;
                if (extension != room) entry.extension = extension;
                if (!billmark.empty()) {
                    entry.mark = drv.name;
                    entry.mark_key = "billmark";
                }
                if (!post_call(env, room, row, drv.dateformat, drv.timeformat, &sequence, entry))
                    continue;
                if (!env.outbox && extension != room)
                    env.parts.extensions.made_by(sequence, extension);
                if (!billmark.empty()) {
                    if (env.outbox) outbox_ids.push_back(entry.id);
                    add_mark(row, sequence.c_str());
                }
            }
            if (run_marks(drv, marks)) {
                for (long id : outbox_ids) env.parts.states.outbox().marked(id);
                // Their marks ran: the sender may send them.
                if (env.parts.sender && !outbox_ids.empty()) env.parts.sender->wake();
            }
        }
    return true;
}

// What a single-row report did with a room's row: nothing (an unreadable
// column ends the pass for this cycle), or a record made (and sent), to be
// marked with the row's date and time.
struct reported {
    bool made = false;
    std::string date;
    std::string time;
};

// The wake-up and room-status passes: each room's statement, its first row
// handed to `report` (with the outbox entry that its mark and the row make),
// and the mark of what was reported.
using report_fn = std::optional<reported> (*)(pass_env&, dbdriver_t&, const std::string&,
                                              states_file::outbox_entry&);

bool single_row_pass(pass_env& env, const config& cfg, const std::string& service, const char* key,
                     const opt_text& mark_service, const char* mark_key,
                     const std::vector<std::string>& rooms, report_fn report) {
    pass_source src = resolve(env, cfg, service, key);
    if (!src.ok) return false;
    if (!src.drv) return true;
    std::string mark = mark_statement(env, *src.drv, mark_service, mark_key);
    dbdriver_t& drv = *src.drv;
    for (const std::string& room : rooms) {
        db_lock guard(drv);
        open_room_query(drv, room_statement(env, drv, src.statement, room));
        if (drv.fetch_row() != 0) continue;
        states_file::outbox_entry entry;
        entry.room = room;
        if (!mark.empty()) {
            entry.mark = drv.name;
            entry.mark_key = mark_key;
        }
        std::optional<reported> done = report(env, drv, room, entry);
        if (!done) return true;
        if (!done->made || mark.empty()) continue;
        std::string m = prepare_query2(&drv, mark.c_str(), room.c_str(), done->date.c_str(),
                                       done->time.c_str(), nullptr, env.fill);
        LOG(L_DEBUG, "Sending mark query: %s\n", m.c_str());
        if (drv.query(m.c_str()) == 0 && env.outbox) {
            env.parts.states.outbox().marked(entry.id);
            if (env.parts.sender) env.parts.sender->wake();
        }
    }
    return true;
}

// The wake-up result codes as the PMS knows them.
const char* wakeup_answer(int result) {
    switch (result) {
        case 1:
            return "OK";
        case 2:
            return "BY";
        case 3:
            return "NR";
        case -1:
            return "UR";
        default:
            return "RY";
    }
}

// The wake-up result of a room's first row, as a "WA" record.
std::optional<reported> wakeup_pass(pass_env& pass, dbdriver_t& drv, const std::string& room,
                                    states_file::outbox_entry& entry) REQUIRES(drv) {
    int result = 0;
    std::string date;
    std::string time;
    if (drv.fetch_int_field(0, &result) < 0) {
        LOG(L_ERROR, "No mandatory billsec field in cdr query");
        return std::nullopt;
    }
    if (drv.fetch_text_field(1, date) < 0) {
        LOG(L_ERROR, "No mandatory date field in cdr query");
        return std::nullopt;
    }
    if (drv.fetch_text_field(2, time) < 0) {
        LOG(L_ERROR, "No mandatory time field in cdr query");
        return std::nullopt;
    }
    fias_packet_ptr rec = fias_create_packet(FIAS_WA);
    if (!rec) return reported{};
    set_field(rec.get(), "RN", text_value(room.c_str()));
    set_field(rec.get(), "DA", date_value(date.c_str(), drv.dateformat));
    set_field(rec.get(), "TI", time_value(time.c_str(), drv.timeformat));
    set_field(rec.get(), "AS", text_value(wakeup_answer(result)));
    entry.kind = "WA";
    entry.date = date;
    entry.time = time;
    if (!send_report(pass, rec.get(), "Unable to send fias WR", entry)) return reported{};
    return reported{true, date, time};
}

// The room status codes the PMS knows; any other becomes "0".
const char* room_status_code(int status) {
    static const char* const codes[] = {"0", "1", "2", "0", "4", "5", "6"};
    return status >= 0 && status <= 6 ? codes[status] : "0";
}

// The status of a room's first row, as an "RE" record.
std::optional<reported> room_status_pass(pass_env& pass, dbdriver_t& drv, const std::string& room,
                                         states_file::outbox_entry& entry) REQUIRES(drv) {
    int status = 0;
    if (drv.fetch_int_field(0, &status) < 0) {
        LOG(L_ERROR, "No mandatory billsec field in cdr query");
        return std::nullopt;
    }
    fias_packet_ptr rec = fias_create_packet(FIAS_RE);
    if (!rec) return reported{};
    set_field(rec.get(), "RN", text_value(room.c_str()));
    set_field(rec.get(), "RS", text_value(room_status_code(status)));
    entry.kind = "RE";
    if (!send_report(pass, rec.get(), "Unable to send fias RE", entry)) return reported{};
    return reported{true, "", ""};
}

const opt_text& mark_service(const config& cfg, const std::string& key) {
    if (key == "billmark") return cfg.billmark;
    if (key == "wrmark") return cfg.wrmark;
    return cfg.remark;
}

}  // namespace

void run_due_marks(const config& cfg, states_file& states, pms_link* link) {
    std::vector<states_file::outbox_entry> due;
    if (states.outbox().marks_due(due) != 0) return;
    const fill_options fill = fill_options_of(cfg);
    for (const states_file::outbox_entry& e : due) {
        if (e.mark_key == "billok") {
            if (link) run_due_billok(config_ptr(config_ptr(), &cfg), *link, states, e);
            continue;
        }
        LOG(L_NOTICE, "The mark of the %s record of room %s is still due: it runs now",
            e.kind.c_str(), e.room.c_str());
        if (e.mark == "cache") {
            if (states.calls().mark(e.room, {{e.date, e.time, e.record}}) == 0)
                states.outbox().marked(e.id);
            continue;
        }
        const opt_text& service = mark_service(cfg, e.mark_key);
        dbdriver_ptr drv = find_dbdriver_in(cfg.dbdrivers, e.mark.c_str());
        service_string s = split_service(service ? *service : std::string());
        if (!drv || !s.has_statement ||
            (!fill.percent &&
             template_unknown_placeholder(TEMPLATE_STRINGS, s.statement.c_str()) >= 0)) {
            LOG(L_ERROR,
                "The mark of the %s record of room %s cannot run (services:%s, database "
                "\"%s\"): it is dropped",
                e.kind.c_str(), e.room.c_str(), e.mark_key.c_str(), e.mark.c_str());
            states.outbox().marked(e.id);
            continue;
        }
        const std::string& who = e.extension.empty() ? e.room : e.extension;
        db_lock guard(*drv);
        if (drv->is_connected()) drv->reconnect();
        std::string m =
            prepare_query2(drv.get(), s.statement.c_str(), who.c_str(), e.date.c_str(),
                           e.time.c_str(), e.kind == "PS" ? e.seq.c_str() : nullptr, fill);
        LOG(L_DEBUG, "Sending mark query: %s\n", m.c_str());
        if (drv->query(m.c_str()) == 0) states.outbox().marked(e.id);
    }
}

bool billing_cycle(const config& cfg, const std::vector<std::string>& rooms,
                   const billing_parts& parts, posting_sequence& sequence, billing_memory* memory) {
    const posting_policy policy(cfg);
    pass_env env{parts,
                 sequence,
                 fill_options_of(cfg),
                 policy,
                 policy.keeps_outbox(),
                 {cfg.fixes.numbers, 0, cfg.plus_prefix},
                 memory,
                 cfg};
    pms_link& link = parts.link;
    if (cfg.uses_outbox()) run_due_marks(cfg, parts.states, &link);
    if (parts.sender) parts.sender->wake();  // marks that ran let records go
    if (!parts.sender && cfg.answer_timeout().count() > 0)
        for (const std::string& seq : parts.extensions.overdue(cfg.answer_timeout()))
            LOG(L_WARNING, "Posting P#%s has waited %lld s for its answer", seq.c_str(),
                static_cast<long long>(cfg.answer_timeout().count()));
    if (cfg.rating.tariffs) parts.states.ratings().prune(cfg.rating.keep_days);
    if (!link.active() || parts.audit.holds_postings()) return true;
    if (cfg.uses_outbox()) send_outbox({link, parts.states, parts.audit, parts.sender});
    bool posted = false;
    if (cfg.use_manager) {
        cache_pass(env, cfg, rooms);
        posted = true;
    } else if (cfg.billcalls) {
        if (!query_pass(env, cfg, rooms)) return false;
        // The sender's connection leaves its checkpoints to the cycle.
        if (parts.sender) parts.states.calls().checkpoint();
        posted = true;
    }
    if (posted && !link.active()) return true;
    if (cfg.wakeup_result) {
        if (!single_row_pass(env, cfg, *cfg.wakeup_result, "wakeup_result", cfg.wrmark, "wrmark",
                             rooms, wakeup_pass))
            return false;
        if (!link.active()) return true;
    }
    if (cfg.room_state && !single_row_pass(env, cfg, *cfg.room_state, "room_status", cfg.remark,
                                           "remark", rooms, room_status_pass))
        return false;
    return true;
}

void post_cached_now(const config& cfg, const std::vector<std::string>& rooms,
                     const std::vector<std::string>& all_rooms, const billing_parts& parts) {
    if (!parts.link.active() || parts.audit.holds_postings()) return;
    posting_sequence own;
    const posting_policy policy(cfg);
    pass_env env{parts,
                 parts.sequence ? *parts.sequence : own,
                 fill_options_of(cfg),
                 policy,
                 policy.keeps_outbox(),
                 {cfg.fixes.numbers, 0, cfg.plus_prefix},
                 nullptr,
                 cfg};
    if (!parts.sender) return post_cached(env, cfg, rooms, all_rooms);
    queue_cached(env, cfg, rooms, all_rooms, false);
}

void service_background(const config_loader& configs, const billing_parts& parts, stop_flag& stop) {
    states_file& states = parts.states;
    unsigned version = states.rooms().version();
    std::vector<std::string> rooms;
    states.rooms().list(rooms);
    posting_sequence own;
    posting_sequence& sequence = parts.sequence ? *parts.sequence : own;
    billing_memory memory;
    const auto wedge_at = std::chrono::steady_clock::now() + billing_wedge_after();
    for (;;) {
        parts.notify.beat(notify_part::billing);
        // A test hook: the thread hangs without being stopped by design.
        if (std::chrono::steady_clock::now() >= wedge_at) {
            while (!stop.wait_for(std::chrono::hours(1))) {
            }
            return;
        }
        config_ptr cfg = configs.current();
        // With [fixes] reload the cycle bills the rooms of the table as it
        // is now (a reload or a check-in changes it).
        if (cfg->fixes.reload && version != states.rooms().version()) {
            version = states.rooms().version();
            std::vector<std::string> now;
            if (states.rooms().list(now) == 0) rooms = std::move(now);
        }
        if (!cfg->night_audit) parts.audit.close("pms:night_audit is off");
        if (!billing_cycle(*cfg, rooms, parts, sequence, &memory)) return;
        parts.notify.waiting(notify_part::billing, true);
        const bool stopped = stop.requested() || stop.wait_for(billing_period());
        parts.notify.waiting(notify_part::billing, false);
        if (stopped) return;
    }
}

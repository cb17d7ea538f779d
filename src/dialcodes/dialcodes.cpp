#include "dialcodes/dialcodes.h"

#include <strings.h>

#include <algorithm>
#include <memory>

#include "fias/codec.h"
#include "logger.h"
#include "process.h"
#include "text.h"

namespace {

constexpr size_t max_number_digits = 9;  // fits the 32 bits of a number field
constexpr size_t max_text = 40;          // an article or a maid's id

bool is_number(const std::string& s) {
    return !s.empty() && s.size() <= max_number_digits &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// A text that can stand in a record field: no separator, no control character.
bool is_field_text(const std::string& s) {
    return s.size() <= max_text && std::none_of(s.begin(), s.end(), [](char c) {
               return c == '|' || static_cast<unsigned char>(c) < ' ';
           });
}

bool is_named(const opt_text& name, const char* event) {
    return name && strcasecmp(name->c_str(), event) == 0;
}

fias_value_t text_value(const std::string& text) {
    fias_value_t v;
    v.str = text;
    return v;
}

// An outside value as a log line may show it: printable, and short.
std::string shown(const std::string& value) {
    std::string out;
    for (char c : value.substr(0, 24)) out += c >= ' ' && c < 0x7f ? c : '?';
    return value.size() > 24 ? out + "..." : out;
}

bool all_digits(const std::string& s) {
    return std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

struct tm local_tm(time_t t) {
    struct tm tm {};
    localtime_r(&t, &tm);
    return tm;
}

std::string text_of(const struct tm& tm, const char* format) {
    char buf[32];
    strftime(buf, sizeof buf, format, &tm);
    return buf;
}

// "HHMM" or "HHMMSS" of a wake-up as "HHMMSS"; "" when it is no time.
std::string wake_time(const std::string& t) {
    if ((t.size() != 4 && t.size() != 6) || !all_digits(t)) return "";
    const std::string hms = t.size() == 4 ? t + "00" : t;
    if (std::stoi(hms.substr(0, 2)) > 23 || std::stoi(hms.substr(2, 2)) > 59 ||
        std::stoi(hms.substr(4, 2)) > 59)
        return "";
    return hms;
}

// The "YYMMDD" `days` after the local date of `now`.
std::string date_after(time_t now, int days) {
    struct tm tm = local_tm(now);
    tm.tm_mday += days;
    tm.tm_hour = 12;  // far from a change of summer time
    tm.tm_isdst = -1;
    mktime(&tm);
    return text_of(tm, "%y%m%d");
}

// Why `date` ("YYMMDD") cannot be a wake-up's date seen from `now`; "" when
// it can: a date of the calendar from today to a year ahead.
std::string bad_date(const std::string& date, time_t now) {
    if (date.size() != 6 || !all_digits(date)) return "is not YYMMDD";
    struct tm tm {};
    tm.tm_year = 100 + std::stoi(date.substr(0, 2));
    tm.tm_mon = std::stoi(date.substr(2, 2)) - 1;
    tm.tm_mday = std::stoi(date.substr(4, 2));
    tm.tm_hour = 12;
    tm.tm_isdst = -1;
    if (mktime(&tm) == -1 || text_of(tm, "%y%m%d") != date) return "is no date";
    // YYMMDD of this century compare as texts.
    if (date < date_after(now, 0)) return "is in the past";
    if (date > date_after(now, 366)) return "is more than a year ahead";
    return "";
}

// The date rule: today while the time is still ahead, else tomorrow.
std::string wake_date(const std::string& hms, time_t now) {
    return text_of(local_tm(now), "%H%M%S") < hms ? date_after(now, 0) : date_after(now, 1);
}

// Pair `i` of a "YYMMDD" or "HHMMSS" that was checked before.
uint8_t pair_of(const std::string& six, size_t i) {
    if (six.size() != 6 || !all_digits(six)) return 0;
    return static_cast<uint8_t>((six[2 * i] - '0') * 10 + (six[2 * i + 1] - '0'));
}

fias_value_t date_value(const std::string& yymmdd) {
    fias_value_t v;
    v.date = {pair_of(yymmdd, 0), pair_of(yymmdd, 1), pair_of(yymmdd, 2), 0};
    return v;
}

fias_value_t time_value(const std::string& hhmmss) {
    fias_value_t v;
    v.time = {pair_of(hhmmss, 0), pair_of(hhmmss, 1), pair_of(hhmmss, 2), 0};
    return v;
}

// A mailbox count as two digits.
std::string two_digits(const std::string& n) {
    const std::string digits = n.substr(
        n.find_first_not_of('0') == std::string::npos ? n.size() : n.find_first_not_of('0'));
    if (digits.size() > 2) return "99";
    return std::string(2 - digits.size(), '0') + digits;
}

// The room `named` stands for, or the reason it names none.
std::string room_named(const config& cfg, const std::vector<std::string>& rooms,
                       const std::string& named, std::string& error) {
    const std::string room = cfg.room_of(named);
    if (named.empty())
        error = "no Room";
    else if (std::find(rooms.begin(), rooms.end(), room) == rooms.end())
        error = "unknown room \"" + shown(named) + "\"";
    return room;
}

dialcode_event::kind_t kind_of(const config& cfg, const message& m) {
    const dialcodes_settings& dc = cfg.dialcodes;
    if (dc.voicemail && strcasecmp(mgr_get_header(m, "Event"), "MessageWaiting") == 0)
        return dialcode_event::voicemail;
    const char* name = mgr_get_header(m, "UserEvent");
    if (is_named(dc.minibar_event, name)) return dialcode_event::minibar;
    if (is_named(dc.maid_event, name)) return dialcode_event::maid;
    if (is_named(dc.wakeup_event, name)) return dialcode_event::wakeup;
    if (is_named(dc.wakeup_clear_event, name)) return dialcode_event::wakeup_clear;
    if (is_named(dc.guest_service_event, name)) return dialcode_event::guest_service;
    return dialcode_event::none;
}

}  // namespace

dialcode_event read_dialcode_event(const config& cfg, const std::vector<std::string>& rooms,
                                   const message& m, std::optional<time_t> now) {
    dialcode_event e;
    e.kind = kind_of(cfg, m);
    if (e.kind == dialcode_event::none) return e;
    if (e.kind == dialcode_event::voicemail) {
        // "<mailbox>@<context>": a mailbox that is no room is not ours.
        std::string mailbox = mgr_get_header(m, "Mailbox");
        mailbox = mailbox.substr(0, mailbox.find('@'));
        std::string unknown;
        e.room = room_named(cfg, rooms, mailbox, unknown);
        if (!unknown.empty()) {
            e.kind = dialcode_event::none;
            return e;
        }
        const std::string fresh = mgr_get_header(m, "New"), old = mgr_get_header(m, "Old");
        if (fresh.empty() || !all_digits(fresh) || old.empty() || !all_digits(old))
            e.error = "New \"" + shown(fresh) + "\" and Old \"" + shown(old) + "\" are not numbers";
        else
            e.counts = two_digits(fresh) + two_digits(old);
        return e;
    }
    e.room = room_named(cfg, rooms, mgr_get_header(m, "Room"), e.error);
    if (!e.error.empty()) return e;
    const time_t clock = now ? *now : time(nullptr) + test_clock_offset().count();
    switch (e.kind) {
        case dialcode_event::minibar:
            e.article = mgr_get_header(m, "Article");
            e.quantity = mgr_get_header(m, "Quantity");
            e.amount = mgr_get_header(m, "Amount");
            if (e.article.empty() || !is_field_text(e.article))
                e.error = "article \"" + shown(e.article) + "\" is no article code";
            else if (!is_number(e.quantity) || std::stoul(e.quantity) == 0)
                e.error = "quantity \"" + shown(e.quantity) + "\" is not a number of items";
            else if (!e.amount.empty() && !is_number(e.amount))
                e.error = "amount \"" + shown(e.amount) + "\" is not a number";
            break;
        case dialcode_event::maid:
            e.status = mgr_get_header(m, "Status");
            e.maid_id = mgr_get_header(m, "MaidId");
            if (e.status.size() != 1 || e.status[0] < '1' || e.status[0] > '6')
                e.error = "status \"" + shown(e.status) + "\" is not 1-6";
            else if (!is_field_text(e.maid_id))
                e.error = "maid id \"" + shown(e.maid_id) + "\" cannot be sent";
            break;
        case dialcode_event::guest_service: {
            const std::string status = mgr_get_header(m, "Status");
            for (const auto& [name, rs] : {std::pair{"DND", "8"}, {"MUR", "9"}, {"OFF", "10"}})
                if (strcasecmp(status.c_str(), name) == 0) e.status = rs;
            if (e.status.empty())
                e.error = "status \"" + shown(status) + "\" is not DND, MUR or OFF";
            break;
        }
        case dialcode_event::wakeup:
        case dialcode_event::wakeup_clear: {
            const std::string time = mgr_get_header(m, "Time");
            const std::string date = mgr_get_header(m, "Date");
            if (e.kind == dialcode_event::wakeup_clear && time.empty()) break;  // all of them
            e.time = wake_time(time);
            if (e.time.empty()) {
                e.error = "time \"" + shown(time) + "\" is not HHMM or HHMMSS";
                break;
            }
            if (e.kind == dialcode_event::wakeup && !date.empty()) {
                const std::string why = bad_date(date, clock);
                if (!why.empty()) e.error = "date \"" + shown(date) + "\" " + why;
                e.date = date;
            } else {
                e.date = wake_date(e.time, clock);
            }
            break;
        }
        default:
            break;
    }
    return e;
}

std::string dialcode_record(const dialcode_event& e, const std::string& seq, const struct tm& now) {
    using kind = dialcode_event;
    const int type = e.kind == kind::minibar        ? FIAS_PS
                     : e.kind == kind::wakeup       ? FIAS_WR
                     : e.kind == kind::wakeup_clear ? FIAS_WC
                                                    : FIAS_RE;
    fias_packet_ptr rec = fias_create_packet(type);
    if (!rec) return {};
    auto set = [&](const char* field, const fias_value_t& v) {
        fias_set_packet_field(rec.get(), field, &v);
    };
    set("RN", text_value(e.room));
    switch (e.kind) {
        case kind::minibar: {
            set("P#", text_value(seq));
            set("PT", text_value("M"));
            if (!e.amount.empty()) {
                fias_value_t ta;
                ta.ival = static_cast<uint32_t>(std::stoul(e.amount));
                set("TA", ta);
            }
            fias_value_t da, ti;
            da.date = {static_cast<uint8_t>(now.tm_year % 100),
                       static_cast<uint8_t>(now.tm_mon + 1), static_cast<uint8_t>(now.tm_mday), 0};
            ti.time = {static_cast<uint8_t>(now.tm_hour), static_cast<uint8_t>(now.tm_min),
                       static_cast<uint8_t>(now.tm_sec), 0};
            set("DA", da);
            set("TI", ti);
            set("MA", text_value(e.article));
            set("M#", text_value(std::to_string(std::stoul(e.quantity))));
            break;
        }
        case kind::wakeup:
        case kind::wakeup_clear:
            // The clear-all form keeps its empty fields.
            if (e.time.empty()) return fias_packet_to_str(rec.get()) + "DA|TI|";
            set("DA", date_value(e.date));
            set("TI", time_value(e.time));
            break;
        case kind::voicemail:
            set("VM", text_value(e.counts));
            break;
        default:
            set("RS", text_value(e.status));
            if (!e.maid_id.empty()) set("ID", text_value(e.maid_id));
            break;
    }
    // Numbers go out as they are.
    return fias_packet_to_str(rec.get(), fias_codec_options{true});
}

namespace {

const char* title_of(dialcode_event::kind_t kind) {
    switch (kind) {
        case dialcode_event::minibar:
            return "Minibar";
        case dialcode_event::maid:
            return "Room status";
        case dialcode_event::wakeup:
            return "Wake-up";
        case dialcode_event::wakeup_clear:
            return "Wake-up clear";
        case dialcode_event::guest_service:
            return "Guest service";
        default:
            return "Voice mail";
    }
}

// "HH:MM:SS" of a "HHMMSS", for log lines.
std::string shown_time(const std::string& hms) {
    return hms.size() == 6 ? hms.substr(0, 2) + ":" + hms.substr(2, 2) + ":" + hms.substr(4) : hms;
}

// Stores and sends the record of a good event.
void send_record(const outbox_parts& parts, posting_sequence& sequence, const dialcode_event& e) {
    const time_t t = time(nullptr);
    struct tm now = local_tm(t);
    states_file::outbox_entry entry;
    entry.room = e.room;
    entry.kind = e.kind == dialcode_event::minibar        ? "PS"
                 : e.kind == dialcode_event::wakeup       ? "WR"
                 : e.kind == dialcode_event::wakeup_clear ? "WC"
                                                          : "RE";
    if (e.kind == dialcode_event::minibar) {
        entry.seq = next_free_number(sequence, parts.states);
        if (entry.seq.empty()) {
            LOG(L_ERROR, "Minibar of room %s not posted: every posting number waits for an answer",
                e.room.c_str());
            return;
        }
        entry.mark_key = minibar_outbox_key;
        entry.number = e.article;
        LOG(L_NOTICE, "Minibar of room %s: article %s, quantity %s%s%s (P#%s)", e.room.c_str(),
            e.article.c_str(), e.quantity.c_str(), e.amount.empty() ? "" : ", amount ",
            e.amount.c_str(), entry.seq.c_str());
    }
    entry.date = local_time_text(t, "%Y-%m-%d");
    entry.time = local_time_text(t, "%H:%M:%S");
    entry.record = dialcode_record(e, entry.seq, now);
    deliver(parts, entry);
}

// A wake-up from the room phone: to the PMS, and with [wakeup] call into
// the dialer with its steps. A booking the room has already sends nothing.
void phone_wakeup(const outbox_parts& parts, posting_sequence& sequence,
                  const phone_wakeups& wakeups, const dialcode_event& e) {
    LOG(L_NOTICE, "Wake-up from the phone of room %s: 20%s-%s-%s %s", e.room.c_str(),
        e.date.substr(0, 2).c_str(), e.date.substr(2, 2).c_str(), e.date.substr(4).c_str(),
        shown_time(e.time).c_str());
    const std::string record = dialcode_record(e, "", {});
    if (wakeups.book) {
        if (wakeups.book(e.room, e.date, e.time) != 1) return;
        if (wakeups.run_steps) wakeups.run_steps(record);
    }
    send_record(parts, sequence, e);
}

// A wake-up cleared from the room phone: one "WC" per booking cancelled;
// when there was none, and without [wakeup] call, the time dialled (dated by
// the rule) or, without a time, the clear-all form.
void phone_wakeup_clear(const outbox_parts& parts, posting_sequence& sequence,
                        const phone_wakeups& wakeups, dialcode_event e) {
    LOG(L_NOTICE, "Wake-up clear from the phone of room %s%s%s", e.room.c_str(),
        e.time.empty() ? "" : " at ", shown_time(e.time).c_str());
    if (!wakeups.cancel) {
        send_record(parts, sequence, e);
        return;
    }
    const auto cancelled = wakeups.cancel(e.room, e.time);
    for (const auto& [date, time] : cancelled) {
        e.date = date;
        e.time = time;
        if (wakeups.run_steps) wakeups.run_steps(dialcode_record(e, "", {}));
        send_record(parts, sequence, e);
    }
    // None: the time dialled, so that the PMS's own booking goes; or the
    // clear-all form.
    if (cancelled.empty()) send_record(parts, sequence, e);
}

}  // namespace

void attach_dialcodes(mgr_session& session, config_ptr cfg, const outbox_parts& parts,
                      posting_sequence& sequence, phone_wakeups wakeups) {
    auto handle = [cfg, parts, &sequence, wakeups](const message& m) {
        if (kind_of(*cfg, m) == dialcode_event::none) return;  // another program's event
        std::vector<std::string> rooms;
        if (parts.states.rooms().list(rooms) != 0)
            LOG(L_ERROR, "The rooms of the states file cannot be read");
        const dialcode_event e = read_dialcode_event(*cfg, rooms, m);
        if (e.kind == dialcode_event::none) {
            LOG(L_DEBUG, "Voice mail of a mailbox that is no room: ignored");
            return;
        }
        if (!e.error.empty()) {
            LOG(L_ERROR, "%s event \"%s\" dropped: %s", title_of(e.kind),
                shown(e.kind == dialcode_event::voicemail ? "MessageWaiting"
                                                          : mgr_get_header(m, "UserEvent"))
                    .c_str(),
                e.error.c_str());
            return;
        }
        switch (e.kind) {
            case dialcode_event::wakeup:
                phone_wakeup(parts, sequence, wakeups, e);
                return;
            case dialcode_event::wakeup_clear:
                phone_wakeup_clear(parts, sequence, wakeups, e);
                return;
            case dialcode_event::maid:
                LOG(L_NOTICE, "Room status of room %s: %s%s%s", e.room.c_str(), e.status.c_str(),
                    e.maid_id.empty() ? "" : ", maid ", e.maid_id.c_str());
                break;
            case dialcode_event::guest_service:
                LOG(L_NOTICE, "Guest service of room %s: RS%s", e.room.c_str(), e.status.c_str());
                break;
            case dialcode_event::voicemail:
                LOG(L_NOTICE, "Voice mail of room %s: %s new, %s old", e.room.c_str(),
                    e.counts.substr(0, 2).c_str(), e.counts.substr(2).c_str());
                break;
            default:
                break;
        }
        send_record(parts, sequence, e);
    };
    session.subscribe("UserEvent", handle);
    if (cfg->dialcodes.voicemail) session.subscribe("MessageWaiting", handle);
}

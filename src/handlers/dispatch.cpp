#include "handlers/dispatch.h"

#include <cstring>
#include <optional>
#include <thread>

#include "billing/answer.h"
#include "fias/charset.h"
#include "fias/codec.h"
#include "guest/handlers.h"
#include "logger.h"
#include "metrics.h"
#include "steps/context.h"

namespace {

// Whether a record type is handled under `cfg`: the optional types only
// with the feature that uses them ("LE" with any of them).
bool record_known(const config& cfg, int code) {
    switch (code) {
        case FIAS_GC:
            return cfg.guest_change || cfg.room_move || cfg.wakeup.call;
        case FIAS_DS:
        case FIAS_DE:
            return cfg.resync;
        case FIAS_NS:
        case FIAS_NE:
            return cfg.night_audit;
        case FIAS_LE:
            return cfg.guest_change || cfg.room_move || cfg.resync || cfg.night_audit;
        default:
            return true;
    }
}

// The optional record types that the link description announces ("LE" never).
fias_record_set announced_records(const config& cfg) {
    fias_record_set out = 0;
    for (int code : {FIAS_GC, FIAS_DS, FIAS_DE, FIAS_NS, FIAS_NE})
        if (record_known(cfg, code)) out |= fias_record_bit(code);
    return out;
}

// The fields of features that the link description announces: the message
// lamp with a lamp step, the minibar's, the maid's and the voice mail counts
// with their dial codes.
fias_field_set announced_fields(const config& cfg) {
    fias_field_set out = 0;
    if (cfg.mwi_on || cfg.mwi_off) out |= fias_field_lamp;
    if (cfg.dialcodes.minibar_event) out |= fias_field_minibar;
    if (cfg.dialcodes.maid_event) out |= fias_field_maid;
    if (cfg.dialcodes.voicemail) out |= fias_field_voicemail;
    return out;
}

// [fixes] room_numbers: whether a record's room number cannot be meant (empty,
// or longer than pms:room_max_length in the PMS's own characters); logged.
// A guest change's old room counts when it is given (an empty "RO" is no move).
bool room_refused(const config& cfg, fias_packet_t& p) {
    if (!cfg.fixes.room_numbers) return false;
    switch (p.packet_code) {
        case FIAS_GI:
        case FIAS_GO:
        case FIAS_GC:
        case FIAS_RE:
        case FIAS_WR:
        case FIAS_WC:
            break;
        default:
            return false;
    }
    const size_t max = static_cast<size_t>(cfg.room_max_length);
    const std::string room = field_text(fias_get_field(&p, "RN"));
    const std::string old = p.packet_code == FIAS_GC ? field_text(fias_get_field(&p, "RO")) : "";
    if (room.empty())
        LOG(L_ERROR, "%s record without a room number: no step runs", p.packet);
    else if (room.size() > max || old.size() > max)
        LOG(L_ERROR,
            "%s record whose room number (%s) is longer than pms:room_max_length = %zu: no step "
            "runs",
            p.packet, room.size() > max ? "RN" : "RO", max);
    else
        return false;
    return true;
}

// The text of field `name` of a record as it came (for values whose parsed
// form depends on [fixes]); "" when absent.
std::string raw_field(const std::string& data, const char* name) {
    for (size_t bar = data.find('|'); bar != std::string::npos; bar = data.find('|', bar + 1)) {
        if (data.compare(bar + 1, 2, name) != 0) continue;
        const size_t from = bar + 3;
        const size_t to = data.find_first_of("|\x03", from);
        return data.substr(from, to == std::string::npos ? std::string::npos : to - from);
    }
    return "";
}

// The dialer's part of a record ([wakeup] call): bookings, cancellations,
// check-outs and room moves. False when the record's own handler is not to
// run: with wake-ups booked from the room phone, a "WR" for a booking the
// room has already (the PMS echoing the phone's) runs no step.
bool tell_dialer(const config& cfg, wakeup_dialer& dialer, fias_packet_t& p,
                 const std::string& data) {
    const std::string room = field_text(fias_get_field(&p, "RN"));
    if (room.empty()) return true;
    switch (p.packet_code) {
        case FIAS_WR:
            return dialer.book(room, raw_field(data, "DA"), raw_field(data, "TI")) != 0 ||
                   !cfg.dialcodes.wakeup_event;
        case FIAS_WC:
            dialer.cancel(room, raw_field(data, "DA"), raw_field(data, "TI"));
            break;
        case FIAS_GO:
            dialer.check_out(room);
            break;
        case FIAS_GC: {
            const std::string old = field_text(fias_get_field(&p, "RO"));
            if (!old.empty() && old != room) dialer.move(old, room);
            break;
        }
        default:
            break;
    }
    return true;
}

// The PMS starts the link: answer with our description and "LA". A night
// audit or a resync of the previous start-up ends here, after the records
// that came before.
void do_link_start(const record_context& ctx, const record_parts& parts) {
    parts.in_order([&parts] {
        parts.audit.close("new link start-up");
        parts.sync.link_started();
    });
    const opt_text& interface = ctx.cfg->pmsinterface;
    ctx.link.init_connection(interface ? interface->c_str() : "", announced_records(*ctx.cfg),
                             announced_fields(*ctx.cfg));
}

// The PMS's "LA": postings may go out; with pms:resync the PMS is asked for
// its occupied rooms.
void do_link_active(const record_context& ctx, const record_parts& parts) {
    ctx.link.set_active();
    metrics::link_started();
    parts.sync.request(ctx);
}

// During a resync, a room whose guest is known already needs nothing.
void checkin(const record_context& ctx, const record_parts& parts) {
    if (!parts.sync.confirms(ctx)) do_checkin(ctx);
}

void resync_start(const record_context& ctx, const record_parts& parts) {
    parts.sync.start(ctx);
}

void resync_end(const record_context& ctx, const record_parts& parts) {
    // A room the resync checks out loses its wake-up calls, as with "GO".
    wakeup_dialer* dialer = ctx.cfg->wakeup.call ? parts.wakeup : nullptr;
    parts.sync.end(ctx, [&parts, dialer](const std::string& room, std::function<void()> job) {
        if (dialer) dialer->check_out(room);
        parts.for_room(room, std::move(job));
    });
}

void answer(const record_context& ctx, const record_parts& parts) {
    do_pa(ctx, parts.extensions, parts.sender);
}

void audit_start(const record_context& ctx, const record_parts& parts) {
    do_night_audit_start(ctx, parts.audit);
}

void audit_end(const record_context& ctx, const record_parts& parts) {
    do_night_audit_end(ctx, parts.audit);
}

// Handlers that need nothing but their record.
template <void (*handler)(const record_context&)>
void plain(const record_context& ctx, const record_parts&) {
    handler(ctx);
}

#define PLAIN(code, fn) \
    { code, plain<fn>, #fn }
// Record types not listed ("LD", "LR", "DR", "WA", "PS", "LE") are logged as
// received and otherwise ignored.
const handler_entry handlers[] = {
    {FIAS_LS, do_link_start, "do_link_start"},
    {FIAS_LA, do_link_active, "do_link_active"},
    {FIAS_GI, checkin, "do_checkin"},
    PLAIN(FIAS_GO, do_checkout),
    PLAIN(FIAS_RE, do_room_equip),
    PLAIN(FIAS_WC, do_wakeup_clear),
    PLAIN(FIAS_WR, do_wakeup_set),
    {FIAS_PA, answer, "do_pa"},
    PLAIN(FIAS_GC, do_guest_change),
    {FIAS_DS, resync_start, "do_resync_start"},
    {FIAS_DE, resync_end, "do_resync_end"},
    {FIAS_NS, audit_start, "do_night_audit_start"},
    {FIAS_NE, audit_end, "do_night_audit_end"},
};
// A check-in whose resync part already ran.
const handler_entry plain_checkin = PLAIN(FIAS_GI, do_checkin);
#undef PLAIN

}  // namespace

record_dispatcher::record_dispatcher(const record_parts& parts, bool ordered)
    : parts_(parts), ordered_(ordered) {
    parts_.in_order = [this](std::function<void()> job) { in_order(std::move(job)); };
    // Work of one room outside its record (a resync's check-outs): on the
    // room's queue when Manager actions are configured, else at once.
    parts_.for_room = [this](const std::string& room, std::function<void()> job) {
        if (parts_.configs.current()->uses_actions())
            room_jobs_.submit(room, std::move(job));
        else
            job();
    };
    if (ordered_) worker_.start([this] { run_ordered(); });
}

record_dispatcher::~record_dispatcher() {
    stop(std::chrono::steady_clock::now());
}

void record_dispatcher::process_fias_packet(const std::string& data) const {
    const config_ptr cfg = parts_.configs.current();
    fias_packet_ptr p = fias_parse_packet(
        data.c_str(), static_cast<int>(data.size()),
        {cfg->fixes.numbers, cfg->mwi_on || cfg->mwi_off ? fias_field_lamp : fias_field_set{0}});
    if (!p || !record_known(*cfg, p->packet_code)) {
        LOG(L_WARNING, "Can not parse FIAS packet %s", fias_shown(data.c_str()).c_str());
        return;
    }
    // With the sender, an answer's lines are written in one go once the next
    // posting went out: between an answer and the next posting nothing waits
    // for the log. (Only the next posting's write, bounded by
    // pms:write_timeout, can hold them.)
    std::optional<log_batch> batch;
    if (parts_.sender && p->packet_code == FIAS_PA) batch.emplace();
    LOG(L_NOTICE, "Received %s packet from PMS", p->desc);
    if (room_refused(*cfg, *p)) return;
    // Texts of a PMS with a character set of its own reach the statements as
    // UTF-8 when values are escaped.
    if (fill_options_of(*cfg).escape && cfg->pmsencoding)
        for (fias_field_t& f : p->fields)
            if (f.value && f.value->str) f.value->str = to_utf8(*f.value->str, *cfg->pmsencoding);
    if (cfg->wakeup.call && parts_.wakeup && !tell_dialer(*cfg, *parts_.wakeup, *p, data)) return;
    for (const handler_entry& e : handlers) {
        if (e.code != p->packet_code) continue;
        const fias_field_t* rn = fias_get_field(p.get(), "RN");
        // A posting answer never waits for a room's actions: the next
        // posting waits for it.
        if (!cfg->uses_actions() || !rn || is_link_record(data.c_str()) || e.code == FIAS_PA) {
            run_handler(e, cfg, *p);
            break;
        }
        // A room's records wait for its Manager actions; other rooms do not.
        // What a resync learns from a check-in is noted in arrival order, so
        // that its end sees every room announced before it.
        const handler_entry* run = &e;
        if (e.code == FIAS_GI) {
            if (parts_.sync.confirms(
                    {cfg, *p, parts_.link, parts_.states, e.name, parts_.manager.get()}))
                break;
            run = &plain_checkin;
        }
        std::shared_ptr<fias_packet_t> record(std::move(p));
        room_jobs_.submit(field_text(rn),
                          [this, run, cfg, record] { run_handler(*run, cfg, *record); });
        break;
    }
}

void record_dispatcher::run_own(const std::string& record) const {
    const config_ptr cfg = parts_.configs.current();
    fias_packet_ptr p =
        fias_parse_packet(record.c_str(), static_cast<int>(record.size()), {cfg->fixes.numbers, 0});
    if (!p) return;
    for (const handler_entry& e : handlers) {
        if (e.code != p->packet_code) continue;
        const std::string room = field_text(fias_get_field(p.get(), "RN"));
        std::shared_ptr<fias_packet_t> own(std::move(p));
        auto job = [this, &e, cfg, own] { run_handler(e, cfg, *own); };
        if (cfg->uses_actions())
            room_jobs_.submit(room, std::move(job));
        else
            job();
        return;
    }
}

void record_dispatcher::run_handler(const handler_entry& e, const config_ptr& cfg,
                                    fias_packet_t& record) const {
    const record_context ctx{cfg, record, parts_.link, parts_.states, e.name, parts_.manager.get()};
    // The guest's names are masked in every line the handler writes, when
    // names are hidden.
    const hidden_name name(field_text(fias_get_field(&record, "GN")));
    const hidden_name first_name(field_text(fias_get_field(&record, "GF")));
    e.handler(ctx, parts_);
}

// With the posting sender the next posting waits for this answer: one for a
// cached call (which touches the states file alone) is handled at once.
bool record_dispatcher::answered_at_once(const char* record) const {
    return parts_.sender && strncmp(record, "PA|", 3) == 0 && parts_.configs.current()->use_manager;
}

void record_dispatcher::handle(const char* record) {
    metrics::record_received(record);
    if (!ordered_) {
        std::thread([this, data = std::string(record)] { process_fias_packet(data); }).detach();
    } else if (is_link_record(record) || answered_at_once(record)) {
        process_fias_packet(record);
    } else {
        {
            mutex_lock guard(mutex_);
            queue_.push_back({record, nullptr});
        }
        changed_.notify_one();
    }
}

void record_dispatcher::in_order(std::function<void()> job) {
    if (!ordered_) return job();
    {
        mutex_lock guard(mutex_);
        queue_.push_back({"", std::move(job)});
    }
    changed_.notify_one();
}

bool record_dispatcher::stop(std::chrono::steady_clock::time_point deadline) {
    const bool rooms_done = room_jobs_.stop(deadline);
    {
        mutex_lock guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    return worker_.join_until(deadline) && rooms_done;
}

void record_dispatcher::run_ordered() {
    for (;;) {
        queued next;
        {
            mutex_lock guard(mutex_);
            while (queue_.empty() && !stopping_) changed_.wait(mutex_);
            if (queue_.empty()) return;  // stopping, and every record handled
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        if (next.job)
            next.job();
        else
            process_fias_packet(next.record);
    }
}

bool is_link_record(const char* data) {
    return data[0] == 'L' && (data[1] == 'S' || data[1] == 'A' || data[1] == 'E') &&
           (data[2] == '|' || data[2] == '\x03' || data[2] == '\0');
}

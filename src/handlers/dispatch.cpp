#include "handlers/dispatch.h"

#include "billing/answer.h"
#include "fias/charset.h"
#include "fias/codec.h"
#include "guest/handlers.h"
#include "handlers/night_audit.h"
#include "handlers/resync.h"
#include "logger.h"

namespace {

// Whether a record type is handled under `cfg`: the optional types only
// with the feature that uses them ("LE" with any of them).
bool record_known(const config& cfg, int code) {
    switch (code) {
        case FIAS_GC:
            return cfg.guest_change || cfg.room_move;
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

// The PMS starts the link: answer with our description and "LA". A night
// audit or a resync of the previous start-up ends here.
void do_link_start(const record_context& ctx) {
    night_audit().close("new link start-up");
    resync_link_started();
    const opt_text& interface = ctx.cfg->pmsinterface;
    ctx.link.init_connection(interface ? interface->c_str() : "", announced_records(*ctx.cfg));
}

// The PMS's "LA": postings may go out; with pms:resync the PMS is asked for
// its occupied rooms.
void do_link_active(const record_context& ctx) {
    ctx.link.set_active();
    resync_request(ctx);
}

using record_handler = void (*)(const record_context&);

struct handler_entry {
    int code;
    record_handler handler;
    const char* name;
};

#define HANDLER(code, fn) \
    { code, fn, #fn }
// Record types not listed ("LD", "LR", "DR", "WA", "PS", "LE") are logged as
// received and otherwise ignored.
const handler_entry handlers[] = {
    HANDLER(FIAS_LS, do_link_start),      HANDLER(FIAS_LA, do_link_active),
    HANDLER(FIAS_GI, do_checkin),         HANDLER(FIAS_GO, do_checkout),
    HANDLER(FIAS_RE, do_room_equip),      HANDLER(FIAS_WC, do_wakeup_clear),
    HANDLER(FIAS_WR, do_wakeup_set),      HANDLER(FIAS_PA, do_pa),
    HANDLER(FIAS_GC, do_guest_change),    HANDLER(FIAS_DS, do_resync_start),
    HANDLER(FIAS_DE, do_resync_end),      HANDLER(FIAS_NS, do_night_audit_start),
    HANDLER(FIAS_NE, do_night_audit_end),
};
#undef HANDLER

}  // namespace

void process_fias_packet(const config_loader& configs, pms_link& link, std::string data) {
    const config_ptr cfg = configs.current();
    fias_packet_ptr p = fias_parse_packet(data.c_str(), static_cast<int>(data.size()),
                                          fias_codec_options{cfg->fixes.numbers});
    if (!p || !record_known(*cfg, p->packet_code)) {
        LOG(L_WARNING, "Can not parse FIAS packet %s", data.c_str());
        return;
    }
    LOG(L_NOTICE, "Received %s packet from PMS", p->desc);
    // With [fixes] escape texts of a PMS with a character set of its own
    // reach the statements as UTF-8.
    if (cfg->fixes.escape && cfg->pmsencoding)
        for (fias_field_t& f : p->fields)
            if (f.value && f.value->str) f.value->str = to_utf8(*f.value->str, *cfg->pmsencoding);
    for (const handler_entry& e : handlers) {
        if (e.code != p->packet_code) continue;
        const record_context ctx{cfg, *p, link, e.name};
        e.handler(ctx);
        break;
    }
}

bool is_link_record(const char* data) {
    return data[0] == 'L' && (data[1] == 'S' || data[1] == 'A' || data[1] == 'E') &&
           (data[2] == '|' || data[2] == '\x03' || data[2] == '\0');
}

ordered_records::ordered_records(const config_loader& configs, pms_link& link)
    : configs_(configs), link_(link) {
    worker_.start([this] { run(); });
}

ordered_records::~ordered_records() {
    stop(std::chrono::steady_clock::now());
}

void ordered_records::push(std::string data) {
    {
        mutex_lock guard(mutex_);
        queue_.push_back(std::move(data));
    }
    changed_.notify_one();
}

bool ordered_records::stop(std::chrono::steady_clock::time_point deadline) {
    {
        mutex_lock guard(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    return worker_.join_until(deadline);
}

void ordered_records::run() {
    for (;;) {
        std::string data;
        {
            mutex_lock guard(mutex_);
            while (queue_.empty() && !stopping_) changed_.wait(mutex_);
            if (queue_.empty()) return;  // stopping, and every record handled
            data = std::move(queue_.front());
            queue_.pop_front();
        }
        process_fias_packet(configs_, link_, std::move(data));
    }
}

#include "handlers/dispatch.h"

#include "billing/answer.h"
#include "fias/charset.h"
#include "fias/codec.h"
#include "guest/handlers.h"
#include "logger.h"

namespace {

// The PMS starts the link: answer with our description and "LA".
void do_link_start(const record_context& ctx) {
    const opt_text& interface = ctx.cfg->pmsinterface;
    ctx.link.init_connection(interface ? interface->c_str() : "");
}

// The PMS's "LA": postings may go out.
void do_link_active(const record_context& ctx) {
    ctx.link.set_active();
}

using record_handler = void (*)(const record_context&);

struct handler_entry {
    int code;
    record_handler handler;
    const char* name;
};

#define HANDLER(code, fn) \
    { code, fn, #fn }
// Record types not listed ("LD", "LR", "DR", "WA", "PS") are logged as
// received and otherwise ignored.
const handler_entry handlers[] = {
    HANDLER(FIAS_LS, do_link_start), HANDLER(FIAS_LA, do_link_active),
    HANDLER(FIAS_GI, do_checkin),    HANDLER(FIAS_GO, do_checkout),
    HANDLER(FIAS_RE, do_room_equip), HANDLER(FIAS_WC, do_wakeup_clear),
    HANDLER(FIAS_WR, do_wakeup_set), HANDLER(FIAS_PA, do_pa),
};
#undef HANDLER

}  // namespace

void process_fias_packet(const config_loader& configs, pms_link& link, std::string data) {
    const config_ptr cfg = configs.current();
    fias_packet_ptr p = fias_parse_packet(data.c_str(), static_cast<int>(data.size()),
                                          fias_codec_options{cfg->fixes.numbers});
    if (!p) {
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

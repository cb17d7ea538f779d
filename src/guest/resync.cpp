#include "guest/resync.h"

#include "logger.h"
#include "process.h"

namespace {

// Runs services:checkout for a guest that the PMS no longer has.
void check_out(const record_context& ctx, const occupant& o) {
    const hidden_name guest(o.name);
    CTX_LOG(ctx, L_NOTICE, "\tRoom %s (%s) is not occupied on the PMS: checkout", o.room.c_str(),
            o.name.c_str());
    const fias_field_t rn = text_field("RN", o.room);
    const fias_field_t name = text_field("GN", o.name);
    const fias_field_t lang = text_field("GL", o.lang);
    ctx.states.occupancy().remove(o.room);
    run_service(ctx.escaping(), "checkout", ctx.cfg->checkout,
                {.rn = &rn, .name = &name, .lang = &lang});
    if (logger_hides_names()) ctx.states.forget_guest(o.room, {o.name});
}

}  // namespace

void resync::stop(const char* why) {
    running_ = false;
    announced_.clear();
    LOG(L_WARNING, "Database resync stopped before its end (%s): nothing is checked out", why);
}

void resync::request(const record_context& ctx) {
    if (!ctx.cfg->resync) return;
    if (ctx.link.send_dr() < 0) CTX_LOG(ctx, L_ERROR, "Unable to ask the PMS for a resync");
}

void resync::link_started() {
    mutex_lock guard(mutex_);
    if (running_) stop("the PMS started the link anew");
}

bool resync::running() {
    mutex_lock guard(mutex_);
    return running_;
}

void resync::watch(const pms_link& link) {
    mutex_lock guard(mutex_);
    if (!running_) return;
    if (!link.is_open() || link.link_number() != link_number_)
        stop("the link to the PMS was lost");
    else if (clock_type::now() - last_record_ > resync_stall_limit())
        stop("no record from the PMS for too long");
}

bool resync::confirms(const record_context& ctx) {
    if (!ctx.cfg->resync) return false;
    const fias_field_t* rn = fias_get_field(&ctx.record, "RN");
    if (!rn) return false;
    const std::string room = field_text(rn);
    {
        mutex_lock guard(mutex_);
        if (!running_) return false;
        announced_.insert(room);
        last_record_ = clock_type::now();
    }
    std::optional<occupant> o = ctx.states.occupancy().find(room);
    const bool same = o && o->name == field_text(fias_get_field(&ctx.record, "GN"));
    {
        mutex_lock guard(mutex_);
        (same ? confirmed_ : checked_in_)++;
    }
    if (same) CTX_LOG(ctx, L_NOTICE, "\tRoom %s confirmed by the PMS", room.c_str());
    return same;
}

void resync::start(const record_context& ctx) {
    watch(ctx.link);
    mutex_lock guard(mutex_);
    running_ = true;
    link_number_ = ctx.link.link_number();
    last_record_ = clock_type::now();
    announced_.clear();
    confirmed_ = checked_in_ = 0;
}

void resync::end(const record_context& ctx, const room_runner& run) {
    watch(ctx.link);
    std::set<std::string> announced;
    int confirmed, checked_in;
    {
        mutex_lock guard(mutex_);
        if (!running_) {
            CTX_LOG(ctx, L_WARNING,
                    "Database resync end without its start: nothing is checked out");
            return;
        }
        running_ = false;
        announced.swap(announced_);
        confirmed = confirmed_;
        checked_in = checked_in_;
    }
    std::vector<occupant> occupied;
    if (ctx.states.occupancy().all(occupied) != 0) {
        CTX_LOG(ctx, L_ERROR, "Database resync: occupancy unreadable, nothing is checked out");
        return;
    }
    int checked_out = 0;
    for (const occupant& o : occupied) {
        if (announced.count(o.room)) continue;
        // The job outlives this record: it works with a context of its own.
        run(o.room, [cfg = ctx.cfg, &link = ctx.link, &states = ctx.states, handler = ctx.handler,
                     manager = ctx.manager, o] {
            fias_packet_ptr none = fias_create_packet(FIAS_DE);
            check_out({cfg, *none, link, states, handler, manager}, o);
        });
        checked_out++;
    }
    CTX_LOG(ctx, L_NOTICE,
            "Database resync done: %d room(s) confirmed, %d checked in, %d checked out", confirmed,
            checked_in, checked_out);
}

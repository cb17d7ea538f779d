#include "handlers/resync.h"

#include <chrono>
#include <set>
#include <string>

#include "logger.h"
#include "process.h"
#include "states/occupancy.h"
#include "thread_annotations.h"

namespace {

using clock_type = std::chrono::steady_clock;

struct resync_state {
    annotated_mutex mutex;
    bool running GUARDED_BY(mutex) = false;
    unsigned link_number GUARDED_BY(mutex) = 0;
    clock_type::time_point last_record GUARDED_BY(mutex);
    std::set<std::string> announced GUARDED_BY(mutex);
    int confirmed GUARDED_BY(mutex) = 0;
    int checked_in GUARDED_BY(mutex) = 0;

    void stop(const char* why) REQUIRES(mutex) {
        running = false;
        announced.clear();
        LOG(L_WARNING, "Database resync stopped before its end (%s): nothing is checked out", why);
    }
};

resync_state& state() {
    static resync_state s;
    return s;
}

// Runs services:checkout for a guest that the PMS no longer has.
void check_out(const record_context& ctx, const occupant& o) {
    CTX_LOG(ctx, L_NOTICE, "\tRoom %s (%s) is not occupied on the PMS: checkout", o.room.c_str(),
            o.name.c_str());
    const fias_field_t rn = text_field("RN", o.room);
    const fias_field_t name = text_field("GN", o.name);
    const fias_field_t lang = text_field("GL", o.lang);
    occupancy_remove(ctx.cfg->statesfile, o.room);
    const record_context escaped{ctx.cfg, ctx.record, ctx.link, ctx.handler, true};
    run_service_template(escaped, ctx.cfg->checkout, &rn, &name, &lang, nullptr, nullptr, nullptr);
}

}  // namespace

void resync_request(const record_context& ctx) {
    if (!ctx.cfg->resync) return;
    if (ctx.link.send_dr() < 0) CTX_LOG(ctx, L_ERROR, "Unable to ask the PMS for a resync");
}

void resync_link_started() {
    resync_state& s = state();
    mutex_lock guard(s.mutex);
    if (s.running) s.stop("the PMS started the link anew");
}

void resync_watch(const pms_link& link) {
    resync_state& s = state();
    mutex_lock guard(s.mutex);
    if (!s.running) return;
    if (!link.is_open() || link.link_number() != s.link_number)
        s.stop("the link to the PMS was lost");
    else if (clock_type::now() - s.last_record > resync_stall_limit())
        s.stop("no record from the PMS for too long");
}

bool resync_confirms(const record_context& ctx) {
    if (!ctx.cfg->resync) return false;
    const fias_field_t* rn = fias_get_field(&ctx.record, "RN");
    if (!rn) return false;
    const std::string room = field_text(rn);
    resync_state& s = state();
    {
        mutex_lock guard(s.mutex);
        if (!s.running) return false;
        s.announced.insert(room);
        s.last_record = clock_type::now();
    }
    std::optional<occupant> o = occupancy_find(ctx.cfg->statesfile, room);
    const bool same = o && o->name == field_text(fias_get_field(&ctx.record, "GN"));
    {
        mutex_lock guard(s.mutex);
        (same ? s.confirmed : s.checked_in)++;
    }
    if (same) CTX_LOG(ctx, L_NOTICE, "\tRoom %s confirmed by the PMS", room.c_str());
    return same;
}

void do_resync_start(const record_context& ctx) {
    resync_watch(ctx.link);
    resync_state& s = state();
    mutex_lock guard(s.mutex);
    s.running = true;
    s.link_number = ctx.link.link_number();
    s.last_record = clock_type::now();
    s.announced.clear();
    s.confirmed = s.checked_in = 0;
}

void do_resync_end(const record_context& ctx) {
    resync_watch(ctx.link);
    resync_state& s = state();
    std::set<std::string> announced;
    int confirmed, checked_in;
    {
        mutex_lock guard(s.mutex);
        if (!s.running) {
            CTX_LOG(ctx, L_WARNING,
                    "Database resync end without its start: nothing is checked out");
            return;
        }
        s.running = false;
        announced.swap(s.announced);
        confirmed = s.confirmed;
        checked_in = s.checked_in;
    }
    std::vector<occupant> occupied;
    if (occupancy_list(ctx.cfg->statesfile, occupied) != 0) {
        CTX_LOG(ctx, L_ERROR, "Database resync: occupancy unreadable, nothing is checked out");
        return;
    }
    int checked_out = 0;
    for (const occupant& o : occupied) {
        if (announced.count(o.room)) continue;
        check_out(ctx, o);
        checked_out++;
    }
    CTX_LOG(ctx, L_NOTICE,
            "Database resync done: %d room(s) confirmed, %d checked in, %d checked out", confirmed,
            checked_in, checked_out);
}

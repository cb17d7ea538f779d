// Check-in and check-out: the states file's `rooms` table, then the PBX template.
#include "guest/handlers.h"
#include "logger.h"
#include "states/states.h"

namespace {

// The guest details that check-in and check-out both log.
struct guest_fields {
    fias_field_t* name;
    fias_field_t* lang;
    fias_field_t* shared;
};

guest_fields log_guest(const record_context& ctx) {
    fias_packet_t* p = &ctx.record;
    guest_fields g{fias_get_field(p, "GN"), fias_get_field(p, "GL"), fias_get_field(p, "GS")};
    if (g.name) CTX_LOG(ctx, L_NOTICE, "\tName: %s", field_text(g.name));
    if (g.lang) CTX_LOG(ctx, L_NOTICE, "\tLanguage: %s", field_text(g.lang));
    if (g.shared) CTX_LOG(ctx, L_NOTICE, "\tShared: %d", g.shared->value->bval);
    return g;
}

}  // namespace

void do_checkin(const record_context& ctx) {
    LOG(L_NOTICE, "Checkin");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    guest_fields g = log_guest(ctx);

    // The states file is closed after the row is written, and, being marked
    // open, never opened again: later statements on it fail for the rest of
    // the process.
    const std::string& statesfile = ctx.cfg->statesfile;
    const fixes_settings& fixes = ctx.cfg->fixes;
    if (states_store_room(statesfile, field_text(rn), !fixes.states_file, fixes.dates) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", statesfile.c_str());
        return;
    }
    run_service_template(ctx, ctx.cfg->checkin, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

void do_checkout(const record_context& ctx) {
    LOG(L_NOTICE, "Checkout");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    guest_fields g = log_guest(ctx);

    const std::string& statesfile = ctx.cfg->statesfile;
    if (states_remove_room(statesfile, field_text(rn)) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", statesfile.c_str());
        return;
    }
    run_service_template(ctx, ctx.cfg->checkout, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

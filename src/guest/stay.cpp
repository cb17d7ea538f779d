// Check-in, check-out and guest change: the states file's `rooms` table and
// the occupancy, then the PBX template.
#include <cstring>

#include "guest/handlers.h"
#include "logger.h"

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

// The room move's statement with "%oldexten%" filled in (quotes doubled);
// nothing when the old room cannot go into a template.
opt_text with_old_room(const record_context& ctx, const opt_text& service, const char* old_room) {
    if (!service) return service;
    if (strchr(old_room, '%')) {
        CTX_LOG(ctx, L_ERROR, "Old room \"%s\" has a \"%%\": services:room_move not run", old_room);
        return std::nullopt;
    }
    std::string out = *service;
    const std::string token = "%oldexten%";
    std::string value;
    for (const char* c = old_room; *c; c++) value.append(*c == '\'' ? 2 : 1, *c);
    for (size_t at = out.find(token); at != std::string::npos; at = out.find(token, at)) {
        out.replace(at, token.size(), value);
        at += value.size();
    }
    return out;
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
    states_file& states = ctx.states;
    if (states.store_room(field_text(rn), !ctx.cfg->fixes.states_file,
                          fill_options_of(*ctx.cfg).dates) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", states.path().c_str());
        return;
    }
    if (keeps_occupancy(*ctx.cfg))
        states.put_guest({field_text(rn), field_text(g.name), field_text(g.lang), ""});
    run_service_template(ctx, ctx.cfg->checkin, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

void do_checkout(const record_context& ctx) {
    LOG(L_NOTICE, "Checkout");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    guest_fields g = log_guest(ctx);

    if (ctx.states.remove_room(field_text(rn)) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", ctx.states.path().c_str());
        return;
    }
    if (keeps_occupancy(*ctx.cfg)) ctx.states.remove_guest(field_text(rn));
    run_service_template(ctx, ctx.cfg->checkout, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

void do_guest_change(const record_context& ctx) {
    const fias_field_t* ro = fias_get_field(&ctx.record, "RO");
    const fias_field_t* rn_sent = fias_get_field(&ctx.record, "RN");
    // An old room that is the room itself moves nobody.
    const bool move = *field_text(ro) && strcmp(field_text(ro), field_text(rn_sent)) != 0;
    LOG(L_NOTICE, move ? "Room move" : "Guest change");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    if (move) CTX_LOG(ctx, L_NOTICE, "\tOld room: %s", field_text(ro));
    guest_fields g = log_guest(ctx);

    // The guest keeps what the record does not correct, and the time of
    // arrival; the old room stays billed, so that its calls are still posted
    // under its number.
    const std::string room = field_text(rn);
    std::optional<occupant> before = ctx.states.find_guest(move ? field_text(ro) : room);
    auto kept = [&](const fias_field_t* f, std::string occupant::*part) {
        return f ? std::string(field_text(f)) : before ? *before.*part : std::string();
    };
    occupant now{room, kept(g.name, &occupant::name), kept(g.lang, &occupant::lang),
                 before ? before->since : ""};
    ctx.states.put_guest(now);
    if (move) {
        ctx.states.remove_guest(field_text(ro));
        ctx.states.store_room(room, false, fill_options_of(*ctx.cfg).dates);
    }
    const fias_field_t name = text_field("GN", now.name);
    const fias_field_t lang = text_field("GL", now.lang);
    const opt_text service =
        move ? with_old_room(ctx, ctx.cfg->room_move, field_text(ro)) : ctx.cfg->guest_change;
    run_service_template(ctx.escaping(), service, rn, &name, &lang, g.shared, nullptr, nullptr);
}

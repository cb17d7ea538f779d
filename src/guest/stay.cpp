// Check-in, check-out and guest change: the states file's `rooms` table and
// the occupancy, then the PBX template.
#include <algorithm>
#include <cstring>

#include "guest/handlers.h"
#include "logger.h"
#include "text.h"

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

// A room move's step with "%oldexten%" filled in (quotes doubled in a
// statement); nothing when the old room cannot go into a template.
opt_text with_old_room(const record_context& ctx, const std::string& service,
                       const char* old_room) {
    if (strchr(old_room, '%')) {
        CTX_LOG(ctx, L_ERROR, "Old room \"%s\" has a \"%%\": services:room_move not run", old_room);
        return std::nullopt;
    }
    const bool statement = service.rfind("ami:", 0) != 0;
    return replace_all(service, "%oldexten%", statement ? sql_quoted(old_room) : old_room);
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
    if (states.rooms().store(field_text(rn), !ctx.cfg->fixes.states_file,
                             fill_options_of(*ctx.cfg).dates) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", states.path().c_str());
        return;
    }
    if (keeps_occupancy(*ctx.cfg))
        states.occupancy().put({field_text(rn), field_text(g.name), field_text(g.lang), ""});
    run_service(ctx, "checkin", ctx.cfg->checkin,
                {.rn = rn, .name = g.name, .lang = g.lang, .shared = g.shared});
}

void do_checkout(const record_context& ctx) {
    LOG(L_NOTICE, "Checkout");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    guest_fields g = log_guest(ctx);

    if (ctx.states.rooms().remove(field_text(rn)) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", ctx.states.path().c_str());
        return;
    }
    // With names hidden the guest's name leaves the states file too, also
    // from what the check-out itself queued.
    const bool forget = logger_hides_names();
    const std::optional<occupant> stayed =
        forget ? ctx.states.occupancy().find(field_text(rn)) : std::nullopt;
    if (keeps_occupancy(*ctx.cfg)) ctx.states.occupancy().remove(field_text(rn));
    run_service(ctx, "checkout", ctx.cfg->checkout,
                {.rn = rn, .name = g.name, .lang = g.lang, .shared = g.shared});
    if (forget)
        ctx.states.forget_guest(field_text(rn), {field_text(g.name), stayed ? stayed->name : ""});
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
    std::optional<occupant> before = ctx.states.occupancy().find(move ? field_text(ro) : room);
    auto kept = [&](const fias_field_t* f, std::string occupant::*part) {
        return f ? std::string(field_text(f)) : before ? *before.*part : std::string();
    };
    occupant now{room, kept(g.name, &occupant::name), kept(g.lang, &occupant::lang),
                 before ? before->since : ""};
    const hidden_name kept_name(now.name);
    ctx.states.occupancy().put(now);
    if (move) {
        ctx.states.occupancy().remove(field_text(ro));
        ctx.states.rooms().store(room, false, fill_options_of(*ctx.cfg).dates);
    }
    const fias_field_t name = text_field("GN", now.name);
    const fias_field_t lang = text_field("GL", now.lang);
    const step_fields f{.rn = rn, .name = &name, .lang = &lang, .shared = g.shared};
    if (!move) {
        run_service(ctx.escaping(), "guest_change", ctx.cfg->guest_change, f);
        return;
    }
    // The i-th extension of the new room pairs with the i-th of the old one
    // (its last, when it has fewer).
    const std::vector<std::string> old_extensions = ctx.cfg->extensions_of(field_text(ro));
    run_service(ctx.escaping(), "room_move", ctx.cfg->room_move, f,
                [&](const std::string& step, size_t i) {
                    const size_t pick = std::min(i, old_extensions.size() - 1);
                    return with_old_room(ctx, step, old_extensions[pick].c_str());
                });
}

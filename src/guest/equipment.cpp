// Room equipment (phone barring, do-not-disturb) and wake-up calls.
#include <cstring>

#include "guest/handlers.h"
#include "logger.h"

namespace {

void do_wakeup(const record_context& ctx, const char* title, const char* key,
               const opt_text& service) {
    CTX_LOG(ctx, L_NOTICE, "%s", title);
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    fias_field_t* da = fias_get_field(&ctx.record, "DA");
    fias_field_t* ti = fias_get_field(&ctx.record, "TI");
    log_date_time(ctx, da, ti);
    run_service(ctx, key, service, {.rn = rn, .date = da, .time = ti});
}

}  // namespace

void do_room_equip(const record_context& ctx) {
    const config& cfg = *ctx.cfg;
    LOG(L_NOTICE, "Room equipment request");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    fias_field_t* cs = fias_get_field(&ctx.record, "CS");
    fias_field_t* dn = fias_get_field(&ctx.record, "DN");

    // Class of service 0 means barred; any other class lifts the bar.
    if (cs) {
        if (cs->value->ival != 0) {
            LOG(L_NOTICE, "Phone bar off");
            run_service(ctx, "bareoff", cfg.bareoff, {.rn = rn});
        } else {
            LOG(L_NOTICE, "Phone bar on");
            run_service(ctx, "bareon", cfg.bareon, {.rn = rn});
        }
    }

    // The guard of each branch is another setting than the template it runs:
    // DND on is acted upon only when a bar-off template exists, DND off only
    // when a DND-on template exists. With [fixes] dnd_keys each is guarded by
    // its own template.
    const bool own = cfg.fixes.dnd_keys;
    if (dn && dn->value->bval != 0) {
        LOG(L_NOTICE, "Phone DND on");
        if (own ? cfg.dndon : cfg.bareoff) run_service(ctx, "dndon", cfg.dndon, {.rn = rn});
    } else if (dn) {
        LOG(L_NOTICE, "Phone DND off");
        if (own ? cfg.dndoff : cfg.dndon) run_service(ctx, "dndoff", cfg.dndoff, {.rn = rn});
    }

    // The message lamp, only when the record says how it is to be.
    fias_field_t* ml = fias_get_field(&ctx.record, "ML");
    if (!ml || !(cfg.mwi_on || cfg.mwi_off)) return;
    if (strcmp(field_text(ml), "Y") == 0) {
        LOG(L_NOTICE, "Message lamp on");
        run_service(ctx, "mwi_on", cfg.mwi_on, {.rn = rn});
    } else {
        LOG(L_NOTICE, "Message lamp off");
        run_service(ctx, "mwi_off", cfg.mwi_off, {.rn = rn});
    }
}

void do_wakeup_set(const record_context& ctx) {
    do_wakeup(ctx, "Wakeup set", "wakeup_set", ctx.cfg->wakeup_set);
}

void do_wakeup_clear(const record_context& ctx) {
    do_wakeup(ctx, "Wakeup clear", "wakeup_clear", ctx.cfg->wakeup_clear);
}

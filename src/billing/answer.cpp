#include "billing/answer.h"

#include <strings.h>

#include "billing/templates.h"
#include "logger.h"
#include "states/states.h"

void do_pa(const record_context& ctx) {
    LOG(L_NOTICE, "Posting answer");
    fias_field_t* rn = room_field(ctx);
    if (!rn) return;
    fias_packet_t* p = &ctx.record;
    fias_field_t* da = fias_get_field(p, "DA");
    fias_field_t* ti = fias_get_field(p, "TI");
    log_date_time(ctx, da, ti);
    fias_field_t* seq = fias_get_field(p, "P#");
    if (!seq) {
        LOG(L_NOTICE, "\tAnswer not contains p#\n");
        return;
    }
    fias_field_t* as = fias_get_field(p, "AS");
    const char* answer = as ? field_text(as) : nullptr;
    if (answer) LOG(L_NOTICE, "\tAnswer is: %s", answer);
    // An answer without "AS" counts as refused.
    const bool accepted = answer && strncasecmp(answer, "OK", 2) == 0;
    const bool posting = ctx.cfg->fixes.posting;
    // With [fixes] posting an answer settles its posting (or its copy).
    if (posting) ctx.link.posting_answered(field_text(seq));
    if (!accepted) {
        LOG(L_WARNING, "Non-OK answer on Post call. Please check");
        // It stays marked as sent: it is settled on the PMS's side.
        if (posting)
            LOG(L_WARNING, "Posting P#%s of room %s refused by the PMS: %s", field_text(seq),
                field_text(rn), answer ? answer : "(no answer text)");
        return;
    }

    if (ctx.cfg->use_manager) {
        // With [fixes] posting the accepted call is removed by its own row,
        // or marked, matched with the date's own month.
        fill_options fill = fill_options_of(*ctx.cfg);
        const char* templ = ctx.cfg->noremovecalls ? pa_mark_statement : pa_remove_statement;
        if (posting) {
            templ = ctx.cfg->noremovecalls ? pa_mark_statement : pa_remove_own_statement;
            fill.dates = fill.escape = fill.percent = true;
        }
        std::string statement =
            prepare_query(&sqliteint, templ, rn, nullptr, nullptr, nullptr, da, ti, seq, fill);
        LOG(L_DEBUG, "OK query is: %s\n", statement.c_str());
        db_lock guard(sqliteint);
        sqliteint.query(statement.c_str());
        return;
    }

    run_service_template(ctx, ctx.cfg->billok, rn, nullptr, nullptr, nullptr, da, ti, seq);
}

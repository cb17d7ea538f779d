#include "billing/answer.h"

#include <strings.h>

#include "billing/outbox.h"
#include "logger.h"
#include "metrics.h"

void do_pa(const record_context& ctx, posting_extensions& extensions) {
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
    const posting_policy policy(*ctx.cfg);
    // An answer settles a posting of the outbox once it was acted on (a
    // restart in between sends the posting again, and its answer is acted on
    // again). With [fixes] posting every posting is there, and an answer to
    // one that is not waiting (answered already, or never sent) changes
    // nothing, so that nothing is marked twice.
    std::optional<states_file::outbox_entry> posting;
    if (ctx.cfg->uses_outbox()) posting = ctx.states.outbox().waiting(field_text(seq));
    if (!posting && policy.keeps_outbox()) {
        LOG(L_NOTICE, "Answer to posting P#%s of room %s, which waits for none: nothing is marked",
            field_text(seq), field_text(rn));
        return;
    }
    const std::string extension =
        posting ? posting->extension : extensions.extension_of(field_text(seq));
    struct settle {
        states_file& states;
        const std::optional<states_file::outbox_entry>& posting;
        ~settle() {
            if (posting) states.outbox().answered(posting->id);
        }
    } settled{ctx.states, posting};
    accepted ? metrics::posting_accepted() : metrics::posting_refused();
    // A minibar posting: the answer settles it and nothing else.
    if (posting && posting->mark_key == minibar_outbox_key) {
        if (accepted)
            LOG(L_NOTICE, "Minibar posting P#%s of room %s accepted", field_text(seq),
                field_text(rn));
        else
            LOG(L_WARNING, "Minibar posting P#%s of room %s refused by the PMS: %s",
                field_text(seq), field_text(rn), answer ? answer : "(no answer text)");
        return;
    }
    if (!accepted) {
        LOG(L_WARNING, "Non-OK answer on Post call. Please check");
        // It stays marked as sent: it is settled on the PMS's side.
        if (policy.names_refusals())
            LOG(L_WARNING, "Posting P#%s of room %s refused by the PMS: %s", field_text(seq),
                field_text(rn), answer ? answer : "(no answer text)");
        return;
    }

    if (ctx.cfg->use_manager) {
        ctx.states.calls().accept(policy.accepted(), rn, da, ti, seq,
                                  policy.answer_fill(fill_options_of(*ctx.cfg)));
        return;
    }

    // With [extensions], %exten% is the extension that made the call.
    const fias_field_t made_by = text_field("RN", extension);
    run_service(ctx, "billok", ctx.cfg->billok,
                {.rn = extension.empty() ? rn : &made_by,
                 .date = da,
                 .time = ti,
                 .seq = seq,
                 .room = extension.empty() ? nullptr : field_text(rn)});
}

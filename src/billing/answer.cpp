#include "billing/answer.h"

#include <strings.h>

#include "billing/outbox.h"
#include "billing/sender.h"
#include "logger.h"
#include "metrics.h"

namespace {

// Runs services:billok for an accepted answer (`extension`: the extension
// that made the call, with [extensions]). False when its statement failed.
bool run_billok(const record_context& ctx, const std::string& extension) {
    fias_packet_t* p = &ctx.record;
    fias_field_t* rn = fias_get_field(p, "RN");
    // With [extensions], %exten% is the extension that made the call.
    const fias_field_t made_by = text_field("RN", extension);
    return run_service(ctx, "billok", ctx.cfg->billok,
                       {.rn = extension.empty() ? rn : &made_by,
                        .date = fias_get_field(p, "DA"),
                        .time = fias_get_field(p, "TI"),
                        .seq = fias_get_field(p, "P#"),
                        .room = extension.empty() ? nullptr : field_text(rn)}) >= 0;
}

void billok_failed(const char* seq, const char* room) {
    metrics::billok_failed();
    LOG(L_ERROR,
        "services:billok of posting P#%s of room %s failed: it runs again with the next "
        "billing cycle",
        seq, room);
}

}  // namespace

void do_pa(const record_context& ctx, posting_extensions& extensions, posting_sender* sender) {
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
    extensions.answered(field_text(seq));
    fias_field_t* as = fias_get_field(p, "AS");
    const char* answer = as ? field_text(as) : nullptr;
    if (answer) LOG(L_NOTICE, "\tAnswer is: %s", answer);
    // An answer without "AS" counts as refused.
    const bool accepted = answer && strncasecmp(answer, "OK", 2) == 0;
    const posting_policy policy(*ctx.cfg);
    // With the outbox the answer settles its posting before it acts, in one
    // step, so that two answers for one posting act once; with [fixes]
    // posting every posting is there, and an answer to one that is not
    // waiting changes nothing. An accepted answer whose services:billok is
    // to run leaves it due, until it ran.
    std::optional<states_file::outbox_entry> posting;
    if (ctx.cfg->uses_outbox()) {
        const bool billok = accepted && !ctx.cfg->use_manager && ctx.cfg->billok;
        posting = ctx.states.outbox().settle_answer(
            field_text(seq), billok ? "billok" : "",
            billok ? fias_packet_to_str(p, {ctx.cfg->fixes.numbers, 0}) : "", sender != nullptr);
    }
    // The sender goes on once the answer was acted on, whichever way.
    struct tell_sender {
        posting_sender* sender;
        long id;
        ~tell_sender() {
            if (sender && id > 0) sender->answered(id);
        }
    } told{sender, posting ? posting->id : 0};
    if (!posting && policy.keeps_outbox()) {
        LOG(L_NOTICE, "Answer to posting P#%s of room %s, which waits for none: nothing is marked",
            field_text(seq), field_text(rn));
        return;
    }
    const std::string extension =
        posting ? posting->extension : extensions.extension_of(field_text(seq));
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
                                  policy.answer_fill(fill_options_of(*ctx.cfg)), sender != nullptr);
        return;
    }
    const bool ran = run_billok(ctx, extension);
    if (!posting || !ctx.cfg->billok) return;
    if (ran)
        ctx.states.outbox().marked(posting->id);
    else
        billok_failed(field_text(seq), field_text(rn));
}

void run_due_billok(const config_ptr& cfg, pms_link& link, states_file& states,
                    const outbox_entry& e) {
    fias_packet_ptr p = fias_parse_packet(e.answer.c_str(), static_cast<int>(e.answer.size()),
                                          {cfg->fixes.numbers, 0});
    if (!p || !cfg->billok) {
        LOG(L_ERROR, "services:billok of posting P#%s of room %s cannot run again: it is dropped",
            e.seq.c_str(), e.room.c_str());
        states.outbox().marked(e.id);
        return;
    }
    const record_context ctx{cfg, *p, link, states, "do_pa", nullptr};
    if (run_billok(ctx, e.extension))
        states.outbox().marked(e.id);
    else
        billok_failed(e.seq.c_str(), e.room.c_str());
}

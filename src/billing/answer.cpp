#include "billing/answer.h"

#include <strings.h>

#include <mutex>

#include "billing/templates.h"
#include "config.h"
#include "db/sqlite.h"
#include "guest/dispatch.h"
#include "logger.h"

// Sent as it stands (it has no "where"), so SQLite refuses it and the cached
// call stays; with services:noremovecalls the mark statement runs instead.
const char* const pa_remove_statement =
    "delete from cdrcache src='%exten%' and date(start)='%date%' and time(start)='%time%'";
const char* const pa_mark_statement =
    "update cdrcache set userfield='%seqno%' where src='%exten%' and date(start)='%date%' and "
    "time(start)='%time%'";

void do_pa(fias_packet_t* p) {
    config_ptr cfg = current_config();
    LOG(L_NOTICE, "Posting answer");
    fias_field_t* rn = room_field(p);
    if (!rn) return;
    fias_field_t* da = fias_get_field(p, "DA");
    fias_field_t* ti = fias_get_field(p, "TI");
    log_date_time(da, ti);
    fias_field_t* seq = fias_get_field(p, "P#");
    if (!seq) {
        LOG(L_NOTICE, "\tAnswer not contains p#\n");
        return;
    }
    fias_field_t* as = fias_get_field(p, "AS");
    const char* answer = as ? field_text(as) : nullptr;
    if (answer) LOG(L_NOTICE, "\tAnswer is: %s", answer);
    // An answer without "AS" counts as refused.
    if (!answer || strncasecmp(answer, "OK", 2) != 0) {
        LOG(L_WARNING, "Non-OK answer on Post call. Please check");
        return;
    }

    if (cfg->use_manager) {
        const char* templ = cfg->noremovecalls ? pa_mark_statement : pa_remove_statement;
        std::string statement =
            prepare_query(&sqliteint, templ, rn, nullptr, nullptr, nullptr, da, ti, seq);
        LOG(L_DEBUG, "OK query is: %s\n", statement.c_str());
        std::lock_guard<dbdriver_t> guard(sqliteint);
        sqliteint.query(statement.c_str());
        return;
    }

    run_service_template(cfg->billok, rn, nullptr, nullptr, nullptr, da, ti, seq);
}

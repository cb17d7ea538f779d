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
    fias_field_t* rn = fias_get_field(p, "RN");
    if (!rn) {
        LOG(L_ERROR, "No room number");
        return;
    }
    LOG(L_NOTICE, "\tRoom number: %s", rn->value->str ? rn->value->str->c_str() : "");
    fias_field_t* da = fias_get_field(p, "DA");
    fias_field_t* ti = fias_get_field(p, "TI");
    if (da) {
        const fias_date_t& d = da->value->date;
        LOG(L_NOTICE, "\tDate: %02d-%02d-%02d", d.year, d.month, d.day);
    }
    if (ti) {
        const fias_time_t& t = ti->value->time;
        LOG(L_NOTICE, "\tTime: %02d:%02d:%02d", t.hour, t.min, t.sec);
    }
    fias_field_t* seq = fias_get_field(p, "P#");
    if (!seq) {
        LOG(L_NOTICE, "\tAnswer not contains p#\n");
        return;
    }
    fias_field_t* as = fias_get_field(p, "AS");
    const char* answer = as && as->value->str ? as->value->str->c_str() : nullptr;
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

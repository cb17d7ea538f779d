// Check-in and check-out: the internal `rooms` table, then the PBX template.
#include <cstdio>
#include <ctime>
#include <mutex>

#include "db/sqlite.h"
#include "guest/dispatch.h"
#include "logger.h"

namespace {

// The guest details that check-in and check-out both log.
struct guest_fields {
    fias_field_t* name;
    fias_field_t* lang;
    fias_field_t* shared;
};

guest_fields log_guest(fias_packet_t* p) {
    guest_fields g{fias_get_field(p, "GN"), fias_get_field(p, "GL"), fias_get_field(p, "GS")};
    if (g.name) LOG(L_NOTICE, "\tName: %s", field_text(g.name));
    if (g.lang) LOG(L_NOTICE, "\tLanguage: %s", field_text(g.lang));
    if (g.shared) LOG(L_NOTICE, "\tShared: %d", g.shared->value->bval);
    return g;
}

// Runs one statement on the internal database. With `close_after` the
// database is closed afterwards, and, being marked open, never opened again:
// later statements on it fail for the rest of the process.
bool run_on_states_file(const std::string& statesfile, const char* statement, bool close_after) {
    std::lock_guard<dbdriver_t> guard(sqliteint);
    if (sqliteint.connect(nullptr, 0, nullptr, nullptr, statesfile.c_str()) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", statesfile.c_str());
        return false;
    }
    sqliteint.query(statement);
    if (close_after) sqliteint.close();
    return true;
}

}  // namespace

void do_checkin(fias_packet_t* p) {
    config_ptr cfg = current_config();
    LOG(L_NOTICE, "Checkin");
    fias_field_t* rn = room_field(p);
    if (!rn) return;
    guest_fields g = log_guest(p);

    // Both stamps are formatted into the same text, the time over the date:
    // the row gets the time of day as its date and an empty time.
    char stamp[32] = "";
    char empty[32] = "";
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, sqliteint.dateformat, &tmv);
    strftime(stamp, sizeof stamp, sqliteint.timeformat, &tmv);

    char statement[256];
    snprintf(statement, sizeof statement, "replace into rooms values ('%s','%s','%s',0)",
             field_text(rn), stamp, empty);
    if (!run_on_states_file(cfg->statesfile, statement, true)) return;

    run_service_template(cfg->checkin, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

void do_checkout(fias_packet_t* p) {
    config_ptr cfg = current_config();
    LOG(L_NOTICE, "Checkout");
    fias_field_t* rn = room_field(p);
    if (!rn) return;
    guest_fields g = log_guest(p);

    char statement[256];
    snprintf(statement, sizeof statement, "delete from rooms where room='%s'", field_text(rn));
    if (!run_on_states_file(cfg->statesfile, statement, false)) return;

    run_service_template(cfg->checkout, rn, g.name, g.lang, g.shared, nullptr, nullptr);
}

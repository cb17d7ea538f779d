// Room equipment (phone barring, do-not-disturb) and wake-up calls.
#include "guest/dispatch.h"
#include "logger.h"

namespace {

void do_wakeup(fias_packet_t* p, const char* title, const opt_text& service) {
    LOG(L_NOTICE, "%s", title);
    fias_field_t* rn = room_field(p);
    if (!rn) return;
    fias_field_t* da = fias_get_field(p, "DA");
    fias_field_t* ti = fias_get_field(p, "TI");
    log_date_time(da, ti);
    run_service_template(service, rn, nullptr, nullptr, nullptr, da, ti);
}

}  // namespace

void do_room_equip(fias_packet_t* p) {
    config_ptr cfg = current_config();
    LOG(L_NOTICE, "Room equipment request");
    fias_field_t* rn = room_field(p);
    if (!rn) return;
    fias_field_t* cs = fias_get_field(p, "CS");
    fias_field_t* dn = fias_get_field(p, "DN");

    // Class of service 0 means barred; any other class lifts the bar.
    if (cs) {
        if (cs->value->ival != 0) {
            LOG(L_NOTICE, "Phone bar off");
            run_service_template(cfg->bareoff, rn, nullptr, nullptr, nullptr, nullptr, nullptr);
        } else {
            LOG(L_NOTICE, "Phone bar on");
            run_service_template(cfg->bareon, rn, nullptr, nullptr, nullptr, nullptr, nullptr);
        }
    }

    // The guard of each branch is another setting than the template it runs:
    // DND on is acted upon only when a bar-off template exists, DND off only
    // when a DND-on template exists.
    if (dn) {
        if (dn->value->bval != 0) {
            LOG(L_NOTICE, "Phone DND on");
            if (!cfg->bareoff) return;
            run_service_template(cfg->dndon, rn, nullptr, nullptr, nullptr, nullptr, nullptr);
        } else {
            LOG(L_NOTICE, "Phone DND off");
            if (!cfg->dndon) return;
            run_service_template(cfg->dndoff, rn, nullptr, nullptr, nullptr, nullptr, nullptr);
        }
    }
}

void do_wakeup_set(fias_packet_t* p) { do_wakeup(p, "Wakeup set", current_config()->wakeup_set); }

void do_wakeup_clear(fias_packet_t* p) {
    do_wakeup(p, "Wakeup clear", current_config()->wakeup_clear);
}

#include "guest/dispatch.h"

#include <mutex>

#include "billing/answer.h"
#include "billing/templates.h"
#include "db/registry.h"
#include "fias/codec.h"
#include "fias/link.h"
#include "logger.h"

void process_fias_packet(std::string data) {
    fias_packet_ptr p = fias_parse_packet(data.c_str(), static_cast<int>(data.size()));
    if (!p) {
        LOG(L_WARNING, "Can not parse FIAS packet %s", data.c_str());
        return;
    }
    LOG(L_NOTICE, "Received %s packet from PMS", p->desc);

    switch (p->packet_code) {
        case FIAS_LS: {
            config_ptr cfg = current_config();
            fias_init_connection(fias_sock, cfg->pmsinterface ? cfg->pmsinterface->c_str() : "");
            break;
        }
        case FIAS_LA:
            pms_connected = 1;
            break;
        case FIAS_GI:
            do_checkin(p.get());
            break;
        case FIAS_GO:
            do_checkout(p.get());
            break;
        case FIAS_RE:
            do_room_equip(p.get());
            break;
        case FIAS_WC:
            do_wakeup_clear(p.get());
            break;
        case FIAS_WR:
            do_wakeup_set(p.get());
            break;
        case FIAS_PA:
            do_pa(p.get());
            break;
        default:  // LD, LR, DR, WA, PS: received, nothing to do
            break;
    }
    fias_free_packet(p);
}

fias_field_t* room_field(fias_packet_t* p) {
    fias_field_t* rn = fias_get_field(p, "RN");
    if (!rn) {
        LOG(L_ERROR, "No room number");
        return nullptr;
    }
    LOG(L_NOTICE, "\tRoom number: %s", field_text(rn));
    return rn;
}

void log_date_time(const fias_field_t* da, const fias_field_t* ti) {
    if (da) {
        const fias_date_t& d = da->value->date;
        LOG(L_NOTICE, "\tDate: %02d-%02d-%02d", d.year, d.month, d.day);
    }
    if (ti) {
        const fias_time_t& t = ti->value->time;
        LOG(L_NOTICE, "\tTime: %02d:%02d:%02d", t.hour, t.min, t.sec);
    }
}

const char* field_text(const fias_field_t* f) {
    return f && f->value && f->value->str ? f->value->str->c_str() : "";
}

int run_service_template(const opt_text& service, const fias_field_t* rn,
                         const fias_field_t* name, const fias_field_t* lang,
                         const fias_field_t* shared, const fias_field_t* date,
                         const fias_field_t* tim, const fias_field_t* seq) {
    if (!service) return 1;
    service_string s = split_service(*service);
    if (!s.has_statement) {
        LOG(L_ERROR, "Unable to find DB driver and statement in \"%s\" (no \":\")",
            service->c_str());
        return -1;
    }
    // The driver name is kept in a 32-byte buffer.
    std::string driver_name = s.driver.substr(0, 31);
    dbdriver_ptr drv = find_dbdriver(driver_name.c_str());
    if (!drv) {
        LOG(L_ERROR, "Unable to find DB driver %s", driver_name.c_str());
        return -1;
    }
    std::string query =
        prepare_query(drv.get(), s.statement.c_str(), rn, name, lang, shared, date, tim, seq);

    std::lock_guard<dbdriver_t> guard(*drv);
    if (drv->is_connected()) drv->reconnect();
    drv->query(query.c_str());
    return 0;
}

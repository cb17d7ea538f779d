#include "config_check.h"

#include <cstring>

#include "billing/templates.h"
#include "db/registry.h"
#include "fias/charset.h"
#include "logger.h"

void warn_service_strings(const config& cfg) {
    struct entry {
        const char* key;
        const opt_text& value;
        template_kind kind;
        bool own_driver;  // marks run on the driver of their pass
    };
    // The room move's own placeholder is filled before the others.
    opt_text room_move = cfg.room_move;
    if (room_move)
        for (size_t at; (at = room_move->find("%oldexten%")) != std::string::npos;)
            room_move->erase(at, strlen("%oldexten%"));
    const entry entries[] = {
        {"bareon", cfg.bareon, TEMPLATE_FIELDS, true},
        {"bareoff", cfg.bareoff, TEMPLATE_FIELDS, true},
        {"dndon", cfg.dndon, TEMPLATE_FIELDS, true},
        {"dndoff", cfg.dndoff, TEMPLATE_FIELDS, true},
        {"wakeup_set", cfg.wakeup_set, TEMPLATE_FIELDS, true},
        {"wakeup_clear", cfg.wakeup_clear, TEMPLATE_FIELDS, true},
        {"checkin", cfg.checkin, TEMPLATE_FIELDS, true},
        {"checkout", cfg.checkout, TEMPLATE_FIELDS, true},
        {"guest_change", cfg.guest_change, TEMPLATE_FIELDS, true},
        {"room_move", room_move, TEMPLATE_FIELDS, true},
        {"billmark", cfg.billmark, TEMPLATE_STRINGS, false},
        {"billok", cfg.billok, TEMPLATE_FIELDS, true},
        {"room_status", cfg.room_state, TEMPLATE_STRINGS, true},
        {"wakeup_result", cfg.wakeup_result, TEMPLATE_STRINGS, true},
        {"billcalls", cfg.billcalls, TEMPLATE_STRINGS, true},
        {"wrmark", cfg.wrmark, TEMPLATE_STRINGS, false},
        {"remark", cfg.remark, TEMPLATE_STRINGS, false},
    };
    // A report without its mark is sent again every cycle.
    const struct {
        const char* report;
        const opt_text& value;
        const char* mark;
        const opt_text& mark_value;
    } pairs[] = {
        {"billcalls", cfg.billcalls, "billmark", cfg.billmark},
        {"wakeup_result", cfg.wakeup_result, "wrmark", cfg.wrmark},
        {"room_status", cfg.room_state, "remark", cfg.remark},
    };
    for (const auto& p : pairs)
        if (p.value && !p.mark_value && !(&p.value == &cfg.billcalls && cfg.use_manager))
            LOG(L_WARNING,
                "services:%s is set without services:%s: what it reports is sent again every "
                "cycle",
                p.report, p.mark);

    for (const entry& e : entries) {
        if (!e.value) continue;
        service_string s = split_service(*e.value);
        if (!s.has_statement) {
            LOG(L_WARNING, "services:%s = \"%s\" has no \":\" and so no statement: it is never run",
                e.key, e.value->c_str());
            continue;
        }
        int at = template_unknown_placeholder(e.kind, s.statement.c_str());
        if (at >= 0 && cfg.fixes.percent)
            LOG(L_WARNING,
                "services:%s has a \"%%\" that starts no placeholder at \"%.20s\": it is "
                "copied as it is (\"%%%%\" writes one \"%%\")",
                e.key, s.statement.c_str() + at);
        else if (at >= 0)
            LOG(L_WARNING,
                "services:%s has an unknown placeholder at \"%.20s\": the thread that fills it "
                "will stop there",
                e.key, s.statement.c_str() + at);
        if (e.own_driver && !find_dbdriver_in(cfg.dbdrivers, s.driver.c_str()))
            LOG(L_WARNING, "services:%s names the database \"%s\", which no section defines", e.key,
                s.driver.c_str());
    }
}

void check_configuration(const config& cfg) {
    for (const std::string& key : cfg.fixes.unknown)
        LOG(L_WARNING, "Unknown key \"%s\" in [fixes]: ignored", key.c_str());
    if (cfg.pmsencoding && !known_encoding(*cfg.pmsencoding))
        LOG(L_WARNING,
            "pms:encoding = \"%s\" is no known character set: texts are taken as received",
            cfg.pmsencoding->c_str());
    warn_service_strings(cfg);
}

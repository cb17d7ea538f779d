#include "config_check.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>

#include "db/registry.h"
#include "fias/charset.h"
#include "logger.h"
#include "ops/status_server.h"
#include "templates/templates.h"
#include "text.h"

namespace {

// One step of a service: a Manager action, or a statement on a database.
void warn_step(const config& cfg, const char* key, const std::string& value, template_kind kind,
               bool own_driver) {
    if (value.rfind("ami:", 0) == 0) {
        size_t from = value.find('|');
        while (from != std::string::npos) {
            const size_t next = value.find('|', from + 1);
            const std::string part = value.substr(from + 1, next - from - 1);
            if (part.find('=') == std::string::npos)
                LOG(L_WARNING, "services:%s has \"%s\", which is no Header=value", key,
                    part.c_str());
            else if (strncasecmp(part.c_str(), "ActionID=", 9) == 0)
                LOG(L_WARNING,
                    "services:%s sets an ActionID: the daemon gives every action its own", key);
            from = next;
        }
        return;
    }
    service_string s = split_service(value);
    if (!s.has_statement) {
        LOG(L_WARNING, "services:%s = \"%s\" has no \":\" and so no statement: it is never run",
            key, value.c_str());
        return;
    }
    int at = template_unknown_placeholder(kind, s.statement.c_str());
    if (at >= 0 && cfg.fixes.percent)
        LOG(L_WARNING,
            "services:%s has a \"%%\" that starts no placeholder at \"%.20s\": it is "
            "copied as it is (\"%%%%\" writes one \"%%\")",
            key, s.statement.c_str() + at);
    else if (at >= 0)
        LOG(L_WARNING,
            "services:%s has an unknown placeholder at \"%.20s\": the thread that fills it "
            "will stop there",
            key, s.statement.c_str() + at);
    if (own_driver && !find_dbdriver_in(cfg.dbdrivers, s.driver.c_str()))
        LOG(L_WARNING, "services:%s names the database \"%s\", which no section defines", key,
            s.driver.c_str());
}

}  // namespace

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
        {"mwi_on", cfg.mwi_on, TEMPLATE_FIELDS, true},
        {"mwi_off", cfg.mwi_off, TEMPLATE_FIELDS, true},
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

    // The steps of the record handlers (the keys that know the record's
    // fields) fill "%room%" before the others, with [extensions] or [fixes]
    // percent.
    const bool room_filled = !cfg.extensions.empty() || cfg.fixes.percent;
    for (const entry& e : entries) {
        auto check = [&](const std::string& key, const std::string& value) {
            const bool steps = e.kind == TEMPLATE_FIELDS && room_filled;
            warn_step(cfg, key.c_str(), steps ? replace_all(value, "%room%", "") : value, e.kind,
                      e.own_driver);
        };
        if (e.value) check(e.key, *e.value);
        auto more = cfg.more_steps.find(e.key);
        if (more == cfg.more_steps.end()) continue;
        for (size_t i = 0; i < more->second.size(); ++i)
            check(std::string(e.key) + "." + std::to_string(i + 2), more->second[i]);
    }
    if (cfg.uses_actions() && !cfg.mgr_host)
        LOG(L_WARNING, "Service steps send Manager actions, but services:cdr_mgr_host is not set");
    for (const db_settings& d : cfg.databases)
        if (strcasecmp(d.section.c_str(), "ami") == 0)
            LOG(L_WARNING,
                "[%s] is a database section, but \"ami:\" service steps send Manager actions: "
                "name the database otherwise",
                d.section.c_str());
}

namespace {

// Extensions in two rooms, and rooms the configured room list does not have.
void warn_extensions(const config& cfg) {
    std::map<std::string, std::string> seen;  // extension -> room
    for (const auto& [room, list] : cfg.extensions) {
        const bool listed = !cfg.rooms.type || cfg.rooms.type->empty()
                                ? std::find(cfg.rooms.rooms.begin(), cfg.rooms.rooms.end(),
                                            room) != cfg.rooms.rooms.end()
                                : true;  // a directory's rooms are not known here
        if (!listed)
            LOG(L_WARNING, "[extensions] has a line for room %s, which the room list does not have",
                room.c_str());
        for (const std::string& extension : list) {
            auto [it, added] = seen.emplace(extension, room);
            if (!added && it->second != room)
                LOG(L_WARNING, "[extensions]: extension %s is in rooms %s and %s",
                    extension.c_str(), it->second.c_str(), room.c_str());
        }
    }
}

// [wakeup]: what keeps the dialer from working as configured (only with
// call = yes).
void warn_wakeup(const config& cfg) {
    const wakeup_settings& w = cfg.wakeup;
    if (!w.call) return;
    if (!cfg.mgr_host || !cfg.mgr_user)
        LOG(L_WARNING,
            "wakeup:call = yes needs a Manager login (services:cdr_mgr_host, cdr_mgr_user, "
            "cdr_mgr_password): no wake-up call can be placed");
    if (w.channel.find("%exten%") == std::string::npos &&
        w.channel.find("%room%") == std::string::npos)
        LOG(L_WARNING,
            "wakeup:channel = \"%s\" has no %%exten%% or %%room%%: every call rings "
            "the same phone",
            w.channel.c_str());
    if (w.attempts < 1)
        LOG(L_WARNING, "wakeup:attempts = %d is less than 1: one call is placed", w.attempts);
    if (w.retry_interval < 1)
        LOG(L_WARNING, "wakeup:retry_interval = %d is less than 1: 1 s is used", w.retry_interval);
    if (w.ring_time < 5 || w.ring_time > 300)
        LOG(L_WARNING, "wakeup:ring_time = %d is outside 5-300: %d s is used", w.ring_time,
            w.ring_time < 5 ? 5 : 300);
    if (cfg.wakeup_result)
        LOG(L_WARNING,
            "services:wakeup_result is set together with wakeup:call = yes: the PMS gets wake-up "
            "results (\"WA\") from both");
    if (w.alert) {
        const service_string a = split_service(*w.alert);
        if (!a.has_statement)
            LOG(L_WARNING, "wakeup:alert = \"%s\" has no \":\": it is never run", w.alert->c_str());
        else if (a.driver != "ami" && !find_dbdriver_in(cfg.dbdrivers, a.driver.c_str()))
            LOG(L_WARNING, "wakeup:alert names the database \"%s\", which no section defines",
                a.driver.c_str());
    }
}

}  // namespace

namespace {

// [posting] and [dialcodes]: settings that cannot take effect as configured
// (the patterns of posting:free_numbers are checked by the load).
void warn_posting(const config& cfg) {
    if (cfg.posting.immediate && !cfg.use_manager)
        LOG(L_WARNING,
            "posting:immediate = yes is for calls from the Manager (services:cdr_use_manager): "
            "ignored");
    const bool filters = !cfg.posting.post_unanswered || cfg.posting.min_billsec > 0 ||
                         !cfg.posting.free_numbers.empty();
    if (filters && !cfg.use_manager && cfg.billcalls && !cfg.billmark)
        LOG(L_WARNING,
            "[posting] keeps calls out, but without services:billmark they are read (and logged) "
            "again every cycle");
    if (cfg.uses_dialcodes() && cfg.mgr_events_set &&
        cfg.mgr_events.find("user") == std::string::npos && cfg.mgr_events != "on")
        LOG(L_WARNING,
            "[dialcodes] needs the Manager's \"user\" events, which services:cdr_mgr_events = "
            "\"%s\" does not ask for",
            cfg.mgr_events.c_str());
    if (cfg.dialcodes.voicemail && cfg.mgr_events_set &&
        cfg.mgr_events.find("call") == std::string::npos && cfg.mgr_events != "on")
        LOG(L_WARNING,
            "dialcodes:voicemail = yes needs the Manager's \"call\" events, which "
            "services:cdr_mgr_events = \"%s\" does not ask for",
            cfg.mgr_events.c_str());
    if (cfg.dialcodes.voicemail && (cfg.mwi_on || cfg.mwi_off))
        LOG(L_WARNING,
            "dialcodes:voicemail = yes together with services:mwi_on or mwi_off: the message "
            "lamp the PMS sets comes back to it as voice mail counts");
    if (cfg.dialcodes.self_service() && (!cfg.mgr_host || !cfg.mgr_user))
        LOG(L_WARNING,
            "[dialcodes] needs a Manager login (services:cdr_mgr_host, cdr_mgr_user, "
            "cdr_mgr_password): no event of the room phone is read");
}

}  // namespace

void check_configuration(const config& cfg) {
    for (const std::string& key : cfg.fixes.unknown)
        LOG(L_WARNING, "Unknown key \"%s\" in [fixes]: ignored", key.c_str());
    if (cfg.pmsencoding && !known_encoding(*cfg.pmsencoding))
        LOG(L_WARNING,
            "pms:encoding = \"%s\" is no known character set: texts are taken as received",
            cfg.pmsencoding->c_str());
    warn_service_strings(cfg);
    warn_extensions(cfg);
    warn_posting(cfg);
    warn_wakeup(cfg);
}

namespace {

// Templates that the daemon never runs as configured.
void warn_dead_templates(const config& cfg) {
    if (cfg.use_manager) {
        const struct {
            const char* key;
            const opt_text& value;
        } unused[] = {
            {"billcalls", cfg.billcalls}, {"billmark", cfg.billmark}, {"billok", cfg.billok}};
        for (const auto& u : unused)
            if (u.value)
                LOG(L_WARNING,
                    "services:%s is never run: services:cdr_use_manager is set, calls come from "
                    "the Manager",
                    u.key);
    }
    const struct {
        const char* mark;
        const opt_text& value;
        const char* report;
        const opt_text& report_value;
    } marks[] = {{"billmark", cfg.billmark, "billcalls", cfg.billcalls},
                 {"wrmark", cfg.wrmark, "wakeup_result", cfg.wakeup_result},
                 {"remark", cfg.remark, "room_status", cfg.room_state}};
    for (const auto& m : marks)
        if (m.value && !m.report_value && !(cfg.use_manager && m.value == cfg.billmark))
            LOG(L_WARNING, "services:%s is never run: services:%s is not set", m.mark, m.report);
}

// Database sections for which the load made no driver.
void warn_driverless_sections(const config& cfg) {
    for (const db_settings& s : cfg.databases) {
        if (find_dbdriver_in(cfg.dbdrivers, s.section.c_str())) continue;
        if (strcasecmp(s.driver.c_str(), "mysql") == 0)
            LOG(L_WARNING, "[%s] dbdriver = mysql is ignored without [fixes] mysql",
                s.section.c_str());
        else
            LOG(L_WARNING, "[%s] dbdriver = %s is no known driver (sqlite, mysql): ignored",
                s.section.c_str(), s.driver.c_str());
    }
}

// The files of the PMS link's TLS, which must be there and readable.
void warn_tls_files(const config& cfg) {
    const struct {
        const char* key;
        const opt_text& value;
        bool file;
    } keys[] = {{"tls_ca", cfg.pms_tls_ca, true},
                {"tls_cert", cfg.pms_tls_cert, true},
                {"tls_key", cfg.pms_tls_key, true},
                {"tls_server_name", cfg.pms_tls_server_name, false}};
    for (const auto& k : keys) {
        if (!k.value) continue;
        if (!cfg.pms_tls)
            LOG(L_WARNING, "pms:%s is not used without pms:tls = yes", k.key);
        else if (k.file && access(k.value->c_str(), R_OK) != 0)
            LOG(L_WARNING, "pms:%s = \"%s\" cannot be read: %s", k.key, k.value->c_str(),
                strerror(errno));
    }
    if (cfg.pms_tls && cfg.pms_tls_key && !cfg.pms_tls_cert)
        LOG(L_WARNING, "pms:tls_key is set without pms:tls_cert: no client certificate is sent");
}

// The status endpoint's address; with `bind` (-tt) it is also bound once.
void warn_status(const config& cfg, bool bind) {
    if (!cfg.status_listen) return;
    const std::string& listen = *cfg.status_listen;
    if (!status_address(listen)) {
        LOG(L_WARNING,
            "status:listen = \"%s\" is no address: give a port, an IPv4 address and port, or "
            "[IPv6 address]:port",
            listen.c_str());
        return;
    }
    std::string why;
    if (bind && !status_address_bindable(listen, &why))
        LOG(L_WARNING, "status:listen = \"%s\" cannot be listened on: %s", listen.c_str(),
            why.c_str());
}

// Settings that work but go against the PMS vendor's advice: each logs a
// WARNING that is no problem of the file. Returns how many it logged.
unsigned long advise(const config& cfg) {
    const long alive = static_cast<long>(cfg.alive_interval().count());
    if (alive == 0 || alive >= 300) return 0;
    LOG(L_WARNING,
        "pms:alive_interval = %ld checks the PMS more often than its vendor advises (every 300 s "
        "at most): not counted as a problem",
        alive);
    return 1;
}

// Every broken line of the tariff file.
void check_tariffs(const config& cfg) {
    if (!cfg.rating.tariffs) return;
    std::vector<std::string> reasons;
    if (!tariff::load(*cfg.rating.tariffs, reasons))
        for (const std::string& reason : reasons) LOG(L_ERROR, "%s", reason.c_str());
}

}  // namespace

int test_configuration(const std::string& path, int level) {
    logger_init("", 2, 0, 0);  // WARNING and ERROR, on standard error
    config cfg;
    unsigned long advice = 0;
    if (!parse_config_file(path, cfg)) {
        LOG(L_ERROR, "Unable to open configuration file %s", path.c_str());
    } else {
        // The databases are connected to (and so reported when unreachable)
        // only with -tt.
        cfg.dbdrivers = load_dbdrivers(cfg.databases, cfg.fixes.mysql, level >= 2);
        check_configuration(cfg);
        warn_dead_templates(cfg);
        warn_driverless_sections(cfg);
        warn_tls_files(cfg);
        warn_status(cfg, level >= 2);
        check_tariffs(cfg);
        advice = advise(cfg);
    }
    const unsigned long problems = logger_problem_count() - advice;
    if (problems == 0)
        printf("%s: usable\n", path.c_str());
    else
        printf("%s: %lu problem%s\n", path.c_str(), problems, problems == 1 ? "" : "s");
    return problems == 0 ? 0 : 1;
}

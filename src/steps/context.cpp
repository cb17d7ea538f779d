#include "steps/context.h"

#include "logger.h"
#include "templates/templates.h"
#include "text.h"

fias_field_t* room_field(const record_context& ctx) {
    fias_field_t* rn = fias_get_field(&ctx.record, "RN");
    if (!rn) {
        CTX_LOG(ctx, L_ERROR, "No room number");
        return nullptr;
    }
    CTX_LOG(ctx, L_NOTICE, "\tRoom number: %s", field_text(rn));
    return rn;
}

void log_date_time(const record_context& ctx, const fias_field_t* da, const fias_field_t* ti) {
    if (da) {
        const fias_date_t& d = da->value->date;
        CTX_LOG(ctx, L_NOTICE, "\tDate: %02d-%02d-%02d", d.year, d.month, d.day);
    }
    if (ti) {
        const fias_time_t& t = ti->value->time;
        CTX_LOG(ctx, L_NOTICE, "\tTime: %02d:%02d:%02d", t.hour, t.min, t.sec);
    }
}

const char* field_text(const fias_field_t* f) {
    return f && f->value && f->value->str ? f->value->str->c_str() : "";
}

fias_field_t text_field(const char* name, const std::string& text) {
    fias_field_t f;
    snprintf(f.name, sizeof f.name, "%s", name);
    f.value = std::make_unique<fias_value_t>();
    f.value->str = text;
    return f;
}

int run_service_template(const record_context& ctx, const opt_text& service, const fias_field_t* rn,
                         const fias_field_t* name, const fias_field_t* lang,
                         const fias_field_t* shared, const fias_field_t* date,
                         const fias_field_t* tim, const fias_field_t* seq) {
    if (!service) return 1;
    if (service->rfind("ami:", 0) == 0)
        return run_action_step(ctx, service->substr(4), {rn, name, lang, shared, date, tim, seq});
    service_string s = split_service(*service);
    if (!s.has_statement) {
        CTX_LOG(ctx, L_ERROR, "Unable to find DB driver and statement in \"%s\" (no \":\")",
                service->c_str());
        return -1;
    }
    // The driver name is kept in a 32-byte buffer.
    std::string driver_name = s.driver.substr(0, 31);
    dbdriver_ptr drv = find_dbdriver_in(ctx.cfg->dbdrivers, driver_name.c_str());
    if (!drv) {
        CTX_LOG(ctx, L_ERROR, "Unable to find DB driver %s", driver_name.c_str());
        return -1;
    }
    fill_options fill = fill_options_of(*ctx.cfg);
    fill.escape = fill.escape || ctx.escape_values;
    auto prepare = [&] {
        return prepare_query(drv.get(), s.statement.c_str(), rn, name, lang, shared, date, tim, seq,
                             fill);
    };
    // Escaping may use the live connection, so the statement is then made
    // under the lock; a template that would stop its thread is filled
    // before the lock is taken, so that it never holds it.
    const bool under_lock =
        fill.escape &&
        (fill.percent || template_unknown_placeholder(TEMPLATE_FIELDS, s.statement.c_str()) < 0);
    std::string query = under_lock ? std::string() : prepare();

    db_lock guard(*drv);
    if (drv->is_connected()) drv->reconnect();
    if (under_lock) query = prepare();
    return drv->query(query.c_str()) < 0 ? -1 : 0;
}

int run_service(const record_context& ctx, const char* key, const opt_text& service,
                const step_fields& f, const step_adapter& adapt) {
    const std::string room = f.room ? f.room : field_text(f.rn);
    const std::vector<std::string> extensions =
        f.room ? std::vector<std::string>{field_text(f.rn)} : ctx.cfg->extensions_of(room);
    const bool own_number = extensions.size() == 1 && extensions.front() == field_text(f.rn);
    // A step that names %exten% runs for each extension of the room, in
    // order; any other step once.
    auto run = [&](const opt_text& step) {
        if (!step)
            return run_service_template(ctx, step, f.rn, f.name, f.lang, f.shared, f.date, f.time,
                                        f.seq);
        const bool each = !own_number && step->find("%exten%") != std::string::npos;
        int result = -1;
        bool failed = false;
        for (size_t i = 0; i < (each ? extensions.size() : 1); ++i) {
            const opt_text text = adapt ? adapt(*step, i) : step;
            if (!text) continue;
            const fias_field_t extension = text_field("RN", each ? extensions[i] : room);
            const std::string filled = fill_room(*ctx.cfg, *text, room);
            step_fields g = f;
            g.rn = each ? &extension : f.rn;
            g.room = room.c_str();
            result = filled.rfind("ami:", 0) == 0
                         ? run_action_step(ctx, filled.substr(4), g)
                         : run_service_template(ctx, filled, g.rn, g.name, g.lang, g.shared, g.date,
                                                g.time, g.seq);
            failed = failed || result < 0;
        }
        return failed ? -1 : result;
    };
    const int result = run(service);
    auto more = ctx.cfg->more_steps.find(key);
    if (more != ctx.cfg->more_steps.end())
        for (const std::string& step : more->second) run(step);
    return result;
}

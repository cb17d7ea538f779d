// Manager action steps: "ami:Action|Header=value|..." filled with the
// record's values and sent through the Manager session.
#include <optional>

#include "fias/charset.h"
#include "steps/context.h"
#include "text.h"

namespace {

// The formats %date% and %time% are written in.
const dbdriver_t& action_formats() {
    static const dbdriver_t formats;
    return formats;
}

std::vector<std::string> split_at_bars(const std::string& spec) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t bar; (bar = spec.find('|', from)) != std::string::npos; from = bar + 1)
        parts.push_back(spec.substr(from, bar - from));
    parts.push_back(spec.substr(from));
    return parts;
}

// A text field converted from the PMS's character set, when it has one and
// the values were not converted already.
std::optional<fias_field_t> converted(const record_context& ctx, const fias_field_t* f) {
    if (!f || !f->value || !f->value->str || !ctx.cfg->pmsencoding) return std::nullopt;
    if (fill_options_of(*ctx.cfg).escape) return std::nullopt;  // converted on arrival
    return text_field(f->name, to_utf8(*f->value->str, *ctx.cfg->pmsencoding));
}

}  // namespace

filled_action fill_action(const std::string& spec, const step_fields& f) {
    fill_options fill{};
    fill.quiet = true;
    fill.dates = true;    // the date's own month
    fill.percent = true;  // a "%" that starts no placeholder stays as it is
    fill.echo = false;
    auto filled = [&](const std::string& text) {
        return one_line(prepare_query(&action_formats(), text.c_str(), f.rn, f.name, f.lang,
                                      f.shared, f.date, f.time, f.seq, fill));
    };
    std::vector<std::string> parts = split_at_bars(spec);
    filled_action out;
    out.name = filled(parts.front());
    for (size_t i = 1; i < parts.size(); ++i) {
        const size_t eq = parts[i].find('=');
        if (eq == std::string::npos)
            out.left_out.push_back(parts[i]);
        else
            out.headers.emplace_back(filled(parts[i].substr(0, eq)),
                                     filled(parts[i].substr(eq + 1)));
    }
    return out;
}

int run_action_step(const record_context& ctx, const std::string& spec, const step_fields& f) {
    std::optional<fias_field_t> rn = converted(ctx, f.rn), name = converted(ctx, f.name),
                                lang = converted(ctx, f.lang);
    step_fields values = f;
    if (rn) values.rn = &*rn;
    if (name) values.name = &*name;
    if (lang) values.lang = &*lang;
    const filled_action a = fill_action(spec, values);
    for (const std::string& part : a.left_out)
        CTX_LOG(ctx, L_ERROR, "Manager action %s: \"%s\" is no Header=value: left out",
                a.name.c_str(), part.c_str());
    const char* room = f.room ? f.room : field_text(f.rn);
    if (!ctx.manager) {
        CTX_LOG(ctx, L_ERROR, "Manager action %s for room %s not sent: no Manager session",
                a.name.c_str(), room);
        return -1;
    }
    CTX_LOG(ctx, L_DEBUG, "Manager action %s for room %s", a.name.c_str(), room);
    log_action_answer(
        room, a.name,
        ctx.manager->action(room, a.name, a.headers, std::chrono::seconds(ctx.cfg->ami_timeout)),
        ctx.cfg->ami_timeout);
    return 0;
}

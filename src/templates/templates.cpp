#include "templates/templates.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "logger.h"
#include "text.h"

namespace {

struct placeholder {
    const char* token;
    size_t len;
};

#define PH(t) \
    { t, sizeof(t) - 1 }
// The placeholders each routine knows, in the order they are tried.
const placeholder fields_set[] = {PH("%exten%"), PH("%name%"),         PH("%lang%"),
                                  PH("%share%"), PH("%date%"),         PH("%current_date%"),
                                  PH("%time%"),  PH("%current_time%"), PH("%seqno%")};
const placeholder strings_set[] = {PH("%exten%"), PH("%date%"),         PH("%current_date%"),
                                   PH("%time%"),  PH("%current_time%"), PH("%seqno%")};
const placeholder param_set[] = {PH("%param%"),        PH("%exten%"), PH("%date%"),
                                 PH("%current_date%"), PH("%time%"),  PH("%current_time%"),
                                 PH("%seqno%")};
#undef PH

struct placeholder_set {
    const placeholder* begin;
    size_t count;
};

placeholder_set set_of(template_kind kind) {
    switch (kind) {
        case TEMPLATE_FIELDS:
            return {fields_set, std::size(fields_set)};
        case TEMPLATE_STRINGS:
            return {strings_set, std::size(strings_set)};
        case TEMPLATE_PARAM:
            break;
    }
    return {param_set, std::size(param_set)};
}

// Index of the placeholder at `at`, or -1.
int match(const placeholder_set& set, const char* at) {
    for (size_t i = 0; i < set.count; ++i)
        if (strncmp(at, set.begin[i].token, set.begin[i].len) == 0) return static_cast<int>(i);
    return -1;
}

// A template with an unknown "%" stops its thread for good: it says so once
// and then sleeps without end.
[[noreturn]] void hang_on_unknown(const char* q, const char* at) {
    LOG(L_ERROR,
        "Unknown placeholder at \"%.20s\" in template \"%s\": the statement can never be "
        "built and this thread stops here",
        at, q);
    for (;;) sleep(3600);
}

void append_strftime(std::string& out, const char* format, const struct tm& tmv) {
    char scratch[64];
    out.append(scratch, strftime(scratch, sizeof scratch, format, &tmv));
}

void append_now(std::string& out, const char* format) {
    out += local_time_text(time(nullptr), format);
}

// The substitution skeleton shared by the three routines: `value` appends the
// value of placeholder `index` of `set`.
template <typename Value>
std::string substitute(const char* q, template_kind kind, const char* echo,
                       const fill_options& opts, Value value) {
    std::string out;
    // Where %name% was filled in, so that the echo can mask it.
    std::vector<std::pair<size_t, size_t>> names;
    const char* p = strchr(q, '%');
    if (!p) {
        out = q;
    } else {
        placeholder_set set = set_of(kind);
        const char* cursor = p;
        const char* copied = q;
        for (;;) {
            out.append(copied, cursor);
            int i = match(set, cursor);
            if (i >= 0) {
                const size_t from = out.size();
                value(out, i);
                if (strcmp(set.begin[i].token, "%name%") == 0) names.emplace_back(from, out.size());
                cursor += set.begin[i].len;
            } else if (opts.percent) {
                // "%%" writes one "%"; any other "%" is copied as it is.
                out += '%';
                cursor += cursor[1] == '%' ? 2 : 1;
            } else {
                hang_on_unknown(q, cursor);
            }
            copied = cursor;
            const char* next = strchr(cursor, '%');
            if (!next) break;
            cursor = next;
        }
        out += cursor;
    }
    if (!opts.echo) return out;
    const std::string* shown = &out;
    std::string masked;
    if (!names.empty() && logger_hides_names()) {
        masked = out;
        for (auto it = names.rbegin(); it != names.rend(); ++it)
            masked.replace(it->first, it->second - it->first, "<name>");
        shown = &masked;
    }
    if (opts.quiet)
        LOG(L_DEBUG, "%s%s", echo, shown->c_str());
    else
        printf("%s%s\n", echo, shown->c_str());
    return out;
}

// A value, escaped for the database under [fixes] escape. The caller then
// holds the record's lock (escaping may use the live connection).
void append_value(std::string& out, std::string_view v, const dbdriver_t* drv,
                  const fill_options& opts) NO_THREAD_SAFETY_ANALYSIS {
    if (opts.escape && drv && drv->dbhandle)
        out += drv->dbhandle->escape(v);
    else
        out += v;
}

std::string_view field_str(const fias_field_t* f) {
    return f && f->value && f->value->str ? std::string_view(*f->value->str) : std::string_view();
}

// Shared by prepare_query2 and prepare_query3, whose sets differ only by %param%.
std::string prepare_strings(const dbdriver_t* drv, const char* q, template_kind kind,
                            const char* echo, const char* param, const char* rn, const char* da,
                            const char* ti, const char* seq, const fill_options& opts) {
    const placeholder_set set = set_of(kind);
    return substitute(q, kind, echo, opts, [&](std::string& out, int i) {
        std::string_view token = set.begin[i].token;
        auto text = [&](const char* s) { append_value(out, s ? s : "", drv, opts); };
        if (token == "%param%")
            text(param);
        else if (token == "%exten%")
            text(rn);
        else if (token == "%date%")
            text(da);
        else if (token == "%current_date%")
            append_now(out, drv->dateformat);
        else if (token == "%time%")
            text(ti);
        else if (token == "%current_time%")
            append_now(out, drv->timeformat);
        else
            text(seq);
    });
}

}  // namespace

std::string prepare_query(const dbdriver_t* drv, const char* q, const fias_field_t* rn,
                          const fias_field_t* name, const fias_field_t* lang,
                          const fias_field_t* shared, const fias_field_t* date,
                          const fias_field_t* tim, const fias_field_t* seq,
                          const fill_options& opts) {
    return substitute(q, TEMPLATE_FIELDS, "query: ", opts, [&](std::string& out, int i) {
        std::string_view token = fields_set[i].token;
        if (token == "%exten%") {
            append_value(out, field_str(rn), drv, opts);
        } else if (token == "%name%") {
            append_value(out, field_str(name), drv, opts);
        } else if (token == "%lang%") {
            append_value(out, field_str(lang), drv, opts);
        } else if (token == "%share%") {
            out += std::to_string(shared && shared->value ? shared->value->bval : 0);
        } else if (token == "%date%") {
            if (date && date->value) {
                // The month goes in unchanged as the zero-based month: a
                // numeric month format shows the following month ([fixes]
                // dates: the date's own month).
                struct tm tmv {};
                tmv.tm_year = date->value->date.year + 100;
                tmv.tm_mon = date->value->date.month - (opts.dates ? 1 : 0);
                tmv.tm_mday = date->value->date.day;
                append_strftime(out, drv->dateformat, tmv);
            }
        } else if (token == "%current_date%") {
            append_now(out, drv->dateformat);
        } else if (token == "%time%") {
            // Filled only when a date is given too.
            if (date && date->value && tim && tim->value) {
                struct tm tmv {};
                tmv.tm_hour = tim->value->time.hour;
                tmv.tm_min = tim->value->time.min;
                tmv.tm_sec = tim->value->time.sec;
                append_strftime(out, drv->timeformat, tmv);
            }
        } else if (token == "%current_time%") {
            append_now(out, drv->timeformat);
        } else {
            append_value(out, field_str(seq), drv, opts);
        }
    });
}

std::string prepare_query2(const dbdriver_t* drv, const char* q, const char* rn, const char* da,
                           const char* ti, const char* seq, const fill_options& opts) {
    return prepare_strings(drv, q, TEMPLATE_STRINGS, "1query: ", nullptr, rn, da, ti, seq, opts);
}

std::string prepare_query3(const dbdriver_t* drv, const char* q, const char* param, const char* rn,
                           const char* da, const char* ti, const char* seq,
                           const fill_options& opts) {
    return prepare_strings(drv, q, TEMPLATE_PARAM, "1query: ", param, rn, da, ti, seq, opts);
}

int template_unknown_placeholder(template_kind kind, const char* q) {
    placeholder_set set = set_of(kind);
    for (const char* p = strchr(q, '%'); p; p = strchr(p, '%')) {
        int i = match(set, p);
        if (i < 0) return static_cast<int>(p - q);
        p += set.begin[i].len;
    }
    return -1;
}

std::string fill_room(const config& cfg, const std::string& step, const std::string& room) {
    const bool action = step.rfind("ami:", 0) == 0;
    if (!action && cfg.extensions.empty() && !cfg.fixes.percent) return step;
    std::string value = action ? room : sql_quoted(room);
    if (action || cfg.fixes.percent) value = replace_all(value, "%", "%%");
    return replace_all(step, "%room%", value);
}

service_string split_service(const std::string& value) {
    service_string s;
    size_t colon = value.find(':');
    if (colon == std::string::npos) {
        s.driver = "sqlite";
        return s;
    }
    s.driver = value.substr(0, colon);
    s.statement = value.substr(colon + 1);
    s.has_statement = true;
    return s;
}

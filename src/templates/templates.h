// Statement templates: service strings ("driver:statement") and placeholder
// substitution.
//
// Contract: re-entrant; may be called from any thread at the same time.
//  - prepare_query*() fill "%...%" placeholders and echo the finished
//    statement ("query: " / "1query: ") on standard output, or, with
//    fill_options::quiet, to the log at DEBUG. Values are put in as they are,
//    or, with fill_options::escape, escaped for the driver's database (the
//    caller then holds the driver's lock: escaping may use the connection);
//    the result grows to hold them.
//  - A "%" that starts no placeholder known to the routine never returns: the
//    calling thread logs one ERROR naming the template and then blocks for
//    good without using the CPU. The configuration check warns about such
//    templates beforehand (config_check.h). With fill_options::percent "%%"
//    writes "%" and any other unknown "%" is copied: nothing blocks.
#pragma once

#include <string>

#include "config.h"
#include "db/driver.h"
#include "fias/packet.h"

// Which routine fills a template; each knows its own placeholder set.
enum template_kind {
    TEMPLATE_FIELDS,   // prepare_query: FIAS fields
    TEMPLATE_STRINGS,  // prepare_query2: texts
    TEMPLATE_PARAM,    // prepare_query3: texts and %param%
};

// How a template is filled, beyond its values (from the configuration's
// [fixes]).
struct fill_options {
    bool quiet = false;    // the finished statement goes to the log at DEBUG, not to stdout
    bool escape = false;   // values escaped for the record's database (its lock held)
    bool dates = false;    // a received date keeps its own month
    bool percent = false;  // "%%" writes "%", an unknown "%" is copied; nothing stops
    bool echo = true;      // the finished statement is echoed (see quiet)
};

// How templates are filled under `cfg`: the one place that reads the
// corrections about values ([fixes] quiet, escape, dates, percent).
inline fill_options fill_options_of(const config& cfg) {
    return fill_options{cfg.fixes.quiet, cfg.fixes.escape, cfg.fixes.dates, cfg.fixes.percent};
}

std::string prepare_query(const dbdriver_t* drv, const char* q, const fias_field_t* rn,
                          const fias_field_t* name, const fias_field_t* lang,
                          const fias_field_t* shared, const fias_field_t* date,
                          const fias_field_t* tim, const fias_field_t* seq,
                          const fill_options& opts = {});

std::string prepare_query2(const dbdriver_t* drv, const char* q, const char* rn, const char* da,
                           const char* ti, const char* seq, const fill_options& opts = {});

std::string prepare_query3(const dbdriver_t* drv, const char* q, const char* param, const char* rn,
                           const char* da, const char* ti, const char* seq,
                           const fill_options& opts = {});

// Position of the first "%" in `q` that starts no placeholder known to `kind`,
// or -1 when the template is sound.
int template_unknown_placeholder(template_kind kind, const char* q);

// A step of a record handler (a service string, or "ami:..." for a Manager
// action) with "%room%" filled in with `room`: always in an action step, and
// in a statement with [extensions] or [fixes] percent, its quotes doubled;
// otherwise the step is returned as it is. Where "%%" writes one "%" (action
// steps, and statements under percent) a "%" of the room is doubled, so that
// a room never starts a placeholder.
std::string fill_room(const config& cfg, const std::string& step, const std::string& room);

// A service string split at its first ":". Without ":", driver is "sqlite"
// and has_statement is false.
struct service_string {
    std::string driver;
    std::string statement;
    bool has_statement = false;
};
service_string split_service(const std::string& value);

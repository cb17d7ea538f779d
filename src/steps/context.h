// What every handler of a received PMS record works with: the record
// context, the service-step runner and the field helpers.
//
// Contract:
//  - A record_context is made by the dispatcher for one record and lives for
//    that record's handling, in one thread. It holds the one configuration
//    snapshot taken for the record, the parsed record, the PMS link and the
//    states file, and names the handler, so that the helpers' log lines name
//    the handler that acted.
//  - Database work is done under the driver's lock; no lock of the states
//    file is held while a PBX database's lock is taken.
#pragma once

#include <functional>
#include <memory>

#include "config.h"
#include "fias/link.h"
#include "fias/packet.h"
#include "logger.h"
#include "mgr/session.h"
#include "states/states.h"
#include "templates/templates.h"

struct record_context {
    config_ptr cfg;  // never null
    fias_packet_t& record;
    pms_link& link;
    states_file& states;
    const char* handler = "";  // the handler's name, for log lines
    // The Manager session of the moment, taken once for the record (null
    // when none runs).
    std::shared_ptr<mgr_session> manager;
    // Values are escaped for their database whatever [fixes] escape says
    // (statements that no older configuration has).
    bool escape_values = false;

    // The same context for statements whose values are always escaped.
    record_context escaping() const { return {cfg, record, link, states, handler, manager, true}; }
};

// Log line in the name of the context's handler.
#define CTX_LOG(ctx, level, ...) \
    write_log(level, __FILE_NAME__, __LINE__, (ctx).handler, __VA_ARGS__)

// The values a service step is filled with (each may be null; `seq` fills
// %seqno%).
struct step_fields {
    const fias_field_t* rn = nullptr;
    const fias_field_t* name = nullptr;
    const fias_field_t* lang = nullptr;
    const fias_field_t* shared = nullptr;
    const fias_field_t* date = nullptr;
    const fias_field_t* time = nullptr;
    const fias_field_t* seq = nullptr;
    // The room, when `rn` is one extension of it (nothing: `rn` is the room).
    const char* room = nullptr;
};

// Runs one service string: "driver:template" on a configured database, or
// "ami:Action|Header=value|..." as a Manager action. Returns 0 when the step
// was run, 1 when there is nothing to run (no service string), -1 when the
// driver is not found, the string has no statement or the statement failed.
int run_service_template(const record_context& ctx, const opt_text& service, const fias_field_t* rn,
                         const fias_field_t* name, const fias_field_t* lang,
                         const fias_field_t* shared, const fias_field_t* date,
                         const fias_field_t* tim, const fias_field_t* seq = nullptr);

// Rewrites a step's text before it runs for the extension numbered `index`
// of its room (nothing: it is not run).
using step_adapter = std::function<opt_text(const std::string& step, size_t index)>;

// Runs the service `key` (one of step_keys): `service`, then the further
// steps "<key>.2" ... "<key>.9" that are configured, in order; a failed step
// is logged and the next one runs. A step whose text has "%exten%" runs for
// every extension of the room ([extensions]), in order, with %exten% the
// extension; "%room%" is the room. The result is that of `service` (-1 when
// it failed for any extension).
int run_service(const record_context& ctx, const char* key, const opt_text& service,
                const step_fields& f, const step_adapter& adapt = nullptr);

// A Manager action step filled with `f`: `spec` is "Action|Header=value|..."
// (after "ami:"), cut at each "|" before it is filled; a line end in any
// value becomes a blank. Parts without "=" are left out.
struct filled_action {
    std::string name;
    mgr_session::headers headers;
    std::vector<std::string> left_out;
};
filled_action fill_action(const std::string& spec, const step_fields& f);

// A Manager action step: `spec` is "Action|Header=value|..." (after "ami:").
// Returns 0 when it was sent (whatever its answer), -1 when no session runs.
int run_action_step(const record_context& ctx, const std::string& spec, const step_fields& f);

// The "RN" field, logged as "\tRoom number: %s", or null with the ERROR
// "No room number".
fias_field_t* room_field(const record_context& ctx);
// Logs "\tDate: ..." and "\tTime: ..." for the fields that are present.
void log_date_time(const record_context& ctx, const fias_field_t* da, const fias_field_t* ti);
// The text of a text field, or "".
const char* field_text(const fias_field_t* f);
// A text field named `name` with `text` as its value (for a template, in the
// place of one that a record lacks).
fias_field_t text_field(const char* name, const std::string& text);

#include "config.h"

#include <iniparser.h>
#include <strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "billing/templates.h"
#include "db/registry.h"
#include "logger.h"

std::string config_file = "/etc/orlanbeck.conf";

namespace {

std::mutex published_mutex;
config_ptr published = std::make_shared<const config>();  // guarded by published_mutex

// The base of the next load: the current settings, or, after free_confvals(),
// the current settings without their texts. Main thread only.
std::shared_ptr<config> pending_base;

struct dictionary_deleter {
    void operator()(dictionary* d) const { iniparser_freedict(d); }
};
using dictionary_ptr = std::unique_ptr<dictionary, dictionary_deleter>;

void read_text(const dictionary* d, const char* key, opt_text& out) {
    if (const char* v = iniparser_getstring(d, key, nullptr)) out = v;
}

void read_text(const dictionary* d, const char* key, std::string& out) {
    if (const char* v = iniparser_getstring(d, key, nullptr)) out = v;
}

// iniparser's own complaints (syntax errors) go to the log; a file that cannot
// be opened is reported by the caller.
int iniparser_complaint(const char* format, ...) {
    char buf[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(buf, sizeof buf, format, ap);
    va_end(ap);
    if (strncmp(buf, "iniparser: cannot open", 22) == 0) return 0;
    size_t len = strlen(buf);
    while (len > 0 && (buf[len - 1] == '\n' || buf[len - 1] == '\r')) buf[--len] = '\0';
    for (char* p = buf; *p; ++p)
        if (*p == '\n') *p = ' ';
    LOG(L_ERROR, "Configuration file: %s", buf);
    return 0;
}

int read_port(const dictionary* d, const char* key, int def) {
    int v = iniparser_getint(d, key, def);
    if (v < 1 || v > 65535)
        LOG(L_WARNING, "%s = %d is not a TCP port (1-65535); the connection will fail", key, v);
    return v;
}

// A fresh driver list: the records of this load, newest first, then the
// records of earlier loads that no new record shadows.
std::vector<dbdriver_ptr> merge_drivers(std::vector<dbdriver_ptr> fresh,
                                        const std::vector<dbdriver_ptr>& old) {
    for (const dbdriver_ptr& drv : old)
        if (!find_dbdriver_in(fresh, drv->name)) fresh.push_back(drv);
    return fresh;
}

}  // namespace

config_ptr current_config() {
    std::lock_guard<std::mutex> guard(published_mutex);
    return published;
}

void publish_config(std::shared_ptr<config> cfg) {
    std::lock_guard<std::mutex> guard(published_mutex);
    published = std::move(cfg);
}

void free_confvals() {
    auto base = std::make_shared<config>(pending_base ? *pending_base : *current_config());
    base->room_state.reset();
    base->wakeup_result.reset();
    base->billcalls.reset();
    base->wrmark.reset();
    base->remark.reset();
    base->billmark.reset();
    base->checkout.reset();
    base->checkin.reset();
    base->wakeup_clear.reset();
    base->wakeup_set.reset();
    base->bareon.reset();
    base->bareoff.reset();
    base->dndon.reset();
    base->dndoff.reset();
    base->pmsinterface.reset();
    base->billok.reset();
    base->mgr_host.reset();
    base->mgr_user.reset();
    base->mgr_passwd.reset();
    base->mgr_events = "call";
    pending_base = std::move(base);
}

int load_conf(const char* path) {
    auto cfg = std::make_shared<config>(pending_base ? *pending_base : *current_config());
    pending_base.reset();

    const config defaults;
    cfg->pmshost = defaults.pmshost;
    cfg->pmsport = defaults.pmsport;
    cfg->statesfile = defaults.statesfile;
    cfg->logtype = defaults.logtype;
    cfg->logfile = defaults.logfile;
    cfg->loglevel = defaults.loglevel;

    config_file = path;

    iniparser_set_error_callback(iniparser_complaint);
    dictionary_ptr dict(iniparser_load(path));
    if (!dict) {
        publish_config(std::move(cfg));
        return -1;
    }
    const dictionary* d = dict.get();

    read_text(d, "pms:host", cfg->pmshost);
    cfg->pmsport = static_cast<uint16_t>(read_port(d, "pms:port", 5010));
    read_text(d, "pms:statesfile", cfg->statesfile);
    read_text(d, "pms:interface", cfg->pmsinterface);
    if (const char* t = iniparser_getstring(d, "logger:log_type", nullptr))
        cfg->logtype = strcasestr(t, "syslog") ? 0 : 1;
    cfg->loglevel = static_cast<uint16_t>(iniparser_getint(d, "logger:log_level", 5));
    cfg->disable_log = iniparser_getboolean(d, "logger:disable_log", 0);
    read_text(d, "logger:log_file", cfg->logfile);

    std::vector<dbdriver_ptr> fresh;
    load_dbdrivers(d, fresh);
    cfg->dbdrivers = merge_drivers(std::move(fresh), cfg->dbdrivers);

    cfg->use_manager = iniparser_getboolean(d, "services:cdr_use_manager", 0);
    cfg->mgr_port = read_port(d, "services:cdr_mgr_port", 5038);
    read_text(d, "services:cdr_mgr_host", cfg->mgr_host);
    read_text(d, "services:cdr_mgr_user", cfg->mgr_user);
    read_text(d, "services:cdr_mgr_password", cfg->mgr_passwd);
    read_text(d, "services:cdr_mgr_events", cfg->mgr_events);
    cfg->noremovecalls = iniparser_getint(d, "services:noremovecalls", 0);
    read_text(d, "services:bareon", cfg->bareon);
    read_text(d, "services:bareoff", cfg->bareoff);
    read_text(d, "services:dndon", cfg->dndon);
    read_text(d, "services:dndoff", cfg->dndoff);
    read_text(d, "services:wakeup_set", cfg->wakeup_set);
    read_text(d, "services:wakeup_clear", cfg->wakeup_clear);
    read_text(d, "services:checkin", cfg->checkin);
    read_text(d, "services:checkout", cfg->checkout);
    read_text(d, "services:billmark", cfg->billmark);
    read_text(d, "services:billok", cfg->billok);
    read_text(d, "services:room_status", cfg->room_state);
    read_text(d, "services:wakeup_result", cfg->wakeup_result);
    read_text(d, "services:billcalls", cfg->billcalls);
    read_text(d, "services:wrmark", cfg->wrmark);
    read_text(d, "services:remark", cfg->remark);

    warn_service_strings(*cfg);
    publish_config(std::move(cfg));
    return 0;
}

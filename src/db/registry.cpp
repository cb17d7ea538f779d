#include "db/registry.h"

#include <strings.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"

namespace {

const char* get_text(const dictionary* dict, const char* section, const char* key) {
    char buf[256];
    snprintf(buf, sizeof buf, "%s:%s", section, key);
    return iniparser_getstring(dict, buf, nullptr);
}

}  // namespace

dbdriver_ptr load_dbdriver(const dictionary* dict, const char* section, const char* driver) {
    if (strcasecmp(driver, "sqlite") != 0) return nullptr;
    dbdriver_ptr drv = sqlite_create_drv(section);

    const char* text;
    if ((text = get_text(dict, section, "date_format"))) {
        if (strlen(text) > 15)
            LOG(L_WARNING, "date_format of [%s] is longer than 15 characters; cut to \"%.15s\"",
                section, text);
        dbdriver_t::set_text16(drv->dateformat, text);
    }
    if ((text = get_text(dict, section, "time_format"))) {
        if (strlen(text) > 15)
            LOG(L_WARNING, "time_format of [%s] is longer than 15 characters; cut to \"%.15s\"",
                section, text);
        dbdriver_t::set_text16(drv->timeformat, text);
    }
    if ((text = get_text(dict, section, "host"))) drv->host = text;
    if ((text = get_text(dict, section, "user"))) drv->user = text;
    if ((text = get_text(dict, section, "password"))) drv->password = text;
    if ((text = get_text(dict, section, "database"))) drv->database = text;
    char key[256];
    snprintf(key, sizeof key, "%s:port", section);
    drv->port = iniparser_getint(dict, key, drv->port);

    {
        std::lock_guard<dbdriver_t> guard(*drv);
        if (drv->reconnect() != 0)
            LOG(L_ERROR, "Can not connect to DB %s of %s. Please check settings\n", section,
                driver);
    }
    return drv;
}

void load_dbdrivers(const dictionary* dict, std::vector<dbdriver_ptr>& drivers) {
    int n = iniparser_getnsec(dict);
    for (int i = 0; i < n; ++i) {
        const char* section = iniparser_getsecname(dict, i);
        if (!section) continue;
        const char* driver = get_text(dict, section, "dbdriver");
        if (!driver) continue;
        if (dbdriver_ptr drv = load_dbdriver(dict, section, driver))
            drivers.insert(drivers.begin(), std::move(drv));
    }
}

dbdriver_ptr find_dbdriver_in(const std::vector<dbdriver_ptr>& drivers, const char* name) {
    if (!name) return nullptr;
    for (const dbdriver_ptr& drv : drivers)
        if (strcmp(drv->name, name) == 0) return drv;
    return nullptr;
}

dbdriver_ptr find_dbdriver(const char* name) {
    return find_dbdriver_in(current_config()->dbdrivers, name);
}

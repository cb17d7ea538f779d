#include "db/registry.h"

#include <strings.h>

#include <cstring>

#include "db/mysql.h"
#include "db/sqlite.h"
#include "logger.h"

dbdriver_ptr load_dbdriver(const db_settings& s, bool mysql, bool connect, bool mysql_at_use) {
    dbdriver_ptr drv;
    if (strcasecmp(s.driver.c_str(), "sqlite") == 0)
        drv = sqlite_create_drv(s.section.c_str());
    else if (mysql && strcasecmp(s.driver.c_str(), "mysql") == 0)
        drv = mysql_create_drv(s.section.c_str(), true,
                               {s.connect_timeout.value_or(0), s.read_timeout.value_or(0),
                                s.write_timeout.value_or(0)});
    else
        return nullptr;

    const struct {
        const char* key;
        const std::optional<std::string>& text;
        char (&field)[16];
    } formats[] = {{"date_format", s.date_format, drv->dateformat},
                   {"time_format", s.time_format, drv->timeformat}};
    for (const auto& f : formats) {
        if (!f.text) continue;
        if (f.text->size() > 15)
            LOG(L_WARNING, "%s of [%s] is longer than 15 characters; cut to \"%.15s\"", f.key,
                s.section.c_str(), f.text->c_str());
        dbdriver_t::set_text16(f.field, f.text->c_str());
    }
    if (s.host) drv->host = *s.host;
    if (s.user) drv->user = *s.user;
    if (s.password) drv->password = *s.password;
    if (s.database) drv->database = *s.database;
    if (s.port) drv->port = *s.port;
    if (s.synchronous) {
        const bool sqlite = strcasecmp(s.driver.c_str(), "sqlite") == 0;
        if (!sqlite)
            LOG(L_WARNING, "[%s] synchronous is a setting of SQLite files only: ignored",
                s.section.c_str());
        else if (strcasecmp(s.synchronous->c_str(), "normal") == 0)
            sqlite_set_sync_normal(*drv, true);
        else if (strcasecmp(s.synchronous->c_str(), "full") != 0)
            LOG(L_WARNING, "[%s] synchronous = \"%s\" is neither full nor normal: full is kept",
                s.section.c_str(), s.synchronous->c_str());
    }

    if (!connect || (mysql_at_use && strcasecmp(s.driver.c_str(), "mysql") == 0)) return drv;
    db_lock guard(*drv);
    if (drv->reconnect() != 0)
        LOG(L_ERROR, "Can not connect to DB %s of %s. Please check settings\n", s.section.c_str(),
            s.driver.c_str());
    return drv;
}

std::vector<dbdriver_ptr> load_dbdrivers(const std::vector<db_settings>& sections, bool mysql,
                                         bool connect, bool mysql_at_use) {
    std::vector<dbdriver_ptr> drivers;
    for (const db_settings& s : sections)
        if (dbdriver_ptr drv = load_dbdriver(s, mysql, connect, mysql_at_use))
            drivers.insert(drivers.begin(), std::move(drv));
    return drivers;
}

dbdriver_ptr find_dbdriver_in(const std::vector<dbdriver_ptr>& drivers, const char* name) {
    if (!name) return nullptr;
    for (const dbdriver_ptr& drv : drivers)
        if (strcmp(drv->name, name) == 0) return drv;
    return nullptr;
}

#include "rooms/rooms.h"

#include <iniparser.h>
#include <ldap.h>
#include <strings.h>
#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"

namespace {

// How long a connection to the directory server may take, and how long the
// bind and the search may wait for their answers, so that a server that is
// unreachable or does not answer cannot hold up start-up for long.
constexpr int ldap_network_timeout_s = 10;
constexpr int ldap_answer_timeout_s = 30;

constexpr int max_rooms = 10000;  // rooms:room1 .. rooms:room9999

struct dictionary_deleter {
    void operator()(dictionary* d) const { iniparser_freedict(d); }
};
using dictionary_ptr = std::unique_ptr<dictionary, dictionary_deleter>;

struct ldap_unbinder {
    void operator()(LDAP* ld) const { ldap_unbind_ext_s(ld, nullptr, nullptr); }
};
using ldap_ptr = std::unique_ptr<LDAP, ldap_unbinder>;

struct ldap_message_deleter {
    void operator()(LDAPMessage* msg) const { ldap_msgfree(msg); }
};
using ldap_message_ptr = std::unique_ptr<LDAPMessage, ldap_message_deleter>;

struct ldap_values_deleter {
    void operator()(berval** values) const { ldap_value_free_len(values); }
};
using ldap_values_ptr = std::unique_ptr<berval*, ldap_values_deleter>;

// Writes one room into `rooms` under the internal database's lock. Both
// stamps are formatted from the same local time into one text, the time
// overwriting the date: the row gets the time of day in ci_date and an empty
// citime. false when the states file cannot be opened (logged).
bool store_room(const char* room, const std::string& statesfile) {
    char stamp[32] = "";
    char empty[32] = "";
    time_t now = time(nullptr);
    struct tm tm_now {};
    localtime_r(&now, &tm_now);
    strftime(stamp, sizeof stamp, sqliteint.dateformat, &tm_now);
    strftime(stamp, sizeof stamp, sqliteint.timeformat, &tm_now);

    std::lock_guard<dbdriver_t> guard(sqliteint);
    if (sqliteint.connect(nullptr, 0, nullptr, nullptr, statesfile.c_str()) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", statesfile.c_str());
        return false;
    }
    char statement[256];
    snprintf(statement, sizeof statement, "replace into rooms values ('%s','%s','%s',0)", room,
             stamp, empty);
    sqliteint.query(statement);
    return true;
}

void load_numbered_rooms(const dictionary* d, const std::string& statesfile) {
    for (int n = 1; n < max_rooms; ++n) {
        char key[32];
        snprintf(key, sizeof key, "rooms:room%d", n);
        const char* room = iniparser_getstring(d, key, nullptr);
        if (!room) return;
        if (!store_room(room, statesfile)) return;
    }
}

std::optional<std::string> read_text(const dictionary* d, const char* key) {
    if (const char* v = iniparser_getstring(d, key, nullptr)) return std::string(v);
    return std::nullopt;
}

const char* c_str_or_null(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
}

void load_directory_rooms(const dictionary* d) {
    const auto host = read_text(d, "rooms:ldap_host");
    const auto user = read_text(d, "rooms:ldap_user");
    const auto pass = read_text(d, "rooms:ldap_pass");
    const auto base = read_text(d, "rooms:ldap_base");
    const auto scope = read_text(d, "rooms:ldap_scope");
    const auto filter = read_text(d, "rooms:ldap_filter");
    const auto attribute = read_text(d, "rooms:ldap_attribute");
    const int port = iniparser_getint(d, "rooms:ldap_port", 389);
    const int version = iniparser_getint(d, "rooms:ldap_version", 2);

    if (load_rooms_ldap(c_str_or_null(host), port, version, 0, c_str_or_null(user),
                        c_str_or_null(pass), c_str_or_null(base), c_str_or_null(scope),
                        c_str_or_null(filter), c_str_or_null(attribute)) != 0)
        LOG(L_ERROR, "LDAP rooms load failure\n");
}

int search_scope(const char* scope) {
    if (!scope) return LDAP_SCOPE_SUBTREE;
    if (strncmp(scope, "sub", 3) == 0) return LDAP_SCOPE_SUBTREE;
    if (strncmp(scope, "base", 4) == 0) return LDAP_SCOPE_BASE;
    if (strncmp(scope, "one", 3) == 0) return LDAP_SCOPE_ONELEVEL;
    return LDAP_SCOPE_SUBTREE;
}

// "ldap://host:port"; a host without a name means the local host.
std::string ldap_uri(const char* host, int port) {
    std::string name = host && *host ? host : "localhost";
    if (name.find(':') != std::string::npos && name.front() != '[') name = "[" + name + "]";
    return "ldap://" + name + ":" + std::to_string(port);
}

}  // namespace

void load_rooms_conf() {
    dictionary_ptr dict(iniparser_load(config_file.c_str()));
    if (!dict) return;
    const dictionary* d = dict.get();
    const config_ptr cfg = current_config();

    const char* type = iniparser_getstring(d, "rooms:type", nullptr);
    if (!type || !*type)
        load_numbered_rooms(d, cfg->statesfile);
    else if (strncasecmp(type, "ldap", 4) == 0)
        load_directory_rooms(d);
}

int load_rooms_ldap(const char* host, int port, int version, int timelimit, const char* user,
                    const char* password, const char* base, const char* scope, const char* filter,
                    const char* attribute) {
    const char* missing = !base        ? "rooms:ldap_base"
                          : !filter    ? "rooms:ldap_filter"
                          : !attribute ? "rooms:ldap_attribute"
                                       : nullptr;
    if (missing) {
        LOG(L_WARNING, "LDAPget: %s is not set; no search made", missing);
        return -1;
    }

    LDAP* raw = nullptr;
    const std::string uri = ldap_uri(host, port);
    if (ldap_initialize(&raw, uri.c_str()) != LDAP_SUCCESS || !raw) {
        LOG(L_WARNING, "LDAPget: unable to initialize ldap connection to %s:%d\n", host ? host : "",
            port);
        return -1;
    }
    ldap_ptr ld(raw);

    ldap_set_option(ld.get(), LDAP_OPT_TIMELIMIT, &timelimit);
    ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
    const timeval network_timeout = {ldap_network_timeout_s, 0};
    ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &network_timeout);
    const timeval answer_timeout = {ldap_answer_timeout_s, 0};
    ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &answer_timeout);

    berval credentials{};
    if (user && password) {
        credentials.bv_val = const_cast<char*>(password);
        credentials.bv_len = strlen(password);
    }
    int rc =
        ldap_sasl_bind_s(ld.get(), user, LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
    if (rc != LDAP_SUCCESS) {
        LOG(L_WARNING, "LDAPget: bind failed: %s\n", ldap_err2string(rc));
        return -2;
    }

    LDAPMessage* raw_result = nullptr;
    rc = ldap_search_ext_s(ld.get(), base, search_scope(scope), filter, nullptr, 0, nullptr,
                           nullptr, nullptr, 0, &raw_result);
    ldap_message_ptr result(raw_result);
    if (rc != LDAP_SUCCESS) {
        LOG(L_DEBUG, "LDAPget: search failed: %s\n", ldap_err2string(rc));
        return -3;
    }

    LDAPMessage* entry = ldap_first_entry(ld.get(), result.get());
    if (!entry) {
        LOG(L_WARNING, "LDAPget: Value not found in directory.\n");
        return -4;
    }

    ldap_values_ptr values(ldap_get_values_len(ld.get(), entry, attribute));
    if (!values || !values.get()[0]) return -5;

    const std::string statesfile = current_config()->statesfile;
    for (berval** v = values.get(); *v; ++v) {
        const std::string room((*v)->bv_val, (*v)->bv_len);
        if (!store_room(room.c_str(), statesfile)) return 0;
    }
    return 0;
}

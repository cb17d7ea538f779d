#include "rooms/rooms.h"

#include <ldap.h>
#include <strings.h>
#include <sys/time.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "logger.h"

namespace {

// How long a connection to the directory server may take, and how long the
// bind and the search may wait for their answers, so that a server that is
// unreachable or does not answer cannot hold up start-up for long.
constexpr int ldap_network_timeout_s = 10;
constexpr int ldap_answer_timeout_s = 30;

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

// Writes one room; false when the states file cannot be opened (logged).
bool store_room(const std::string& room, states_file& states, bool true_stamps) {
    if (states.rooms().store(room, false, true_stamps) == 0) return true;
    LOG(L_ERROR, "Unable to open states file %s", states.path().c_str());
    return false;
}

const char* c_str_or_null(const std::optional<std::string>& text) {
    return text ? text->c_str() : nullptr;
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

void load_rooms_conf(const rooms_settings& r, states_file& states, bool true_stamps) {
    if (!r.type || r.type->empty()) {
        for (const std::string& room : r.rooms)
            if (!store_room(room, states, true_stamps)) return;
    } else if (strncasecmp(r.type->c_str(), "ldap", 4) == 0) {
        if (load_rooms_ldap(c_str_or_null(r.ldap_host), r.ldap_port, r.ldap_version, 0,
                            c_str_or_null(r.ldap_user), c_str_or_null(r.ldap_pass),
                            c_str_or_null(r.ldap_base), c_str_or_null(r.ldap_scope),
                            c_str_or_null(r.ldap_filter), c_str_or_null(r.ldap_attribute), states,
                            true_stamps, r.ldap_timeout) != 0)
            LOG(L_ERROR, "LDAP rooms load failure\n");
    }
}

int load_rooms_ldap(const char* host, int port, int version, int timelimit, const char* user,
                    const char* password, const char* base, const char* scope, const char* filter,
                    const char* attribute, states_file& states, bool true_stamps, int deadline_s) {
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
    const timeval network_timeout = {deadline_s > 0 ? deadline_s : ldap_network_timeout_s, 0};
    ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &network_timeout);
    const timeval answer_timeout = {deadline_s > 0 ? deadline_s : ldap_answer_timeout_s, 0};
    ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &answer_timeout);

    if (deadline_s > 0) {
        // Connected apart from the bind, so that a connect that takes too
        // long is told from a bind that gets no answer.
        const auto start = std::chrono::steady_clock::now();
        if (ldap_connect(ld.get()) != LDAP_SUCCESS &&
            std::chrono::steady_clock::now() - start >=
                std::chrono::seconds(deadline_s) - std::chrono::milliseconds(200)) {
            LOG(L_ERROR, "LDAP %s: connect timed out after %d s", uri.c_str(), deadline_s);
            return -2;
        }
    }

    berval credentials{};
    if (user && password) {
        credentials.bv_val = const_cast<char*>(password);
        credentials.bv_len = strlen(password);
    }
    int rc =
        ldap_sasl_bind_s(ld.get(), user, LDAP_SASL_SIMPLE, &credentials, nullptr, nullptr, nullptr);
    if (rc == LDAP_TIMEOUT && deadline_s > 0)
        LOG(L_ERROR, "LDAP %s: bind timed out after %d s", uri.c_str(), deadline_s);
    if (rc != LDAP_SUCCESS) {
        LOG(L_WARNING, "LDAPget: bind failed: %s\n", ldap_err2string(rc));
        return -2;
    }

    LDAPMessage* raw_result = nullptr;
    rc = ldap_search_ext_s(ld.get(), base, search_scope(scope), filter, nullptr, 0, nullptr,
                           nullptr, nullptr, 0, &raw_result);
    ldap_message_ptr result(raw_result);
    if (rc == LDAP_TIMEOUT && deadline_s > 0)
        LOG(L_ERROR, "LDAP %s: search timed out after %d s", uri.c_str(), deadline_s);
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

    for (berval** v = values.get(); *v; ++v) {
        const std::string room((*v)->bv_val, (*v)->bv_len);
        if (!store_room(room, states, true_stamps)) return 0;
    }
    return 0;
}

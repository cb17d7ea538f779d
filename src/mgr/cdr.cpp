#include "mgr/cdr.h"

#include <signal.h>
#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "logger.h"
#include "states/states.h"

namespace {

// Writing to a connection the manager has closed must fail, not end the process.
void ignore_sigpipe() {
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGPIPE, &sa, nullptr);
}

}  // namespace

void cdrmanager_thread(config_ptr cfg, stop_flag& stop) {
    const std::string host = cfg->mgr_host.value_or("");
    const std::string user = cfg->mgr_user.value_or("");
    const std::string passwd = cfg->mgr_passwd.value_or("");
    // Current Asterisk sends Cdr events only to the class "cdr".
    const std::string events =
        cfg->fixes.manager_events && !cfg->mgr_events_set ? "cdr" : cfg->mgr_events;

    // With [fixes] private_files the secret never reaches the log.
    const bool hide = cfg->fixes.private_files;
    LOG(L_DEBUG, "1 %s %d %s %s", host.c_str(), cfg->mgr_port, user.c_str(),
        hide ? "(hidden)" : passwd.c_str());

    unsigned version = states_rooms_version();
    std::vector<std::string> list;
    if (states_room_list(list, &cfg->statesfile) == -1) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        return;
    }
    for (const std::string& room : list)
        LOG(L_DEBUG, "Adding cdrmanager rooms room %s\n", room.c_str());
    cdr_rooms rooms(std::move(list));

    auto session = std::make_unique<mansession>();
    if (mgr_init(*session, host.c_str(), cfg->mgr_port, user.c_str(), passwd.c_str()) < 0) {
        LOG(L_ERROR, "Error initiating manager. exiting manager thread");
        return;
    }
    session->wake_fd = stop.fd();
    session->hide_secret = hide;
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, session->sin.sin_addr);

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    if (mgr_login(*session, events.c_str()) == 1) return;
    LOG(L_DEBUG, "3");
    ignore_sigpipe();

    while (!stop.requested()) {
        msg->clear();
        int res = mgr_read(*session, *msg);
        if (res >= 1) {
            if (log_wanted(L_DEBUG))
                for (int i = 0; i < msg->hdrcount; ++i)
                    LOG(L_DEBUG, "%s got: %s", addr, msg->headers[i]);
            if (session->connected != 0) {
                if (strcasecmp(mgr_get_header(*msg, "Event"), "Cdr") != 0) continue;
                // With [fixes] reload a call is matched against the rooms of
                // the table as it is now.
                if (cfg->fixes.reload && version != states_rooms_version()) {
                    version = states_rooms_version();
                    std::vector<std::string> now;
                    if (states_room_list(now) == 0) rooms = cdr_rooms(std::move(now));
                }
                mgr_cache_cdr(*msg, rooms, cfg->fixes.escape);
            } else {
                const char* text = mgr_get_header(*msg, "Message");
                if (strcmp(text, "Authentication accepted") == 0) {
                    session->connected = 1;
                    LOG(L_DEBUG, "%s: connected successfully!", addr);
                } else if (strcmp(text, "Authentication failed") == 0) {
                    session->connected = -1;
                }
            }
        } else if (res < 0) {
            if (stop.requested()) break;
            LOG(L_ERROR, "%s: Not connected", addr);
            if (mgr_login(*session, events.c_str()) == 1) break;
        }
    }
}

cdr_rooms::cdr_rooms(std::vector<std::string> rooms) : list(std::move(rooms)), sorted(list) {
    std::sort(sorted.begin(), sorted.end());
}

bool cdr_rooms::contains(const char* room) const {
    return std::binary_search(sorted.begin(), sorted.end(), std::string_view(room));
}

namespace {

// The insert of `m` and the values it was made from.
struct cache_insert {
    std::string escaped[cache_insert_values];
    const char* values[cache_insert_values];
    std::string statement;

    cache_insert(const message& m, bool escape) {
        static const char* const names[cache_insert_values] = {"CallerID",
                                                               "Source",
                                                               "Destination",
                                                               "DestinationContext",
                                                               "Channel",
                                                               "DestinationChannel",
                                                               "LastApplication",
                                                               "LastData",
                                                               "StartTime",
                                                               "AnswerTime",
                                                               "EndTime",
                                                               "Duration",
                                                               "BillableSeconds",
                                                               "Disposition",
                                                               "AMAFlags",
                                                               "From",
                                                               "To",
                                                               "Cost",
                                                               "AccountCode",
                                                               "CallClass",
                                                               "FaxData",
                                                               "UniqueID"};
        for (int i = 0; i < cache_insert_values; ++i) {
            const char* header = mgr_get_header(m, names[i]);
            if (escape) escaped[i] = sqliteint.dbhandle->escape(header);
            values[i] = escape ? escaped[i].c_str() : header;
        }
        statement = cache_insert_statement(values);
    }
};

}  // namespace

void mgr_cache_cdr(const message& m, const cdr_rooms& rooms, bool escape) {
    const char* src = mgr_get_header(m, "Source");
    if (!log_wanted(L_DEBUG)) {
        // Nothing of the test is logged: the sorted list answers it, and
        // only a room's call is made into a statement.
        if (rooms.list.empty()) {
            LOG(L_ERROR, "No rooms or empty list iterator\n");
            return;
        }
        if (!rooms.contains(src)) return;
        cache_insert insert(m, escape);
        db_lock guard(sqliteint);
        cache_run_insert(insert.statement, insert.values);
        return;
    }
    cache_insert insert(m, escape);
    LOG(L_DEBUG, "The query is: %s\n", insert.statement.c_str());

    // The room list is this thread's own: the states file is locked for the
    // insert alone.
    if (rooms.list.empty()) {
        LOG(L_ERROR, "No rooms or empty list iterator\n");
        return;
    }
    bool matched = false;
    for (const std::string& room : rooms.list) {
        LOG(L_DEBUG, "TESTING '%s' ?= '%s'\n", src, room.c_str());
        if (room == src) {
            LOG(L_DEBUG, "'%s' matches '%s'\n", src, room.c_str());
            matched = true;
            break;
        }
    }
    if (matched) {
        LOG(L_DEBUG, "sending cache insert query");
        db_lock guard(sqliteint);
        cache_run_insert(insert.statement, insert.values);
    }
}

void mgr_cache_cdr(const message& m, const std::vector<std::string>& rooms, bool escape) {
    mgr_cache_cdr(m, cdr_rooms(rooms), escape);
}

#include "mgr/cdr.h"

#include <signal.h>
#include <strings.h>

#include <cstring>
#include <memory>

#include "logger.h"
#include "ops/notify.h"
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
    std::vector<std::string> rooms;
    if (states_room_list(rooms, &cfg->statesfile) == -1) {
        LOG(L_ERROR, "Unable to open states file %s", cfg->statesfile.c_str());
        notify_stopped(notify_part::capture,
                       "call capture stopped: the states file cannot be read");
        return;
    }
    for (const std::string& room : rooms)
        LOG(L_DEBUG, "Adding cdrmanager rooms room %s\n", room.c_str());

    auto session = std::make_unique<mansession>();
    if (mgr_init(*session, host.c_str(), cfg->mgr_port, user.c_str(), passwd.c_str()) < 0) {
        LOG(L_ERROR, "Error initiating manager. exiting manager thread");
        notify_stopped(notify_part::capture,
                       "call capture stopped: Manager " + host + " cannot be resolved");
        return;
    }
    session->wake_fd = stop.fd();
    session->hide_secret = hide;
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, session->sin.sin_addr);

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    if (mgr_login(*session, events.c_str()) == 1) {
        if (!stop.requested())
            notify_stopped(notify_part::capture, "call capture stopped: Manager login refused");
        return;
    }
    LOG(L_DEBUG, "3");
    ignore_sigpipe();

    while (!stop.requested()) {
        msg->clear();
        int res = mgr_read(*session, *msg);
        if (res >= 1) {
            for (int i = 0; i < msg->hdrcount; ++i)
                LOG(L_DEBUG, "%s got: %s", addr, msg->headers[i]);
            if (session->connected != 0) {
                if (strcasecmp(mgr_get_header(*msg, "Event"), "Cdr") != 0) continue;
                // With [fixes] reload a call is matched against the rooms of
                // the table as it is now.
                if (cfg->fixes.reload && version != states_rooms_version()) {
                    version = states_rooms_version();
                    std::vector<std::string> now;
                    if (states_room_list(now) == 0) rooms = std::move(now);
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

void mgr_cache_cdr(const message& m, const std::vector<std::string>& rooms, bool escape) {
    const char* const headers[cache_insert_values] = {mgr_get_header(m, "CallerID"),
                                                      mgr_get_header(m, "Source"),
                                                      mgr_get_header(m, "Destination"),
                                                      mgr_get_header(m, "DestinationContext"),
                                                      mgr_get_header(m, "Channel"),
                                                      mgr_get_header(m, "DestinationChannel"),
                                                      mgr_get_header(m, "LastApplication"),
                                                      mgr_get_header(m, "LastData"),
                                                      mgr_get_header(m, "StartTime"),
                                                      mgr_get_header(m, "AnswerTime"),
                                                      mgr_get_header(m, "EndTime"),
                                                      mgr_get_header(m, "Duration"),
                                                      mgr_get_header(m, "BillableSeconds"),
                                                      mgr_get_header(m, "Disposition"),
                                                      mgr_get_header(m, "AMAFlags"),
                                                      mgr_get_header(m, "From"),
                                                      mgr_get_header(m, "To"),
                                                      mgr_get_header(m, "Cost"),
                                                      mgr_get_header(m, "AccountCode"),
                                                      mgr_get_header(m, "CallClass"),
                                                      mgr_get_header(m, "FaxData"),
                                                      mgr_get_header(m, "UniqueID")};
    std::string escaped[cache_insert_values];
    const char* values[cache_insert_values];
    for (int i = 0; i < cache_insert_values; ++i) {
        if (escape) escaped[i] = sqliteint.dbhandle->escape(headers[i]);
        values[i] = escape ? escaped[i].c_str() : headers[i];
    }
    const std::string query = cache_insert_statement(values);
    LOG(L_DEBUG, "The query is: %s\n", query.c_str());

    db_lock guard(sqliteint);
    const char* src = mgr_get_header(m, "Source");
    if (rooms.empty()) {
        LOG(L_ERROR, "No rooms or empty list iterator\n");
        return;
    }
    bool matched = false;
    for (const std::string& room : rooms) {
        LOG(L_DEBUG, "TESTING '%s' ?= '%s'\n", src, room.c_str());
        if (room == src) {
            LOG(L_DEBUG, "'%s' matches '%s'\n", src, room.c_str());
            matched = true;
            break;
        }
    }
    if (matched) {
        LOG(L_DEBUG, "sending cache insert query");
        sqliteint.query(query.c_str());
    }
}

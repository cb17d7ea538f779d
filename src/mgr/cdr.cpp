#include "mgr/cdr.h"

#include <signal.h>
#include <strings.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>

#include "config.h"
#include "db/sqlite.h"
#include "logger.h"

namespace {

const char* const insert_format =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES ('%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s','%s','')";

// The rooms of the `rooms` table; false when the states file cannot be opened.
bool load_rooms(const std::string& statesfile, std::vector<std::string>& rooms) {
    std::lock_guard<dbdriver_t> guard(sqliteint);
    if (sqliteint.connect(nullptr, 0, nullptr, nullptr, statesfile.c_str()) != 0) {
        LOG(L_ERROR, "Unable to open states file %s", statesfile.c_str());
        return false;
    }
    if (sqliteint.query("select room from rooms") == 0) {
        while (sqliteint.fetch_row() == 0) {
            char room[32] = "";
            sqliteint.fetch_char_field(0, room, sizeof room - 1);
            rooms.emplace_back(room);
            LOG(L_DEBUG, "Adding cdrmanager rooms room %s\n", room);
        }
    }
    sqliteint.free_result();
    return true;
}

// Writing to a connection the manager has closed must fail, not end the process.
void ignore_sigpipe() {
    struct sigaction sa {};
    sa.sa_handler = SIG_IGN;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGPIPE, &sa, nullptr);
}

}  // namespace

void cdrmanager_thread() {
    const config_ptr cfg = current_config();
    const std::string host = cfg->mgr_host.value_or("");
    const std::string user = cfg->mgr_user.value_or("");
    const std::string passwd = cfg->mgr_passwd.value_or("");
    const std::string& events = cfg->mgr_events;

    LOG(L_DEBUG, "1 %s %d %s %s", host.c_str(), cfg->mgr_port, user.c_str(), passwd.c_str());

    std::vector<std::string> rooms;
    if (!load_rooms(cfg->statesfile, rooms)) return;

    auto session = std::make_unique<mansession>();
    if (mgr_init(*session, host.c_str(), cfg->mgr_port, user.c_str(), passwd.c_str()) < 0) {
        LOG(L_ERROR, "Error initiating manager. exiting manager thread");
        return;
    }
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, session->sin.sin_addr);

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    mgr_login(*session, events.c_str());
    LOG(L_DEBUG, "3");
    ignore_sigpipe();

    for (;;) {
        msg->clear();
        int res = mgr_read(*session, *msg);
        if (res >= 1) {
            for (int i = 0; i < msg->hdrcount; ++i)
                LOG(L_DEBUG, "%s got: %s", addr, msg->headers[i]);
            if (session->connected != 0) {
                if (strcasecmp(mgr_get_header(*msg, "Event"), "Cdr") == 0)
                    mgr_cache_cdr(*msg, rooms);
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
            LOG(L_ERROR, "%s: Not connected", addr);
            if (mgr_login(*session, events.c_str()) == 1) break;
        }
    }
}

int mgr_cache_cdr(const message& m, const std::vector<std::string>& rooms) {
    char query[2048];
    snprintf(query, sizeof query, insert_format, mgr_get_header(m, "CallerID"),
             mgr_get_header(m, "Source"), mgr_get_header(m, "Destination"),
             mgr_get_header(m, "DestinationContext"), mgr_get_header(m, "Channel"),
             mgr_get_header(m, "DestinationChannel"), mgr_get_header(m, "LastApplication"),
             mgr_get_header(m, "LastData"), mgr_get_header(m, "StartTime"),
             mgr_get_header(m, "AnswerTime"), mgr_get_header(m, "EndTime"),
             mgr_get_header(m, "Duration"), mgr_get_header(m, "BillableSeconds"),
             mgr_get_header(m, "Disposition"), mgr_get_header(m, "AMAFlags"),
             mgr_get_header(m, "From"), mgr_get_header(m, "To"), mgr_get_header(m, "Cost"),
             mgr_get_header(m, "AccountCode"), mgr_get_header(m, "CallClass"),
             mgr_get_header(m, "FaxData"), mgr_get_header(m, "UniqueID"));
    LOG(L_DEBUG, "The query is: %s\n", query);

    std::lock_guard<dbdriver_t> guard(sqliteint);
    const char* src = mgr_get_header(m, "Source");
    if (rooms.empty()) {
        LOG(L_ERROR, "No rooms or empty list iterator\n");
        return 0;
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
        sqliteint.query(query);
    }
    return 0;
}

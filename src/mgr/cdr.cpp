#include "mgr/cdr.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "logger.h"
#include "templates/templates.h"

cdr_rooms::cdr_rooms(std::vector<std::string> rooms) : list(std::move(rooms)), sorted(list) {
    std::sort(sorted.begin(), sorted.end());
}

bool cdr_rooms::contains(const char* room) const {
    return std::binary_search(sorted.begin(), sorted.end(), std::string_view(room));
}

namespace {

cached_call make_insert(const message& m, bool escape) {
    static const char* const names[cached_call_values] = {"CallerID",
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
    const char* v[cached_call_values];
    for (int i = 0; i < cached_call_values; ++i) v[i] = mgr_get_header(m, names[i]);
    return cached_call(v, escape);
}

// The insert of `m` when its source is one of `rooms`, with the DEBUG lines
// of the test (which are not made when they would not be written: the sorted
// list then answers it).
std::optional<cached_call> room_call(const message& m, const cdr_rooms& rooms, bool escape) {
    const char* src = mgr_get_header(m, "Source");
    if (!log_wanted(L_DEBUG)) {
        if (rooms.list.empty()) {
            LOG(L_ERROR, "No rooms or empty list iterator\n");
            return std::nullopt;
        }
        if (!rooms.contains(src)) return std::nullopt;
        return make_insert(m, escape);
    }
    cached_call insert = make_insert(m, escape);
    insert.log_statement();
    // The room list is this thread's own: the states file is locked for the
    // insert alone.
    if (rooms.list.empty()) {
        LOG(L_ERROR, "No rooms or empty list iterator\n");
        return std::nullopt;
    }
    for (const std::string& room : rooms.list) {
        LOG(L_DEBUG, "TESTING '%s' ?= '%s'\n", src, room.c_str());
        if (room == src) {
            LOG(L_DEBUG, "'%s' matches '%s'\n", src, room.c_str());
            LOG(L_DEBUG, "sending cache insert query");
            return insert;
        }
    }
    return std::nullopt;
}

// Room calls read one after the other, stored together: in one transaction
// when the reader is about to wait for the manager, before it logs in again,
// when the thread ends, and at the latest every kBatch calls. The calls of a
// burst are so stored at the pace they arrive, and a call is in the states
// file before the thread waits for anything.
class insert_batch {
  public:
    static constexpr size_t kBatch = 256;

    explicit insert_batch(states_file& states) : states_(states) {}
    ~insert_batch() { store(); }

    void add(cached_call call) {
        pending_.push_back(std::move(call));
        if (pending_.size() >= kBatch) store();
    }

    void store() {
        states_.cache_calls(pending_);
        pending_.clear();
    }

  private:
    states_file& states_;
    std::vector<cached_call> pending_;
};

}  // namespace

void mgr_cache_cdr(const message& m, const cdr_rooms& rooms, states_file& states, bool escape) {
    if (std::optional<cached_call> call = room_call(m, rooms, escape)) states.cache_calls({*call});
}

void cdrmanager_thread(config_ptr cfg, stop_flag& stop, states_file& states, notifier& notify) {
    const std::string host = cfg->mgr_host.value_or("");
    const std::string user = cfg->mgr_user.value_or("");
    const std::string passwd = cfg->mgr_passwd.value_or("");
    // Current Asterisk sends Cdr events only to the class "cdr".
    const std::string events =
        cfg->fixes.manager_events && !cfg->mgr_events_set ? "cdr" : cfg->mgr_events;
    const bool escape = fill_options_of(*cfg).escape;

    // With [fixes] private_files the secret never reaches the log.
    const bool hide = cfg->fixes.private_files;
    LOG(L_DEBUG, "1 %s %d %s %s", host.c_str(), cfg->mgr_port, user.c_str(),
        hide ? "(hidden)" : passwd.c_str());

    unsigned version = states.rooms_version();
    std::vector<std::string> list;
    if (states.room_list(list, true) == -1) {
        LOG(L_ERROR, "Unable to open states file %s", states.path().c_str());
        notify.stopped(notify_part::capture,
                       "call capture stopped: the states file cannot be read");
        return;
    }
    for (const std::string& room : list)
        LOG(L_DEBUG, "Adding cdrmanager rooms room %s\n", room.c_str());
    cdr_rooms rooms(std::move(list));

    auto session = std::make_unique<mansession>();
    if (mgr_init(*session, host.c_str(), cfg->mgr_port, user.c_str(), passwd.c_str()) < 0) {
        LOG(L_ERROR, "Error initiating manager. exiting manager thread");
        notify.stopped(notify_part::capture,
                       "call capture stopped: Manager " + host + " cannot be resolved");
        return;
    }
    session->wake_fd = stop.fd();
    session->hide_secret = hide;
    insert_batch batch(states);
    session->before_wait = [&batch] { batch.store(); };
    char addr[INET_ADDRSTRLEN];
    mgr_inet_ntoa(addr, sizeof addr, session->sin.sin_addr);

    LOG(L_DEBUG, "2");
    auto msg = std::make_unique<message>();
    if (mgr_login(*session, events.c_str()) == 1) {
        if (!stop.requested())
            notify.stopped(notify_part::capture, "call capture stopped: Manager login refused");
        return;
    }
    LOG(L_DEBUG, "3");

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
                if (cfg->fixes.reload && version != states.rooms_version()) {
                    version = states.rooms_version();
                    std::vector<std::string> now;
                    if (states.room_list(now) == 0) rooms = cdr_rooms(std::move(now));
                }
                if (std::optional<cached_call> insert = room_call(*msg, rooms, escape))
                    batch.add(std::move(*insert));
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
            batch.store();
            if (stop.requested()) break;
            LOG(L_ERROR, "%s: Not connected", addr);
            if (mgr_login(*session, events.c_str()) == 1) break;
        }
    }
}

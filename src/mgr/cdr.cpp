#include "mgr/cdr.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>

#include "logger.h"
#include "templates/templates.h"

cdr_rooms::cdr_rooms(std::vector<std::string> rooms,
                     std::map<std::string, std::string, std::less<>> extensions)
    : list(std::move(rooms)), sorted(list), by_extension(std::move(extensions)) {
    std::sort(sorted.begin(), sorted.end());
}

const std::string* cdr_rooms::extension_room(const char* source) const {
    auto it = by_extension.find(std::string_view(source));
    return it != by_extension.end() && contains(it->second.c_str()) ? &it->second : nullptr;
}

bool cdr_rooms::contains(const char* room) const {
    return std::binary_search(sorted.begin(), sorted.end(), std::string_view(room));
}

namespace {

// A caller id ('"Name" <number>', a number, or a name) without its name.
std::string caller_number(std::string_view clid) {
    const size_t open = clid.find('<');
    if (open != std::string_view::npos) return std::string(clid.substr(open));
    if (clid.find_first_not_of("0123456789+*#") != std::string_view::npos) return "";
    return std::string(clid);
}

// The insert of `m`; `room`, when given, in the place of its Source.
cached_call make_insert(const message& m, bool escape, const std::string* room = nullptr) {
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
    if (room) v[1] = room->c_str();
    // With names hidden the cache keeps the caller's number only.
    std::string number;
    if (logger_hides_names()) {
        number = caller_number(v[0]);
        v[0] = number.c_str();
    }
    return cached_call(v, escape);
}

// The insert of `m` when its source is one of `rooms`, with the DEBUG lines
// of the test (which are not made when they would not be written: the sorted
// list then answers it).
// `room`, when given, gets the room of the call.
std::optional<cached_call> room_call(const message& m, const cdr_rooms& rooms, bool escape,
                                     std::string* room_of_call = nullptr) {
    const char* src = mgr_get_header(m, "Source");
    if (room_of_call) *room_of_call = src;
    if (const std::string* room = rooms.extension_room(src)) {
        LOG(L_DEBUG, "'%s' is an extension of room '%s'\n", src, room->c_str());
        if (room_of_call) *room_of_call = *room;
        return make_insert(m, escape, room);
    }
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
    ~insert_batch() { write(); }

    void add(cached_call call, const std::string& room) {
        pending_.push_back(std::move(call));
        if (std::find(rooms_.begin(), rooms_.end(), room) == rooms_.end()) rooms_.push_back(room);
        if (pending_.size() >= kBatch) write();
    }

    // Stores what is pending; then the rooms of the calls stored since the
    // last time go to `stored` (when set). The calls are committed when it
    // returns (with the sender, `stored` commits them along with their
    // postings, in one commit).
    void store(const cdr_stored_hook& stored = {}, const std::vector<std::string>& all = {}) {
        if (rooms_.empty()) return;
        if (!pending_.empty()) states_.calls().cache(pending_);
        pending_.clear();
        std::vector<std::string> rooms = std::move(rooms_);
        rooms_.clear();
        if (stored) stored(rooms, all);
        states_.calls().commit();
    }

  private:
    void write() {
        if (pending_.empty()) return;
        states_.calls().cache(pending_);
        states_.calls().commit();
        pending_.clear();
    }

    states_file& states_;
    std::vector<cached_call> pending_;
    std::vector<std::string> rooms_;  // of the pending calls
};

}  // namespace

void mgr_cache_cdr(const message& m, const cdr_rooms& rooms, states_file& states, bool escape) {
    if (std::optional<cached_call> call = room_call(m, rooms, escape))
        states.calls().cache({*call});
}

namespace {

std::map<std::string, std::string, std::less<>> extension_rooms(const config& cfg) {
    std::map<std::string, std::string, std::less<>> out;
    for (const auto& [room, list] : cfg.extensions)
        for (const std::string& extension : list) out.emplace(extension, room);
    return out;
}

// What the capture keeps while its session runs.
struct capture_state {
    capture_state(config_ptr c, states_file& s, cdr_stored_hook h)
        : cfg(std::move(c)), states(s), stored(std::move(h)), batch(s) {}
    void store() { batch.store(stored, rooms.list); }
    config_ptr cfg;
    states_file& states;
    cdr_stored_hook stored;
    unsigned version = 0;
    cdr_rooms rooms{{}};
    insert_batch batch;
};

}  // namespace

void attach_cdr_capture(mgr_session& session, config_ptr cfg, states_file& states,
                        cdr_stored_hook stored) {
    auto c = std::make_shared<capture_state>(std::move(cfg), states, std::move(stored));
    session.before_start([c](std::string& why) {
        c->version = c->states.rooms().version();
        std::vector<std::string> list;
        if (c->states.rooms().list(list, true) == -1) {
            LOG(L_ERROR, "Unable to open states file %s", c->states.path().c_str());
            why = "call capture stopped: the states file cannot be read";
            return false;
        }
        for (const std::string& room : list)
            LOG(L_DEBUG, "Adding cdrmanager rooms room %s\n", room.c_str());
        c->rooms = cdr_rooms(std::move(list), extension_rooms(*c->cfg));
        return true;
    });
    session.before_wait([c] { c->store(); });
    session.subscribe("Cdr", [c](const message& m) {
        // With [fixes] reload a call is matched against the rooms of the
        // table as it is now.
        if (c->cfg->fixes.reload && c->version != c->states.rooms().version()) {
            c->version = c->states.rooms().version();
            std::vector<std::string> now;
            if (c->states.rooms().list(now) == 0)
                c->rooms = cdr_rooms(std::move(now), extension_rooms(*c->cfg));
        }
        std::string room;
        if (std::optional<cached_call> call =
                room_call(m, c->rooms, fill_options_of(*c->cfg).escape, &room))
            c->batch.add(std::move(*call), room);
    });
}

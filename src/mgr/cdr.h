// CDR capture: copies the `Cdr` events of hotel rooms that the Manager
// session reads into the states file's `cdrcache` table.
//
// Contract:
//  - attach_cdr_capture() hooks the capture on a session before it starts,
//    with the configuration snapshot the session was made from (a reload
//    changes nothing for it, except that with [fixes] reload it reads the
//    room list of the `rooms` table again whenever that list has changed;
//    otherwise once, when the session starts). Everything it keeps lives as
//    long as the session.
//  - A session that cannot read the room list at its start ends.
//  - Room calls read one after the other are stored together, in one
//    transaction, whenever the session is about to wait for the Manager
//    (at the latest every 256): a call is in the states file before the
//    session waits for anything.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "config.h"
#include "mgr/manager.h"
#include "mgr/session.h"
#include "states/states.h"

// Called in the session's thread after calls were stored, with the rooms
// they belong to (each once, in the order of their first call) and the
// capture's whole room list ([posting] immediate).
using cdr_stored_hook = std::function<void(const std::vector<std::string>& rooms,
                                           const std::vector<std::string>& all_rooms)>;

void attach_cdr_capture(mgr_session& session, config_ptr cfg, states_file& states,
                        cdr_stored_hook stored = {});

// The rooms whose calls are cached: in the order of the `rooms` table (the
// order in which a call's source is compared with them, one DEBUG line each),
// and sorted, for the same test when DEBUG lines are not written.
// With [extensions], a call from an extension of a room is that room's call
// (`by_extension`: extension -> room).
struct cdr_rooms {
    std::vector<std::string> list;
    std::vector<std::string> sorted;
    std::map<std::string, std::string, std::less<>> by_extension;
    explicit cdr_rooms(std::vector<std::string> rooms,
                       std::map<std::string, std::string, std::less<>> extensions = {});
    bool contains(const char* room) const;
    // The room whose extension `source` is, when that room is in the list.
    const std::string* extension_room(const char* source) const;
};

// Inserts the `Cdr` event `m` into `cdrcache` when its Source is one of
// `rooms` (exact comparison). A failed insert is logged by the driver and the
// call is lost. With `escape` ([fixes] escape) the values are escaped.
void mgr_cache_cdr(const message& m, const cdr_rooms& rooms, states_file& states,
                   bool escape = false);

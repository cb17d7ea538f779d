// The call cache of the states file: the `cdrcache` table, which holds the
// calls cached from the Manager until they are posted (states.h).
//
// Contract: see states.h; the table is on the connection a check-in may close
// for good, and the counts are read on the one no operation closes.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "db/driver.h"
#include "fias/packet.h"
#include "states/connection.h"
#include "templates/templates.h"

// A call as the posting passes read it: from the call cache or from the
// operator's services:billcalls statement on a PBX database.
struct call_row {
    std::string date;
    std::string time;
    std::string dst;
    int billsec = 0;
    int callcost = -1;
    bool cost_empty = false;  // the cost column is there but empty (or NULL)
    // From the call cache only: the call's disposition ("ANSWERED", "BUSY",
    // ...), its row and its unique id.
    std::string disposition;
    bool has_disposition = false;
    long long cache_row = 0;
    std::string uniqueid;
};

// How the call cache gives a call's date and time.
constexpr const char* cache_date_format = "%Y-%m-%d";
constexpr const char* cache_time_format = "%H:%M:%S";

enum class row_read { ok, failed };

// Reads the current row's columns (date, time, destination, billable
// seconds, cost; the cost may be missing), whole; logs and fails on an
// unreadable one of the first four.
row_read read_call_row(dbdriver_t& drv, call_row& row) REQUIRES(drv);

// The columns of a Manager `Cdr` event that the cache keeps, in the order of
// cached_call's values: clid, src, dst, dcontext, channel, dstchannel,
// lastapp, lastdata, start, answer, end, duration, billsec, disposition,
// amaflags, c_from, c_to, cost, accountcode, callclass, faxdata, uniqueid
// (userfield is stored empty).
constexpr int cached_call_values = 22;

// One call to be cached, made from its values. The values are stored as they
// are, whatever they hold.
class cached_call {
  public:
    // `escape`: the statement written to the log shows the values escaped
    // ([fixes] escape), as a statement made of text would hold them.
    cached_call(const char* const (&values)[cached_call_values], bool escape);
    // Writes the call's insert statement to the log at DEBUG.
    void log_statement() const;

  private:
    friend class call_cache;
    std::string values_[cached_call_values];
    bool escape_ = false;
};

// What an accepted posting answer does to its cached call.
enum class accepted_call {
    remove_by_start,   // the long-standing delete, which SQLite refuses: the call stays
    mark_with_number,  // services:noremovecalls: its userfield becomes the "P#"
    remove_own_row,    // the call marked with this posting leaves the cache
};

// What posting one cached call gave: the record text and its "P#", which
// mark the call as posted; or, with `dropped`, a call that is never to be
// posted ([posting]), which leaves the cache.
struct posted_call {
    std::string record;
    std::string seq;
    bool dropped = false;
};

class call_cache {
  public:
    // `main` holds the table; `own` (never closed) answers the counts.
    call_cache(states_connection& main, states_connection& own) : main_(main), own_(own) {}

    // With the posting sender (set once, before other threads run): the
    // table is used on the connection that is never closed, where the
    // sender's group of changes lives, so that caching, queuing and settling
    // take turns on one lock instead of waiting for SQLite's write lock.
    void use_one_connection();

    // Stores calls, in one transaction when there are several. A failed insert
    // is logged by the driver and that call is lost. With the sender they
    // join the group of the never-closed connection: commit() makes them
    // durable, unless a posting's store or the sender did so first.
    void cache(const std::vector<cached_call>& calls);
    void commit();
    // Offers each cached call of `room` not yet posted to `post`, in the
    // cache's order; a call that `post` posted is marked with its record
    // (the mark's statement echoed under `fill`), a call that `post` dropped
    // is deleted. The room's marks are committed together after its last
    // call. An unreadable column ends the room's calls (logged). `post` may
    // use the outbox. 0, or -1 when the marks were not committed.
    int post_unposted(const std::string& room,
                      const std::function<std::optional<posted_call>(const call_row&)>& post,
                      const fill_options& fill);
    // The posting sender's way in two steps: the cached calls of `room` not
    // yet posted, in the cache's order (an unreadable column ends them,
    // logged); then the marks of those posted (of any room) and the deletes
    // of those dropped, inside `tx` (on the never-closed connection, which
    // the cache uses with the sender), so that they are made together with
    // the calls' postings in the outbox; echoed as post_unposted() does.
    // 0, or -1.
    int unposted(const std::string& room, std::vector<call_row>& rows);
    struct queued_mark {
        std::string room, date, time, record, seq;
        long long row = 0;  // the call's row, when known: only it is marked
    };
    int mark_queued(states_transaction& tx, const std::vector<queued_mark>& marks,
                    const std::vector<long long>& drops, const fill_options& fill);
    // Marks cached calls of `room` as posted with their records, together
    // (the marks post_unposted() makes).
    struct mark_of {
        std::string date, time, record;
    };
    int mark(const std::string& room, const std::vector<mark_of>& marks);
    // Writes what the write-ahead log holds into the file (after a posting
    // pass).
    void checkpoint();
    // An accepted answer to posting `seq` of room `rn` made on `da`/`ti`; the
    // statement is echoed at DEBUG ("OK query is: "). `grouped`: the change
    // joins the group of the connection that is never closed
    // (states_connection::join_group), where the posting sender settles the
    // answer.
    void accept(accepted_call rule, const fias_field_t* rn, const fias_field_t* da,
                const fias_field_t* ti, const fias_field_t* seq, const fill_options& fill,
                bool grouped = false);
    // The number of cached calls not yet posted, or -1 when the file cannot
    // be read; nothing is logged.
    int waiting();
    // How long ago (seconds) the oldest cached call not yet posted started;
    // 0 when none waits, -1 when the file cannot be read.
    int oldest_waiting_age();

  private:
    int count_own(const char* statement);
    void accept_on(dbdriver_t& drv, accepted_call rule, const std::string& room,
                   const std::function<std::string(const char*)>& text) REQUIRES(drv);

    // The connection of cache(), unposted(), mark_queued() and checkpoint();
    // connected (which commits an open group) when it is the never-closed one.
    states_connection& table() { return one_ ? own_ : main_; }
    // The caller holds `drv`, table()'s lock (the analysis cannot follow
    // table()).
    // `keep_group`: a read, which may see the group's changes.
    bool ready(dbdriver_t& drv, bool keep_group = false) REQUIRES(drv) NO_THREAD_SAFETY_ANALYSIS {
        return !one_ ||
               (&drv == &own_.drv && (keep_group ? own_.connect_keeping_group() : own_.connect()));
    }

    states_connection& main_;
    states_connection& own_;
    std::atomic<bool> one_{false};
    // The group that holds the calls cache() stored last (0: committed).
    unsigned long cached_group_ GUARDED_BY(own_.drv) = 0;
};

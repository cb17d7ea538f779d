// The states file: the daemon's own SQLite database, with the `rooms` table
// (the rooms it bills and captures), the `cdrcache` table (calls cached from
// the Manager) and the `occupancy` table (who stays in which room). This
// module alone runs statements on it; everyone else asks for an operation.
//
// Contract:
//  - main makes one states_file and opens it at start-up; it stays until the
//    process ends (exit() leaves it in place, so that record workers still
//    running while the process exits can use it).
//  - It owns two connections to the file:
//      the record "sqlite-int" for `rooms` and `cdrcache`. A check-in may
//      close it for good (store_room with close_after): it is then never
//      opened again and every later operation on those tables fails;
//      the record "sqlite-occupancy" for `occupancy`, the queued Manager
//      actions (`actions`), the outbox (`outbox`, `sequence`) and the count
//      of waiting calls, which no operation closes.
//  - Each operation takes the lock of its connection for its own statements
//    and releases it before it returns; callers hold no lock of this module.
//    post_unposted() holds it while its callback runs (the callback takes no
//    other lock of this module).
//  - Room names and dates reach the `rooms` and `cdrcache` statements as they
//    are, between quotes; occupancy texts are always escaped.
//  - Any thread may call.
#pragma once

#include <atomic>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "db/driver.h"
#include "fias/packet.h"
#include "states/call_row.h"
#include "templates/templates.h"

// Who stays in a room.
struct occupant {
    std::string room;
    std::string name;
    std::string lang;
    std::string since;  // local time, "YYYY-MM-DD HH:MM:SS"
};

// The columns of a Manager `Cdr` event that the cache keeps, in the order of
// cached_call's values: clid, src, dst, dcontext, channel, dstchannel,
// lastapp, lastdata, start, answer, end, duration, billsec, disposition,
// amaflags, c_from, c_to, cost, accountcode, callclass, faxdata, uniqueid
// (userfield is stored empty).
constexpr int cached_call_values = 22;

// One call to be cached, made from its values (escaped for SQLite with
// `escape`).
class cached_call {
  public:
    cached_call(const char* const (&values)[cached_call_values], bool escape);
    // Writes the call's insert statement to the log at DEBUG.
    void log_statement() const;

  private:
    friend class states_file;
    std::string values_[cached_call_values];
    std::string statement_;
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

class states_file {
  public:
    states_file();
    ~states_file();
    states_file(const states_file&) = delete;
    states_file& operator=(const states_file&) = delete;

    // Opens the file, chooses its journal, creates the tables when missing
    // and the cache's indexes. 0, or -1 when the file cannot be opened.
    int open(const std::string& path);
    const std::string& path() const { return path_; }

    // --- rooms ---------------------------------------------------------------
    // Writes `room` into `rooms` ("replace into", calls 0). Both stamps are
    // formatted from the same local time into one text, the time over the
    // date: the row gets the time of day in ci_date and an empty citime; with
    // `true_stamps` the date in ci_date and the time in citime. With
    // `close_after` the connection is closed for good afterwards. 0, or -1
    // when the file cannot be opened.
    int store_room(const std::string& room, bool close_after, bool true_stamps = false);
    // Deletes `room` from `rooms`. 0, or -1 when the file cannot be opened.
    int remove_room(const std::string& room);
    // Appends the rooms of `rooms`. With `connect_first` the file is opened
    // first: -1 when it cannot be; -2 when the table cannot be read; else 0.
    int room_list(std::vector<std::string>& rooms, bool connect_first = false);
    // Changes whenever a room is written or deleted (a failed statement
    // changes nothing), so that holders of the list know when to read it again.
    unsigned rooms_version() const { return rooms_version_; }

    // --- call cache ------------------------------------------------------------
    // Stores calls, in one transaction when there are several. A failed insert
    // is logged by the driver and that call is lost.
    void cache_calls(const std::vector<cached_call>& calls);
    // Offers each cached call of `room` not yet posted to `post`, in the
    // cache's order; a call that `post` posted is marked with its record
    // (the mark's statement echoed under `fill`), a call that `post` dropped
    // is deleted. The room's marks are committed together after its last call. An unreadable column
    // ends the room's calls (logged). `post` may use the outbox operations. 0, or -1 when the marks
    // were not committed.
    int post_unposted(const std::string& room,
                      const std::function<std::optional<posted_call>(const call_row&)>& post,
                      const fill_options& fill);
    // Writes what the write-ahead log holds into the file (after a posting
    // pass).
    void checkpoint();
    // An accepted answer to posting `seq` of room `rn` made on `da`/`ti`.
    void accept_posting(accepted_call rule, const fias_field_t* rn, const fias_field_t* da,
                        const fias_field_t* ti, const fias_field_t* seq, const fill_options& fill);
    // The number of cached calls not yet posted, or -1 when the file cannot
    // be read; nothing is logged.
    int calls_waiting();
    // How long ago (seconds) the oldest cached call not yet posted started;
    // 0 when none waits, -1 when the file cannot be read.
    int oldest_waiting_call_age();
    // The postings of the outbox waiting for their answers, and the Manager
    // actions queued; -1 when the file cannot be read (nothing logged).
    int postings_unanswered();
    int actions_queued();

    // --- occupancy ---------------------------------------------------------------
    // Written by check-in, check-out, guest change, room move and resync, and
    // only when a feature that uses it is configured; kept across restarts.
    // The functions return 0, or -1 when the file cannot be opened or a
    // statement fails.
    std::optional<occupant> find_guest(const std::string& room);
    int guests(std::vector<occupant>& out);  // in room order
    // Puts `o` into its room, replacing whoever was there; an empty `since`
    // is the current time.
    int put_guest(occupant o);
    int remove_guest(const std::string& room);

    // --- Manager actions waiting to be sent or answered ------------------------
    // Kept in order; any thread may call. At most max_queued_actions are kept:
    // queuing one more drops the oldest, with an ERROR.
    static constexpr int max_queued_actions = 10000;
    struct queued_action {
        long id = 0;  // increasing, also across restarts
        std::string room;
        std::string name;  // the action
        std::string body;  // its header lines after the ActionID, with their line ends
        int sent = 0;      // how often it went out
    };
    // Queues an action; its id, or -1 when the file cannot be written.
    long queue_action(const std::string& room, const std::string& name, const std::string& body);
    int action_sent(long id);
    int action_done(long id);
    // Every queued action, in order.
    int queued_actions(std::vector<queued_action>& out);

    // --- outbox ---------------------------------------------------------------
    // The records that must reach the PMS, each written here before it goes
    // on the wire, and the last posting number used; on the connection no
    // operation closes. A posting waits here for its answer, a report ("WA",
    // "RE") until it was written whole; an entry whose mark is still due
    // stays until the mark ran. Any thread may call; -1 when the file cannot
    // be written.
    struct outbox_entry {
        long id = 0;
        std::string kind;  // "PS", "WA" or "RE"
        std::string seq;   // the "P#" of a posting
        std::string room;
        std::string extension;  // that made the call, with [extensions]; else ""
        std::string number;     // the number called ("DD")
        std::string date;       // of the call or report, as its database gave it
        std::string time;
        std::string record;    // the text that goes on the wire
        std::string mark;      // the mark still due: "", "cache", or a database's name
        std::string mark_key;  // the service key of a database's mark
        int sends = 0;         // how often it was written whole
        // A call priced from the tariff file: the line used ("<file>:<n>"),
        // the seconds billed and the amount ("TA"); else "", -1, -1.
        std::string rating_line;
        long long billed = -1;
        long long amount = -1;
    };
    // Writes `e` (a posting also as the last number used). A posting still
    // waiting under the same "P#" is forgotten, with a WARNING once per `link`.
    // Its id, or -1.
    long outbox_put(const outbox_entry& e, unsigned link);
    // `id` was written whole on the link numbered `link`.
    int outbox_written(long id, unsigned link);
    // The posting `seq` if it waits for its answer.
    std::optional<outbox_entry> outbox_waiting(const std::string& seq);
    // The answer to posting `id` was acted on.
    int outbox_answered(long id);
    // The mark of `id` ran.
    int outbox_marked(long id);
    // What is to be written on the link numbered `link`: what was never
    // written whole, and the unanswered postings last written on another link
    // (or before a restart), each once per link and at most max_posting_sends
    // times in all. In order.
    static constexpr int max_posting_sends = 5;
    int outbox_to_send(unsigned link, std::vector<outbox_entry>& out);
    // The entries whose mark is still due, in order.
    int outbox_marks_due(std::vector<outbox_entry>& out);
    // The last posting number used, or -1 when none is known.
    long last_posting_number();
    // Marks cached calls of `room` as posted with their records, together
    // (the marks post_unposted() makes).
    struct cache_mark {
        std::string date, time, record;
    };
    int mark_cached(const std::string& room, const std::vector<cache_mark>& marks);

    // --- ratings (states/ratings.cpp) ------------------------------------------
    // How each priced call was priced, for a disputed bill: kept by room,
    // "P#", date and time (a new rating of the same key replaces the old),
    // on the connection that no operation closes. -1 when the file cannot be
    // written.
    struct rating_record {
        std::string room, seq, date, time;
        std::string number;  // as dialled
        std::string line;    // "<file>:<n>"
        std::string prefix;
        long long billed = 0;
        long long amount = 0;
    };
    int rating_put(const rating_record& r);
    // Forgets the ratings stored more than `keep_days` days ago.
    int ratings_prune(int keep_days);
    // Every rating kept, oldest first.
    int ratings(std::vector<rating_record>& out);

    // --- wake-up bookings -------------------------------------------------------
    // The wake-up calls the daemon places ([wakeup] call), kept across
    // restarts on the connection that no operation closes. Any thread may
    // call; -1 when the file cannot be written.
    struct wakeup_booking {
        long id = 0;  // 0 until stored; the call's WAKEUP_ID
        std::string room;
        std::string date;  // "DA" and "TI" as the PMS sent them ("" when absent)
        std::string time;
        long due = 0;            // the booked moment (seconds since the epoch)
        long next = 0;           // when the dialer acts on it next
        int attempt = 0;         // calls placed since the booking or its last snooze
        int state = 0;           // the dialer's (waiting, ringing, answered)
        int last = 0;            // the outcome of the last call
        bool all_failed = true;  // no call could be created so far
        long answered = 0;       // when the last answered call was answered
    };
    // Stores new bookings (id 0: given their id) and changed ones together.
    int wakeup_save(std::vector<wakeup_booking*>& bookings);
    int wakeup_remove(long id);
    // Ends booking `id`: deletes it and stores its result `wa` (a "WA") in
    // the outbox, in one transaction, so that a booking
    // is never gone without its result nor there with it. The entry's id, or
    // -1 when nothing was changed.
    long wakeup_finish(long id, const outbox_entry& wa);
    // Every booking, by id.
    int wakeup_bookings(std::vector<wakeup_booking>& out);

    // Closes the connections whose lock is free (the process ends).
    void close_idle();

    // --- guest names ---------------------------------------------------------
    // After a check-out (logger:personal_data = no): the room leaves the
    // occupancy, its cached calls keep only the number of their caller
    // ("<exten>"), and every occurrence of `names` (of two characters or
    // more) in the bodies of its queued actions becomes "<name>". On the
    // connection no operation closes; the file is changed in place. 0, or -1
    // when the file cannot be opened or a statement fails.
    int forget_guest(const std::string& room, const std::vector<std::string>& names);

  private:
    bool connect_main() REQUIRES(main_);
    bool open_occupancy() REQUIRES(occupancy_);
    int read_guests(const std::string& statement, std::vector<occupant>& out);
    int run_occupancy(const std::string& statement);
    // The first column of `statement`'s first row on the connection no
    // operation closes; -1 when it cannot be read (nothing logged).
    int count_own(const char* statement);

    std::string path_;
    dbdriver_t main_;
    dbdriver_t occupancy_;
    bool occupancy_checked_ GUARDED_BY(occupancy_) = false;
    bool actions_checked_ GUARDED_BY(occupancy_) = false;
    bool open_actions() REQUIRES(occupancy_);
    bool open_outbox() REQUIRES(occupancy_);
    bool outbox_checked_ GUARDED_BY(occupancy_) = false;
    bool open_wakeups() REQUIRES(occupancy_);
    bool wakeups_checked_ GUARDED_BY(occupancy_) = false;
    bool open_ratings() REQUIRES(occupancy_);
    bool ratings_checked_ GUARDED_BY(occupancy_) = false;
    unsigned outbox_warned_ GUARDED_BY(occupancy_) = 0;  // the link last warned about
    int read_outbox(const std::string& where, std::vector<outbox_entry>& out);
    bool connect_own() REQUIRES(occupancy_);
    bool own_tuned_ GUARDED_BY(occupancy_) = false;
    std::atomic<unsigned> rooms_version_{0};
};

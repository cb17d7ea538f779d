// Configuration: the settings of the INI file, published as immutable snapshots.
//
// Contract:
//  - This module is the only reader of the configuration file. A load turns
//    the file into plain settings (PMS, logger, services, rooms and one
//    db_settings per database section) and builds the database records of
//    those sections (db/registry.h).
//  - One config_loader, owned by the process, loads at start and on SIGHUP,
//    in the main thread only. Any thread reads the settings through
//    current(), which hands out a shared, immutable snapshot. A thread takes
//    one snapshot at the start of a unit of work (a record, a billing cycle)
//    and uses only that; a reload publishes a new snapshot and never changes
//    or frees one that a thread still holds.
//  - A text setting that is absent from the file is std::nullopt.
//  - The database records of a load (`dbdrivers`, newest first) belong to the
//    snapshot; records of earlier loads that no new section shadows stay in
//    the list behind them.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/registry.h"
#include "rating/tariff.h"
#include "thread_annotations.h"

using opt_text = std::optional<std::string>;

// [rooms]: where the list of rooms comes from.
struct rooms_settings {
    opt_text type;                   // absent/empty: numbered keys; "ldap...": directory
    std::vector<std::string> rooms;  // rooms:room1, room2, ... up to the first gap
    opt_text ldap_host;
    int ldap_port = 389;
    int ldap_version = 2;
    opt_text ldap_user;
    opt_text ldap_pass;
    opt_text ldap_base;
    opt_text ldap_scope;
    opt_text ldap_filter;
    opt_text ldap_attribute;
    // rooms:ldap_timeout: seconds the connect, the bind and the search may
    // take each; 0 = the long-standing limits (10 s connect, 30 s answers).
    int ldap_timeout = 0;
};

// [fixes]: corrections of behaviours that a real installation cannot live
// with. Every key is yes/no; `all` is the default of every key, and a key
// that is present overrides it. All off (the section absent) is the
// daemon's long-standing behaviour. signals, ordered_records and
// private_files take effect at start only.
struct fixes_settings {
    bool link_end = false;         // end of stream, failed writes and "LE" drop the link
    bool ordered_records = false;  // one worker in arrival order, no pause per record
    bool signals = false;          // handlers in the foreground too; a crash ends non-zero
    bool reload = false;           // SIGHUP re-reads rooms, moves PMS and Manager connections
    bool exit_status = false;      // an unreadable file on reload ends with status 1
    bool quiet = false;            // statements to the log at DEBUG, nothing on standard output
    bool private_files = false;    // log and states file 0640; the Manager secret never logged
    bool escape = false;           // values escaped for their database; pms:encoding applied
    bool numbers = false;          // number fields carry their value; pairs read in base 10
    bool dates = false;            // a received date keeps its month; rooms rows get true stamps
    bool percent = false;          // "%%" is "%", an unknown "%" is copied; no thread stops
    bool dnd_keys = false;         // DND on/off guarded by dndon/dndoff themselves
    bool states_file = false;      // no handler closes the states file
    bool posting = false;          // marks after a whole write; accepted calls leave the cache
    bool mysql = false;            // dbdriver = mysql makes a MySQL record
    bool manager_events = false;   // the login asks for "cdr" when cdr_mgr_events is not set
    bool deadlines = false;        // a deadline on every outside call
    bool room_numbers = false;     // a record's room number empty or too long: no step runs
    bool any = false;              // some key above is on
    std::vector<std::string> unknown;  // keys of the section that are none of the above
};

// One pattern of posting:free_numbers.
struct free_number {
    enum kind_t { exact, prefix, range, rooms } kind = exact;
    std::string low;   // the number, the prefix (without "*"), or the range's low bound
    std::string high;  // the range's high bound, of the same length as `low`
};

// Parses the patterns: a number, a prefix ending in "*", a range "100-199"
// of two digit-only bounds of one length (low not above high), the word
// "rooms". Patterns that are none of these go to `bad` (when given) and are
// left out.
std::vector<free_number> parse_free_numbers(const std::vector<std::string>& patterns,
                                            std::vector<std::string>* bad = nullptr);

// Whether `number` matches `p` ("rooms" never matches here: see call_filter).
bool matches_free_number(const free_number& p, std::string_view number);

// [posting]: which calls reach the PMS, and when (billing/call_filter.h).
struct posting_settings {
    bool post_unanswered = true;  // no: a call not ANSWERED or of 0 billable seconds stays out
    int min_billsec = 0;          // a call with fewer billable seconds stays out
    std::vector<free_number> free_numbers;  // destination patterns never posted
    bool immediate = false;                 // a cached call is posted as soon as it is cached
};

// [dialcodes]: Manager UserEvents from the room phone (dialcodes/dialcodes.h).
struct dialcodes_settings {
    opt_text minibar_event;  // its name: a minibar posting ("PS" with PT=M)
    opt_text maid_event;     // its name: a room status ("RE" with RS)
    // The guest's own wake-up ("WR", "WC") and door sign ("RE" with RS 8-10).
    opt_text wakeup_event;
    opt_text wakeup_clear_event;
    opt_text guest_service_event;
    bool voicemail = false;  // MessageWaiting events become "RE" with VM
    // Whether the room phone's wake-ups, door sign or voice mail are reported.
    bool self_service() const {
        return wakeup_event || wakeup_clear_event || guest_service_event || voicemail;
    }
    bool operator==(const dialcodes_settings&) const = default;
};

// [wakeup]: wake-up calls placed by the daemon through the Manager session.
struct wakeup_settings {
    bool call = false;                      // wakeup:call
    std::string channel = "PJSIP/%exten%";  // %exten%: the room's first extension
    std::string context = "hotel-wakeup";   // where an answered call goes
    std::string exten = "s";
    std::string priority = "1";
    std::string caller_id = "Wake-up <%room%>";
    int ring_time = 45;        // seconds a call rings
    int attempts = 3;          // calls per booking
    int retry_interval = 300;  // seconds between two calls of a booking
    int late_limit = 900;      // seconds a booking may be late at start-up
    int snooze_window = 120;   // seconds after an answer in which a snooze may come
    opt_text alert;            // run once when a booking ends without an answer
};

// [rating]: calls priced from the hotel's tariff file (rating/tariff.h).
struct rating_settings {
    opt_text tariffs;           // rating:tariffs, the CSV file; absent: calls are not priced
    price_rule rule;            // rating:decimals (0-4), rating:markup (percent, 2 decimals)
    bool unrated_zero = false;  // rating:unrated = zero (default duration)
    int keep_days = 90;         // rating:keep_days, how long the states file keeps a rating
};

struct config {
    // [fixes]
    fixes_settings fixes;
    // [pms]
    std::string pmshost = "localhost";
    uint16_t pmsport = 5010;
    std::string statesfile = "/var/run/orlanbeck.db";
    opt_text pmsinterface;
    opt_text pmsencoding;      // pms:encoding, the PMS's character set ([fixes] escape)
    bool resync = false;       // pms:resync, "DR" after each link start-up
    bool night_audit = false;  // pms:night_audit, no postings between "NS" and "NE"
    // The PMS link over TLS (pms:tls ...), and its deadlines (pms:connect_timeout,
    // pms:write_timeout), used with [fixes] deadlines or TLS.
    bool pms_tls = false;
    opt_text pms_tls_ca;
    opt_text pms_tls_cert;
    opt_text pms_tls_key;
    opt_text pms_tls_server_name;  // absent: pmshost
    int pms_connect_timeout_ms = 5000;
    int pms_write_timeout_ms = 10000;
    // pms:answer_timeout and pms:alive_interval in seconds, -1 when not set
    // (answer_timeout(), alive_interval()).
    int pms_answer_timeout = -1;
    int pms_alive_interval = -1;
    std::string plus_prefix = "00";  // pms:plus_prefix, for a leading "+" of a dialled number
    int room_max_length = 8;         // pms:room_max_length ([fixes] room_numbers), 1-64
    // [logger]
    uint8_t logtype = 0;  // 1 = copy log lines to the system log
    uint16_t loglevel = 5;
    int disable_log = 0;
    std::string logfile = "/var/log/orlanbeck.log";
    bool personal_data = true;  // logger:personal_data; no: guest names masked as "<name>"
    // [status]
    opt_text status_listen;  // status:listen, the address of /metrics and /health
    // database sections as the file has them, and their records, newest first
    std::vector<db_settings> databases;
    std::vector<dbdriver_ptr> dbdrivers;
    // [services]
    int use_manager = 0;
    int mgr_port = 5038;
    opt_text mgr_host;
    opt_text mgr_user;
    opt_text mgr_passwd;
    std::string mgr_events = "call";  // services:cdr_mgr_events
    bool mgr_events_set = false;      // the key is in the file
    int noremovecalls = 0;
    opt_text bareon;
    opt_text bareoff;
    opt_text dndon;
    opt_text dndoff;
    opt_text wakeup_set;
    opt_text wakeup_clear;
    opt_text checkin;
    opt_text checkout;
    opt_text guest_change;  // a "GC" without "RO"
    opt_text room_move;     // a "GC" with "RO"
    opt_text billmark;
    opt_text billok;
    opt_text room_state;  // services:room_status
    opt_text wakeup_result;
    opt_text billcalls;
    opt_text wrmark;
    opt_text remark;
    opt_text mwi_on;   // "RE" with "ML" = "Y": the message lamp lights
    opt_text mwi_off;  // "RE" with another "ML"
    // Further steps of the event services: "<key>.2" ... "<key>.9" of each of
    // step_keys, in order, by key.
    std::map<std::string, std::vector<std::string>> more_steps;
    int ami_timeout = 5;  // services:ami_timeout, seconds an action waits for its answer
    // Seconds the Manager's connect and its login answer may take (0: a
    // connect attempt waits 1 s and is made again, a login answer is awaited
    // for as long as it takes).
    int ami_connect_timeout = 0;  // services:ami_connect_timeout
    int ami_login_timeout = 0;    // services:ami_login_timeout
    // [wakeup]
    wakeup_settings wakeup;
    // [rooms]
    rooms_settings rooms;
    // [extensions]: the extensions that ring in a room, by room.
    std::map<std::string, std::vector<std::string>> extensions;
    // [posting], [dialcodes]
    posting_settings posting;
    dialcodes_settings dialcodes;
    // [rating], and the table of its tariff file: loaded with the
    // configuration; when the file is refused, the previous load's table
    // (null at start, or without rating:tariffs).
    rating_settings rating;
    tariff_ptr tariff;

    // Whether a service step sends a Manager action ("ami:...").
    bool uses_actions() const;
    // Whether records for the PMS go through the outbox of the states file
    // ([fixes] posting; features whose records must reach the PMS add here).
    bool uses_outbox() const { return fixes.posting || uses_dialcodes() || wakeup.call; }
    // How long a posting waits for its "PA" (pms:answer_timeout): the key's
    // value, else 30 s with [fixes] posting, else zero (no time-out).
    std::chrono::seconds answer_timeout() const {
        if (pms_answer_timeout > 0) return std::chrono::seconds(pms_answer_timeout);
        return std::chrono::seconds(fixes.posting ? 30 : 0);
    }
    // How long an alive check or a link start-up waits for the PMS: as a
    // posting, and 30 s where a posting has no time-out.
    std::chrono::seconds link_answer_timeout() const {
        const std::chrono::seconds t = answer_timeout();
        return t.count() > 0 ? t : std::chrono::seconds(30);
    }
    // How long the PMS may be silent before the daemon sends an alive check
    // "LS" (pms:alive_interval): the key's value (0 for none), else 300 s
    // with [fixes] deadlines, else zero (no alive check).
    std::chrono::seconds alive_interval() const {
        if (pms_alive_interval >= 0) return std::chrono::seconds(pms_alive_interval);
        return std::chrono::seconds(fixes.deadlines ? 300 : 0);
    }
    // Whether Manager UserEvents become records for the PMS ([dialcodes]).
    bool uses_dialcodes() const {
        return dialcodes.minibar_event.has_value() || dialcodes.maid_event.has_value() ||
               dialcodes.self_service();
    }
    // The extensions of `room` (the room's own number when [extensions] has
    // no line for it), and the room of an extension (itself when none has it).
    std::vector<std::string> extensions_of(const std::string& room) const;
    std::string room_of(const std::string& extension) const;
};

// Who stays in which room is kept (states/occupancy.h) only when a feature
// that uses it is configured.
inline bool keeps_occupancy(const config& cfg) {
    return cfg.guest_change || cfg.room_move || cfg.resync;
}

// The event services that may have further steps ("checkin.2" ...).
inline constexpr const char* step_keys[] = {
    "checkin", "checkout", "guest_change", "room_move",    "bareon", "bareoff",
    "dndon",   "dndoff",   "wakeup_set",   "wakeup_clear", "billok"};

using config_ptr = std::shared_ptr<const config>;

class config_loader {
  public:
    // `path`: the configuration file (default "/etc/orlanbeck.conf").
    explicit config_loader(std::string path);
    config_loader(const config_loader&) = delete;
    config_loader& operator=(const config_loader&) = delete;

    const std::string& path() const { return path_; }

    // Reads the file and publishes the result. 0, or -1 when it cannot be
    // read (the defaults are then published, the database records kept).
    // On a `reload` with [fixes] deadlines, MySQL records are connected at
    // their first use, not here: the main thread never waits for them.
    int load(bool reload = false);

    // The current snapshot (never null; all defaults before the first load).
    config_ptr current() const;

    // Publishes `cfg` as it is (tests).
    void publish(std::shared_ptr<const config> cfg);

  private:
    const std::string path_;
    mutable annotated_mutex mutex_;
    config_ptr published_ GUARDED_BY(mutex_);
};

// Parses the INI text of `path` into settings (no database record is made:
// `dbdrivers` stays empty, and no tariff file is read). False when the file
// cannot be read.
bool parse_config_file(const std::string& path, config& out);

// Reads the tariff file of `cfg` (rating:tariffs) into `cfg.tariff`. A file
// with broken lines is refused whole: each reason ("<file>:<line>: ...") is
// logged at ERROR and `cfg.tariff` stays as it was. False when refused.
bool load_tariff(config& cfg);

#include "states/states.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "db/sqlite.h"
#include "logger.h"
#include "metrics.h"
#include "states/literal.h"

namespace {

const char* const create_rooms =
    "create table rooms (room varchar(8), ci_date date, citime time, calls integer, primary "
    "key(room))";

const char* const create_cache =
    "create table if not exists `cdrcache` (       `accountcode` varchar(20) NOT NULL default "
    "'',       `src` varchar(80) NOT NULL default '',       `dst` varchar(80) NOT NULL default "
    "'',       `dcontext` varchar(80) NOT NULL default '',       `clid` varchar(80) NOT NULL "
    "default '',       `channel` varchar(80) NOT NULL default '',       `dstchannel` "
    "varchar(80) NOT NULL default '',       `lastapp` varchar(80) NOT NULL default '',       "
    "`lastdata` varchar(80) NOT NULL default '',       `start` datetime NOT NULL default "
    "'0000-00-00 00:00:00',       `answer` datetime NOT NULL default '0000-00-00 00:00:00',     "
    "  `end` datetime NOT NULL default '0000-00-00 00:00:00',       `duration` int(11) NOT NULL "
    "default '0',       `billsec` int(11) NOT NULL default '0',       `disposition` "
    "varchar(45) NOT NULL default '',       `amaflags` int(11) NOT NULL default '',       "
    "`c_from` varchar(80) NOT NULL default '',       `c_to` varchar(80) NOT NULL default '',    "
    "   `cost` varchar(20) NOT NULL default '',       `callclass` int(11) NOT NULL default "
    "'0',       `faxdata` varchar(255) NOT NULL default '',       `userfield` varchar(255) NOT "
    "NULL default '',       `uniqueid` varchar(32) NOT NULL default '');";

const char* const create_cache_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_c_from_start` ON `cdrcache` (`c_from`,`start`)";

// The cache's own indexes, made when missing each time the file is opened
// (also on a file made by an older version): a room's calls not yet posted,
// and the calls of one room and start second that a mark or an accepted
// posting looks for. With them a billing cycle's cost follows the rooms and
// the calls still to post, not the calls posted long ago.
const char* const create_unposted_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_userfield` ON `cdrcache` (`src`,`userfield`)";
const char* const create_start_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_start` ON `cdrcache` "
    "(`src`,date(`start`),time(`start`))";

// Templates filled by the template routines, so that they are echoed as
// every statement is. The long-standing remove has no "where": SQLite
// refuses it and the accepted call stays.
const char* const mark_template =
    "update cdrcache set userfield='%param%' where src='%exten%' and date(start)='%date%' and "
    "time(start)='%time%'";
const char* const remove_template =
    "delete from cdrcache src='%exten%' and date(start)='%date%' and time(start)='%time%'";
const char* const remove_own_template =
    "delete from cdrcache where src='%exten%' and userfield like 'PS|P#%seqno%|%%'";
const char* const mark_number_template =
    "update cdrcache set userfield='%seqno%' where src='%exten%' and date(start)='%date%' and "
    "time(start)='%time%'";

const char* const insert_format =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES ('%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s','%s','')";
const char* const unposted_format =
    "select date(start),time(start),dst,billsec,-1,disposition,rowid from cdrcache where src='%s' "
    "and "
    "(userfield='NULL' or userfield=NULL or userfield='')";

// The same statements with parameters, prepared once per connection. They
// run whenever the values give the same text as the statement above would:
// no value holds a quote, and the text is not cut at its buffer's end.
const char* const unposted_bound =
    "select date(start),time(start),dst,billsec,-1,disposition,rowid from cdrcache where src=? and "
    "(userfield='NULL' or userfield=NULL or userfield='')";
const char* const mark_bound =
    "update cdrcache set userfield=? where src=? and date(start)=? and time(start)=?";
const char* const insert_bound =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?,?,'')";
constexpr size_t insert_buffer = 2048;
constexpr size_t unposted_buffer = 1024;

const char* const waiting_statement =
    "select count(*) from cdrcache where userfield='NULL' or userfield=NULL or userfield=''";

const char* const oldest_waiting_statement =
    "select coalesce(cast(strftime('%s','now','localtime') as integer) - "
    "cast(strftime('%s', min(start)) as integer), 0) from cdrcache where userfield='NULL' or "
    "userfield=NULL or userfield=''";

bool has_quote(std::string_view v) {
    return v.find('\'') != std::string_view::npos;
}

}  // namespace

row_read read_call_row(dbdriver_t& drv, call_row& row) {
    if (drv.fetch_char_field(0, row.date, sizeof row.date - 1) < 0) {
        LOG(L_ERROR, "No mandatory date field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_char_field(1, row.time, sizeof row.time - 1) < 0) {
        LOG(L_ERROR, "No mandatory time field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_char_field(2, row.dst, sizeof row.dst - 1) < 0) {
        LOG(L_ERROR, "No mandatory destination field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_int_field(3, &row.billsec) < 0) {
        LOG(L_ERROR, "No mandatory billsec field in cdr query");
        return row_read::failed;
    }
    char cost[32] = "";
    if (drv.fetch_char_field(4, cost, sizeof cost - 1) == 0) {
        row.cost_empty = strspn(cost, " ") == strlen(cost);
        drv.fetch_int_field(4, &row.callcost);
    }
    return row_read::ok;
}

cached_call::cached_call(const char* const (&values)[cached_call_values], bool escape) {
    for (int i = 0; i < cached_call_values; ++i)
        values_[i] = escape ? sqlite_escaped(values[i]) : std::string(values[i]);
    const auto& v = values_;
    char query[insert_buffer];
    snprintf(query, sizeof query, insert_format, v[0].c_str(), v[1].c_str(), v[2].c_str(),
             v[3].c_str(), v[4].c_str(), v[5].c_str(), v[6].c_str(), v[7].c_str(), v[8].c_str(),
             v[9].c_str(), v[10].c_str(), v[11].c_str(), v[12].c_str(), v[13].c_str(),
             v[14].c_str(), v[15].c_str(), v[16].c_str(), v[17].c_str(), v[18].c_str(),
             v[19].c_str(), v[20].c_str(), v[21].c_str());
    statement_ = query;
}

void cached_call::log_statement() const {
    LOG(L_DEBUG, "The query is: %s\n", statement_.c_str());
}

states_file::states_file() {
    sqlite_init_record(main_, "sqlite-int");
    sqlite_init_record(occupancy_, "sqlite-occupancy");
}

states_file::~states_file() = default;

bool states_file::connect_main() {
    return main_.connect(nullptr, 0, nullptr, nullptr, path_.c_str()) == 0;
}

int states_file::open(const std::string& path) {
    path_ = path;
    db_lock guard(main_);
    if (!connect_main()) return -1;
    // Durability. With a write-ahead log and synchronous=NORMAL a transaction
    // that has returned is in the log file (the operating system's cache)
    // before the next statement runs, so a crash of the daemon at any instant
    // loses nothing committed; only a crash of the whole machine may lose
    // the transactions since the log was last synced (at a checkpoint: after
    // each cycle's posting pass, at the latest every 10,000 pages).
    // The calls the capture thread reads back to back are committed together
    // as soon as it would wait for more input (at the latest every 256):
    // once cached, a call is never lost by a crash of the daemon. The marks
    // of one room's postings are committed together after its records were
    // sent, so a crash in the middle posts again at most that room's calls,
    // as a crash between a send and its mark always could. No write waits
    // for a disk sync, so a burst of calls or postings keeps its pace.
    main_.query("PRAGMA journal_mode=WAL");
    main_.query("PRAGMA synchronous=NORMAL");
    // The log is written into the file (and synced) after each billing
    // cycle's posting pass, not every 1,000 pages in the middle of it; the
    // bound stays for runs in which the link is down and nothing is posted.
    main_.query("PRAGMA wal_autocheckpoint=10000");
    if (main_.query("select count(*) from rooms") < 0) main_.query(create_rooms);
    if (main_.query("select count(*) from cdrcache") < 0) {
        main_.query(create_cache);
        main_.query(create_cache_index);
    }
    main_.query(create_unposted_index);
    main_.query(create_start_index);
    main_.free_result();
    return 0;
}

int states_file::store_room(const std::string& room, bool close_after, bool true_stamps) {
    char stamp[32] = "";
    char empty[32] = "";
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, main_.dateformat, &tmv);
    strftime(true_stamps ? empty : stamp, sizeof stamp, main_.timeformat, &tmv);
    char statement[256];
    snprintf(statement, sizeof statement, "replace into rooms values ('%s','%s','%s',0)",
             room.c_str(), stamp, empty);

    db_lock guard(main_);
    if (!connect_main()) return -1;
    if (main_.query(statement) == 0) rooms_version_++;
    if (close_after) main_.close();
    return 0;
}

int states_file::remove_room(const std::string& room) {
    char statement[256];
    snprintf(statement, sizeof statement, "delete from rooms where room='%s'", room.c_str());
    db_lock guard(main_);
    if (!connect_main()) return -1;
    if (main_.query(statement) == 0) rooms_version_++;
    return 0;
}

int states_file::room_list(std::vector<std::string>& rooms, bool connect_first) {
    db_lock guard(main_);
    if (connect_first && !connect_main()) return -1;
    const int rc = main_.query("select room from rooms");
    if (rc == 0) {
        while (main_.fetch_row() == 0) {
            char room[32] = "";
            main_.fetch_char_field(0, room, sizeof room - 1);
            rooms.emplace_back(room);
        }
    }
    main_.free_result();
    return rc == 0 ? 0 : -2;
}

void states_file::cache_calls(const std::vector<cached_call>& calls) {
    if (calls.empty()) return;
    metrics::calls_cached(static_cast<unsigned>(calls.size()));
    db_lock guard(main_);
    if (calls.size() > 1) sqlite_begin(main_);
    for (const cached_call& call : calls) {
        bool plain = call.statement_.size() < insert_buffer - 1;
        for (const std::string& value : call.values_) plain = plain && !has_quote(value);
        if (!plain) {
            main_.query(call.statement_.c_str());
            continue;
        }
        const auto& v = call.values_;
        sqlite_query_bound(
            main_, insert_bound,
            {v[0],  v[1],  v[2],  v[3],  v[4],  v[5],  v[6],  v[7],  v[8],  v[9],  v[10],
             v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19], v[20], v[21]});
    }
    sqlite_commit(main_);
}

int states_file::post_unposted(
    const std::string& room, const std::function<std::optional<posted_call>(const call_row&)>& post,
    const fill_options& fill) {
    struct mark {
        std::string statement, param;
        call_row row;
    };
    std::vector<mark> marks;
    std::vector<long long> drops;  // rows of calls never to be posted
    db_lock guard(main_);
    char text[unposted_buffer];
    snprintf(text, sizeof text, unposted_format, room.c_str());
    if (has_quote(room) || strlen(text) >= unposted_buffer - 1)
        main_.query(text);
    else
        sqlite_query_bound(main_, unposted_bound, {room});
    while (main_.fetch_row() == 0) {
        LOG(L_DEBUG, "Have something in cache for room %s\n", room.c_str());
        call_row row;
        if (read_call_row(main_, row) != row_read::ok) break;
        row.has_disposition =
            main_.fetch_char_field(5, row.disposition, sizeof row.disposition - 1) >= 0;
        char rowid[32] = "";
        if (main_.fetch_char_field(6, rowid, sizeof rowid - 1) >= 0)
            row.cache_row = strtoll(rowid, nullptr, 10);
        std::optional<posted_call> done = post(row);
        if (!done) continue;
        if (done->dropped) {
            if (row.cache_row > 0) drops.push_back(row.cache_row);
            continue;
        }
        std::string statement =
            prepare_query3(&main_, mark_template, done->record.c_str(), room.c_str(), row.date,
                           row.time, done->seq.c_str(), fill);
        LOG(L_DEBUG, "Sending mark query: %s\n", statement.c_str());
        marks.push_back({std::move(statement), std::move(done->record), row});
    }
    if (marks.empty() && drops.empty()) return 0;
    // The room's marks are committed together (see the durability note of
    // open()). A value with a quote runs as the text its template made.
    sqlite_begin(main_);
    for (long long id : drops)
        main_.query(("delete from cdrcache where rowid=" + std::to_string(id)).c_str());
    for (const mark& m : marks) {
        if (has_quote(m.param) || has_quote(room) || has_quote(m.row.date) || has_quote(m.row.time))
            main_.query(m.statement.c_str());
        else
            sqlite_query_bound(main_, mark_bound, {m.param, room, m.row.date, m.row.time});
    }
    return sqlite_commit(main_);
}

int states_file::mark_cached(const std::string& room, const std::vector<cache_mark>& marks) {
    if (marks.empty()) return 0;
    db_lock guard(main_);
    if (sqlite_begin(main_) != 0) return -1;
    int rc = 0;
    for (const cache_mark& m : marks)
        if (sqlite_query_bound(main_, mark_bound, {m.record, room, m.date, m.time}) != 0) rc = -1;
    return sqlite_commit(main_) == 0 ? rc : -1;
}

void states_file::checkpoint() {
    db_lock guard(main_);
    sqlite_checkpoint(main_);
}

void states_file::accept_posting(accepted_call rule, const fias_field_t* rn, const fias_field_t* da,
                                 const fias_field_t* ti, const fias_field_t* seq,
                                 const fill_options& fill) {
    const char* templ = remove_template;
    if (rule == accepted_call::mark_with_number) templ = mark_number_template;
    if (rule == accepted_call::remove_own_row) templ = remove_own_template;
    std::string statement =
        prepare_query(&main_, templ, rn, nullptr, nullptr, nullptr, da, ti, seq, fill);
    LOG(L_DEBUG, "OK query is: %s\n", statement.c_str());
    db_lock guard(main_);
    main_.query(statement.c_str());
}

// The connection no operation closes, committing as the other does (see the
// durability note of open()): a commit waits for the operating system, not
// the disk.
bool states_file::connect_own() {
    if (occupancy_.connect(nullptr, 0, nullptr, nullptr, path_.c_str()) != 0) return false;
    if (!own_tuned_) own_tuned_ = occupancy_.query("PRAGMA synchronous=NORMAL") == 0;
    return true;
}

int states_file::count_own(const char* statement) {
    db_lock guard(occupancy_);
    if (!connect_own()) return -1;
    return sqlite_count(occupancy_, statement);
}

int states_file::oldest_waiting_call_age() {
    return count_own(oldest_waiting_statement);
}

int states_file::calls_waiting() {
    return count_own(waiting_statement);
}

void states_file::close_idle() {
    for (dbdriver_t* drv : {&main_, &occupancy_}) {
        if (!drv->try_lock()) continue;
        drv->close();
        drv->unlock();
    }
}

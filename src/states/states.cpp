#include "states/states.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <memory>

#include <sqlite3.h>

#include "db/sqlite.h"

const char* const sql_create_rooms =
    "create table rooms (room varchar(8), ci_date date, citime time, calls integer, primary "
    "key(room))";

const char* const sql_create_table =
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

const char* const sql_create_table_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_c_from_start` ON `cdrcache` (`c_from`,`start`)";

const char* const sql_create_unposted_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_userfield` ON `cdrcache` (`src`,`userfield`)";

const char* const sql_create_start_index =
    "CREATE INDEX IF NOT EXISTS `idx_cdrcache_src_start` ON `cdrcache` "
    "(`src`,date(`start`),time(`start`))";

const char* const cache_mark_statement =
    "update cdrcache set userfield='%param%' where src='%exten%' and date(start)='%date%' and "
    "time(start)='%time%'";

const char* const pa_remove_statement =
    "delete from cdrcache src='%exten%' and date(start)='%date%' and time(start)='%time%'";

const char* const pa_remove_own_statement =
    "delete from cdrcache where src='%exten%' and userfield like 'PS|P#%seqno%|%%'";

const char* const pa_mark_statement =
    "update cdrcache set userfield='%seqno%' where src='%exten%' and date(start)='%date%' and "
    "time(start)='%time%'";

namespace {

const char* const insert_format =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES ('%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', '%s', "
    "'%s','%s','')";

// The statements above with parameters, for sqlite_query_bound().
const char* const unposted_bound =
    "select date(start),time(start),dst,billsec,-1 from cdrcache where src=? and "
    "(userfield='NULL' or userfield=NULL or userfield='')";
const char* const mark_bound =
    "update cdrcache set userfield=? where src=? and date(start)=? and time(start)=?";
const char* const insert_bound =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?,?,'')";

bool has_quote(std::string_view v) {
    return v.find('\'') != std::string_view::npos;
}

// Never destroyed: detached record workers may still use it while the
// process exits.
lasting_sqlite_record internal_db("sqlite-int");

bool connect_states(const std::string& statesfile) REQUIRES(sqliteint) {
    return sqliteint.connect(nullptr, 0, nullptr, nullptr, statesfile.c_str()) == 0;
}

}  // namespace

dbdriver_t& sqliteint = internal_db.get();

namespace {
std::atomic<unsigned> rooms_version{0};
}  // namespace

int open_states_file(const std::string& statesfile) {
    db_lock guard(sqliteint);
    if (!connect_states(statesfile)) return -1;
    // Durability. With a write-ahead log and synchronous=NORMAL a transaction
    // that has returned is in the log file (the operating system's cache)
    // before the next statement runs, so a crash of the daemon at any instant
    // loses nothing committed; only a crash of the whole machine may lose
    // the transactions since the log was last synced (at a checkpoint: after
    // each cycle's posting pass, at the latest every 10,000 pages).
    // The calls the capture thread reads back to back are committed together
    // as soon as it would wait for more input (at the latest every 256):
    // once cached, a call is never lost by a crash of the daemon. The marks of one
    // room's postings are committed together after its records were sent,
    // so a crash in the middle posts again at most that room's calls, as a
    // crash between a send and its mark always could. No write waits for a
    // disk sync, so a burst of calls or postings keeps its pace.
    sqliteint.query("PRAGMA journal_mode=WAL");
    sqliteint.query("PRAGMA synchronous=NORMAL");
    // The log is written into the file (and synced) after each billing
    // cycle's posting pass, not every 1,000 pages in the middle of it; the
    // bound stays for runs in which the link is down and nothing is posted.
    sqliteint.query("PRAGMA wal_autocheckpoint=10000");
    if (sqliteint.query("select count(*) from rooms") < 0) sqliteint.query(sql_create_rooms);
    if (sqliteint.query("select count(*) from cdrcache") < 0) {
        sqliteint.query(sql_create_table);
        sqliteint.query(sql_create_table_index);
    }
    sqliteint.query(sql_create_unposted_index);
    sqliteint.query(sql_create_start_index);
    sqliteint.free_result();
    return 0;
}

int states_store_room(const std::string& statesfile, const std::string& room, bool close_after,
                      bool true_stamps) {
    char stamp[32] = "";
    char empty[32] = "";
    time_t now = time(nullptr);
    struct tm tmv {};
    localtime_r(&now, &tmv);
    strftime(stamp, sizeof stamp, sqliteint.dateformat, &tmv);
    strftime(true_stamps ? empty : stamp, sizeof stamp, sqliteint.timeformat, &tmv);
    char statement[256];
    snprintf(statement, sizeof statement, "replace into rooms values ('%s','%s','%s',0)",
             room.c_str(), stamp, empty);

    db_lock guard(sqliteint);
    if (!connect_states(statesfile)) return -1;
    if (sqliteint.query(statement) == 0) rooms_version++;
    if (close_after) sqliteint.close();
    return 0;
}

int states_remove_room(const std::string& statesfile, const std::string& room) {
    char statement[256];
    snprintf(statement, sizeof statement, "delete from rooms where room='%s'", room.c_str());
    db_lock guard(sqliteint);
    if (!connect_states(statesfile)) return -1;
    if (sqliteint.query(statement) == 0) rooms_version++;
    return 0;
}

unsigned states_rooms_version() {
    return rooms_version;
}

int states_room_list(std::vector<std::string>& rooms, const std::string* statesfile) {
    db_lock guard(sqliteint);
    if (statesfile && !connect_states(*statesfile)) return -1;
    const int rc = sqliteint.query("select room from rooms");
    if (rc == 0) {
        while (sqliteint.fetch_row() == 0) {
            char room[32] = "";
            sqliteint.fetch_char_field(0, room, sizeof room - 1);
            rooms.emplace_back(room);
        }
    }
    sqliteint.free_result();
    return rc == 0 ? 0 : -2;
}

int cache_select_unposted(const std::string& room) {
    const std::string text = cache_unposted_query(room);
    if (has_quote(room) || text.size() >= 1023) return sqliteint.query(text.c_str());
    return sqlite_query_bound(sqliteint, unposted_bound, {room});
}

int cache_run_mark(const std::string& statement, std::string_view param, std::string_view room,
                   std::string_view date, std::string_view time) {
    std::string plain;
    plain.reserve(statement.size());
    plain.append("update cdrcache set userfield='").append(param);
    plain.append("' where src='").append(room);
    plain.append("' and date(start)='").append(date);
    plain.append("' and time(start)='").append(time).append("'");
    if (plain != statement || has_quote(param) || has_quote(room) || has_quote(date) ||
        has_quote(time))
        return sqliteint.query(statement.c_str());
    return sqlite_query_bound(sqliteint, mark_bound, {param, room, date, time});
}

int cache_run_insert(const std::string& statement, const char* const (&v)[cache_insert_values]) {
    bool plain = statement.size() < 2047;
    for (const char* value : v) plain = plain && !has_quote(value);
    if (!plain) return sqliteint.query(statement.c_str());
    return sqlite_query_bound(
        sqliteint, insert_bound,
        {v[0],  v[1],  v[2],  v[3],  v[4],  v[5],  v[6],  v[7],  v[8],  v[9],  v[10],
         v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19], v[20], v[21]});
}

void states_checkpoint() {
    sqlite_checkpoint(sqliteint);
}

void states_begin() {
    sqlite_begin(sqliteint);
}

void states_commit() {
    sqlite_commit(sqliteint);
}

std::string cache_insert_statement(const char* const (&v)[cache_insert_values]) {
    char query[2048];
    snprintf(query, sizeof query, insert_format, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7],
             v[8], v[9], v[10], v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19],
             v[20], v[21]);
    return query;
}

std::string cache_unposted_query(const std::string& room) {
    char query[1024];
    snprintf(query, sizeof query,
             "select date(start),time(start),dst,billsec,-1 from cdrcache where src='%s' and "
             "(userfield='NULL' or userfield=NULL or userfield='')",
             room.c_str());
    return query;
}

int states_calls_waiting(const std::string& statesfile) {
    struct closer {
        void operator()(sqlite3* db) const { sqlite3_close(db); }
    };
    sqlite3* raw = nullptr;
    const int rc = sqlite3_open_v2(statesfile.c_str(), &raw, SQLITE_OPEN_READONLY, nullptr);
    std::unique_ptr<sqlite3, closer> db(raw);
    if (rc != SQLITE_OK) return -1;
    sqlite3_busy_timeout(db.get(), 100);
    sqlite3_stmt* raw_stmt = nullptr;
    if (sqlite3_prepare_v2(db.get(),
                           "select count(*) from cdrcache where userfield='NULL' or "
                           "userfield=NULL or userfield=''",
                           -1, &raw_stmt, nullptr) != SQLITE_OK)
        return -1;
    struct finaliser {
        void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
    };
    std::unique_ptr<sqlite3_stmt, finaliser> stmt(raw_stmt);
    if (sqlite3_step(stmt.get()) != SQLITE_ROW) return -1;
    return sqlite3_column_int(stmt.get(), 0);
}

// The call cache: every value reaches its statement as a bound parameter.
// Where the log shows a statement, it shows the text the statement stands
// for, filled with the values.
#include "states/calls.h"

#include <cstdlib>
#include <optional>
#include <utility>

#include "db/sqlite.h"
#include "logger.h"
#include "metrics.h"

namespace {

// Templates filled by the template routines for the log, so that they are
// echoed as every statement is.
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

// What runs. The long-standing remove has no "where": SQLite refuses it (a
// syntax error, when it is prepared) and the accepted call stays.
const char* const remove_bound = "delete from cdrcache src=? and date(start)=? and time(start)=?";
const char* const remove_own_bound =
    "delete from cdrcache where src=?1 and substr(userfield, 1, length(?2))=?2";
const char* const mark_bound =
    "update cdrcache set userfield=? where src=? and date(start)=? and time(start)=?";
const char* const unposted_bound =
    "select date(start),time(start),dst,billsec,-1,disposition,rowid,uniqueid from cdrcache "
    "where src=? and (userfield='NULL' or userfield=NULL or userfield='')";
const char* const insert_bound =
    "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
    "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
    "callclass, faxdata,uniqueid,userfield) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, "
    "?, ?, ?, ?, ?, ?,?,'')";
const char* const drop_bound = "delete from cdrcache where rowid=?";
// With the sender each posted call is marked with its own posting's record,
// also when another call of the room started in the same second.
const char* const mark_row_bound = "update cdrcache set userfield=? where rowid=?";

const char* const waiting_statement =
    "select count(*) from cdrcache where userfield='NULL' or userfield=NULL or userfield=''";
const char* const oldest_waiting_statement =
    "select coalesce(cast(strftime('%s','now','localtime') as integer) - "
    "cast(strftime('%s', min(start)) as integer), 0) from cdrcache where userfield='NULL' or "
    "userfield=NULL or userfield=''";

// `text` with every "'" doubled, as the log shows a value of a statement.
std::string doubled_quotes(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) out.append(c == '\'' ? 2 : 1, c);
    return out;
}

// One placeholder of the templates as the template routines write it
// ("%exten%", "%date%", ...), without echo or escaping.
std::string field_as_text(const dbdriver_t* drv, const char* placeholder, const fias_field_t* rn,
                          const fias_field_t* da, const fias_field_t* ti, const fias_field_t* seq,
                          fill_options fill) {
    fill.echo = false;
    fill.escape = false;
    return prepare_query(drv, placeholder, rn, nullptr, nullptr, nullptr, da, ti, seq, fill);
}

}  // namespace

row_read read_call_row(dbdriver_t& drv, call_row& row) {
    if (drv.fetch_text_field(0, row.date) < 0) {
        LOG(L_ERROR, "No mandatory date field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_text_field(1, row.time) < 0) {
        LOG(L_ERROR, "No mandatory time field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_text_field(2, row.dst) < 0) {
        LOG(L_ERROR, "No mandatory destination field in cdr query");
        return row_read::failed;
    }
    if (drv.fetch_int_field(3, &row.billsec) < 0) {
        LOG(L_ERROR, "No mandatory billsec field in cdr query");
        return row_read::failed;
    }
    std::string cost;
    if (drv.fetch_text_field(4, cost) == 0) {
        row.cost_empty = cost.find_first_not_of(' ') == std::string::npos;
        drv.fetch_int_field(4, &row.callcost);
    }
    return row_read::ok;
}

cached_call::cached_call(const char* const (&values)[cached_call_values], bool escape)
    : escape_(escape) {
    for (int i = 0; i < cached_call_values; ++i) values_[i] = values[i] ? values[i] : "";
}

void cached_call::log_statement() const {
    if (!log_wanted(L_DEBUG)) return;
    std::string text =
        "INSERT INTO cdrcache (clid,src,dst,dcontext,channel,dstchannel,lastapp,lastdata, "
        "start,answer,end,duration,billsec,disposition,amaflags, c_from, c_to, cost,accountcode, "
        "callclass, faxdata,uniqueid,userfield) VALUES (";
    for (int i = 0; i < cached_call_values; ++i) {
        if (i > 0) text += i == cached_call_values - 1 ? "," : ", ";
        text += '\'';
        text += escape_ ? doubled_quotes(values_[i]) : values_[i];
        text += '\'';
    }
    text += ",'')";
    LOG(L_DEBUG, "The query is: %s\n", text.c_str());
}

void call_cache::cache(const std::vector<cached_call>& calls) {
    if (calls.empty()) return;
    metrics::calls_cached(static_cast<unsigned>(calls.size()));
    // Run under the lock of `drv`, taken below.
    auto insert = [&calls](dbdriver_t& drv) NO_THREAD_SAFETY_ANALYSIS {
        for (const cached_call& call : calls) {
            const auto& v = call.values_;
            sqlite_query_bound(
                drv, insert_bound,
                {v[0],  v[1],  v[2],  v[3],  v[4],  v[5],  v[6],  v[7],  v[8],  v[9],  v[10],
                 v[11], v[12], v[13], v[14], v[15], v[16], v[17], v[18], v[19], v[20], v[21]});
        }
    };
    // With the sender the calls join the connection's group, which commit()
    // commits (or the sender, or a posting's store, whichever comes first).
    if (one_) {
        db_lock guard(own_.drv);
        if (!own_.join_group()) return;
        insert(own_.drv);
        cached_group_ = own_.open_group();
        return;
    }
    dbdriver_t& drv = main_.drv;
    db_lock guard(drv);
    if (calls.size() > 1) sqlite_begin(drv, true);
    insert(drv);
    sqlite_commit(drv);
}

void call_cache::commit() {
    if (!one_) return;
    db_lock guard(own_.drv);
    // Only while the calls are still in the group: once a posting's store
    // committed them, the group open now is the sender's, left to its
    // period.
    own_.flush_group_of(std::exchange(cached_group_, 0));
}

namespace {

// A row of unposted_bound; false when a column could not be read (logged).
bool read_unposted_row(dbdriver_t& drv, call_row& row) REQUIRES(drv) {
    if (read_call_row(drv, row) != row_read::ok) return false;
    row.has_disposition = drv.fetch_text_field(5, row.disposition) >= 0;
    std::string rowid;
    if (drv.fetch_text_field(6, rowid) >= 0) row.cache_row = strtoll(rowid.c_str(), nullptr, 10);
    drv.fetch_text_field(7, row.uniqueid);
    return true;
}

}  // namespace

int call_cache::post_unposted(
    const std::string& room, const std::function<std::optional<posted_call>(const call_row&)>& post,
    const fill_options& fill) {
    struct pending_mark {
        std::string record;
        call_row row;
    };
    std::vector<pending_mark> marks;
    std::vector<long long> drops;  // rows of calls never to be posted
    dbdriver_t& drv = main_.drv;
    db_lock guard(drv);
    sqlite_query_bound(drv, unposted_bound, {room});
    while (drv.fetch_row() == 0) {
        LOG(L_DEBUG, "Have something in cache for room %s\n", room.c_str());
        call_row row;
        if (!read_unposted_row(drv, row)) break;
        std::optional<posted_call> done = post(row);
        if (!done) continue;
        if (done->dropped) {
            if (row.cache_row > 0) drops.push_back(row.cache_row);
            continue;
        }
        const std::string shown =
            prepare_query3(&drv, mark_template, done->record.c_str(), room.c_str(),
                           row.date.c_str(), row.time.c_str(), done->seq.c_str(), fill);
        LOG(L_DEBUG, "Sending mark query: %s\n", shown.c_str());
        marks.push_back({std::move(done->record), std::move(row)});
    }
    drv.free_result();
    if (marks.empty() && drops.empty()) return 0;
    // The room's marks are committed together (see the durability note of
    // states_file::open()).
    sqlite_begin(drv, true);
    for (long long id : drops) sqlite_query_bound(drv, drop_bound, {id});
    for (const pending_mark& m : marks)
        sqlite_query_bound(drv, mark_bound, {m.record, room, m.row.date, m.row.time});
    return sqlite_commit(drv);
}

int call_cache::unposted(const std::string& room, std::vector<call_row>& rows) {
    dbdriver_t& drv = table().drv;
    db_lock guard(drv);
    if (!ready(drv, true) || sqlite_query_bound(drv, unposted_bound, {room}) != 0) {
        drv.free_result();
        return -1;
    }
    while (drv.fetch_row() == 0) {
        LOG(L_DEBUG, "Have something in cache for room %s\n", room.c_str());
        call_row row;
        if (!read_unposted_row(drv, row)) break;
        rows.push_back(std::move(row));
    }
    drv.free_result();
    return 0;
}

int call_cache::mark_queued(states_transaction& tx, const std::vector<queued_mark>& marks,
                            const std::vector<long long>& drops, const fill_options& fill) {
    tx.holds(own_);
    if (!one_ || !tx.ok()) return -1;
    int rc = 0;
    for (long long id : drops)
        if (sqlite_query_bound(own_.drv, drop_bound, {id}) != 0) rc = -1;
    for (const queued_mark& m : marks) {
        if (log_wanted(L_DEBUG))
            LOG(L_DEBUG, "Sending mark query: %s\n",
                prepare_query3(&own_.drv, mark_template, m.record.c_str(), m.room.c_str(),
                               m.date.c_str(), m.time.c_str(), m.seq.c_str(), fill)
                    .c_str());
        if ((m.row > 0 ? sqlite_query_bound(own_.drv, mark_row_bound, {m.record, m.row})
                       : sqlite_query_bound(own_.drv, mark_bound,
                                            {m.record, m.room, m.date, m.time})) != 0)
            rc = -1;
    }
    return rc;
}

int call_cache::mark(const std::string& room, const std::vector<mark_of>& marks) {
    if (marks.empty()) return 0;
    db_lock guard(main_.drv);
    if (sqlite_begin(main_.drv, true) != 0) return -1;
    int rc = 0;
    for (const mark_of& m : marks)
        if (sqlite_query_bound(main_.drv, mark_bound, {m.record, room, m.date, m.time}) != 0)
            rc = -1;
    return sqlite_commit(main_.drv) == 0 ? rc : -1;
}

void call_cache::checkpoint() {
    // With the sender the checkpoint runs on the other connection, so that
    // the sender, the answers and the capture go on writing meanwhile (a
    // passive checkpoint waits for no writer); unless that one is closed.
    // Once it wrote the whole log, the writers' connection starts the new
    // log here: otherwise the commit of the next call (which waits for it
    // to go out to the PMS), or of the next answer, would sync the new log's
    // header. When a group is open, the group's commit does it.
    if (one_) {
        std::optional<bool> whole;  // none: the other connection is closed
        {
            db_lock guard(main_.drv);
            if (main_.connect()) whole = sqlite_checkpoint(main_.drv);
        }
        if (whole.value_or(false)) {
            db_lock guard(own_.drv);
            if (own_.open_group() == 0 && own_.connect()) sqlite_restart_log(own_.drv);
        }
        if (whole) return;
    }
    dbdriver_t& drv = table().drv;
    db_lock guard(drv);
    if (ready(drv)) sqlite_checkpoint(drv);
}

void call_cache::use_one_connection() {
    one_ = true;
    // Its commits leave the checkpoints to checkpoint() (each cycle) up to a
    // bound that only a cycle that cannot end reaches: a checkpoint made in
    // a commit holds the connection, and so every answer, for its length.
    db_lock guard(own_.drv);
    if (own_.connect()) own_.drv.query("PRAGMA wal_autocheckpoint=100000");
}

void call_cache::accept(accepted_call rule, const fias_field_t* rn, const fias_field_t* da,
                        const fias_field_t* ti, const fias_field_t* seq, const fill_options& fill,
                        bool grouped) {
    const char* templ = remove_template;
    if (rule == accepted_call::mark_with_number) templ = mark_number_template;
    if (rule == accepted_call::remove_own_row) templ = remove_own_template;
    dbdriver_t& drv = main_.drv;
    if (log_wanted(L_DEBUG))
        LOG(L_DEBUG, "OK query is: %s\n",
            prepare_query(&drv, templ, rn, nullptr, nullptr, nullptr, da, ti, seq, fill).c_str());
    auto text = [&](const char* placeholder) {
        return field_as_text(&drv, placeholder, rn, da, ti, seq, fill);
    };
    const std::string room = text("%exten%");
    if (grouped) {
        db_lock guard(own_.drv);
        if (!own_.join_group()) return;
        return accept_on(own_.drv, rule, room, text);
    }
    db_lock guard(drv);
    accept_on(drv, rule, room, text);
}

void call_cache::accept_on(dbdriver_t& drv, accepted_call rule, const std::string& room,
                           const std::function<std::string(const char*)>& text) {
    switch (rule) {
        case accepted_call::remove_by_start:
            sqlite_query_bound(drv, remove_bound, {room, text("%date%"), text("%time%")});
            break;
        case accepted_call::mark_with_number:
            sqlite_query_bound(drv, mark_bound,
                               {text("%seqno%"), room, text("%date%"), text("%time%")});
            break;
        case accepted_call::remove_own_row:
            sqlite_query_bound(drv, remove_own_bound, {room, "PS|P#" + text("%seqno%") + "|"});
            break;
    }
}

int call_cache::count_own(const char* statement) {
    db_lock guard(own_.drv);
    if (!own_.connect()) return -1;
    return static_cast<int>(sqlite_count_bound(own_.drv, statement, {}));
}

int call_cache::waiting() {
    return count_own(waiting_statement);
}

int call_cache::oldest_waiting_age() {
    return count_own(oldest_waiting_statement);
}
